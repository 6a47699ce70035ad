#include "frontend/tzregister.h"

#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include "frontend/actions.h"
#include "frontend/options.h"
#include "frontend/parsed_options.h"
#include "frontend/refusal.h"
#include "frontend/string_check.h"
#include "registration/registrator.h"
#include "support/library.h"
#include "webservice/ws_cata_proxy.h"

namespace corvel::storage::tzregister {
namespace {

namespace po = boost::program_options;

constexpr char kLibraryVersion[] = "6.0.0.0";
constexpr char kTypelessAction[] = "discover";

void InitLib(const char* programName) { InitSupportLibrary(programName, kLibraryVersion); }

/// Builds the workers, checks action and type, and performs the action.
int RunAction(const std::string& action, const ParsedOptions& options, const Platform& platform) {
  WSCataProxy proxy(options.map(), platform.network);
  Registrator registrator(options.map(), &proxy);
  std::string type;
  if (options.Has("type")) {
    type = options.Text("type");
    RegisterStringCheck::ValidateType(type);
  } else if (action != kTypelessAction) {
    return Refuse("--type is missing");
  }
  registrator.ValidateAction(action, type);
  return PerformAction(action, {options, type, &proxy, &registrator, *platform.registry});
}

/// The description stands in the report twice; scripts that read the report
/// know it so.
void ReportFailure(const std::string& action, const char* description) {
  std::ostringstream report;
  report << "Failed to perform action " << action << ". Error: " << description << description
         << "\n";
  std::cerr << report.str() << std::endl;
}

/// Runs the action and reports its outcome, good or bad.
int RunAndReport(const ParsedOptions& options, const Platform& platform) {
  const std::string action = options.Text("action");
  try {
    if (RunAction(action, options, platform) != 0) return -1;
    std::cerr << "Action " + action + " completed successfully.\n";
    return 0;
  } catch (const std::exception& failure) {
    ReportFailure(action, failure.what());
  } catch (...) {
    std::cerr << "Failed to perform action " << action << ". Error unknown." << std::endl;
  }
  return -1;
}

/// Parses the command line into `*options`; false after a report.
bool Parse(int argc, char** argv, const po::options_description& description,
           po::variables_map* options) {
  try {
    ParseOptions(argc, argv, description, options);
    return true;
  } catch (const std::exception& failure) {
    std::cerr << "Exception is caught " << failure.what() << std::endl;
    return false;
  }
}

}  // namespace

int RealMain(int argc, char** argv, const Platform& platform) {
  InitLib("tzregister");
  const po::options_description description = DescribeOptions();
  po::variables_map parsed;
  if (!Parse(argc, argv, description, &parsed)) return -1;
  const ParsedOptions options(parsed);
  if (options.Has("help")) {
    std::cerr << description << std::endl;
    return 0;
  }
  if (!options.Has("action")) return Refuse("at least and only one --action is expected ");
  return RunAndReport(options, platform);
}

int RealMain(int argc, char** argv) { return RealMain(argc, argv, Platform()); }

}  // namespace corvel::storage::tzregister
