#include "frontend/tzregister.h"

#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "frontend/actions.h"
#include "frontend/argument_guard.h"
#include "frontend/options.h"
#include "frontend/string_check.h"
#include "registration/registrator.h"
#include "support/diagnostic.h"
#include "support/parsed_options.h"
#include "support/startup.h"
#include "webservice/ws_cata_proxy.h"

namespace corvel::storage::tzregister {
namespace {

namespace po = boost::program_options;

constexpr char kLibraryVersion[] = "6.0.0.0";
constexpr char kTypelessAction[] = "discover";

void InitLib(const char* programName) { InitSupportLibrary(programName, kLibraryVersion); }

/// Builds the workers, checks action and type, and performs the action.
int RunAction(const std::string& action, const po::variables_map& parsed,
              const Platform& platform) {
  WSCataProxy proxy(parsed, platform.network);
  Registrator registrator(parsed, &proxy);
  const support::ParsedOptions options(parsed);
  std::string type;
  if (options.Has("type")) {
    type = options.Text("type");
    RegisterStringCheck::ValidateType(type);
  } else if (action != kTypelessAction) {
    support::PrintDiagnostic("--type is missing");
    return -1;
  }
  registrator.ValidateAction(action, type);
  return PerformAction(action, {options, type, &proxy, &registrator, *platform.registry});
}

/// The description stands in the report twice; scripts that read the report
/// know it so.
void ReportFailure(const std::string& action, const std::string& description) {
  support::PrintDiagnostic("Failed to perform action " + action + ". Error: " + description +
                           description + "\n");
}

/// Runs the action and reports its outcome, good or bad.
int RunAndReport(const std::string& action, const po::variables_map& parsed,
                 const Platform& platform) {
  try {
    // Composed first: what is done must not pass for failed for want of memory.
    const std::string success = "Action " + action + " completed successfully.\n";
    if (RunAction(action, parsed, platform) != 0) return -1;
    std::cerr << success << std::flush;
    return 0;
  } catch (const std::exception& failure) {
    ReportFailure(action, failure.what());
  } catch (...) {
    support::PrintDiagnostic("Failed to perform action " + action + ". Error unknown.");
  }
  return -1;
}

/// Parses the command line into `*parsed`; false after a report.
bool Parse(int argc, char** argv, const po::options_description& description,
           po::variables_map* parsed) {
  try {
    ParseOptions(argc, argv, description, parsed);
    return true;
  } catch (const std::exception& failure) {
    support::PrintDiagnostic(std::string("Exception is caught ") + failure.what());
    return false;
  }
}

}  // namespace

int RealMain(int argc, char** argv, const Platform& platform) {
  ArgumentGuard arguments(argc, argv);
  InitLib("tzregister");
  const po::options_description description = DescribeOptions();
  po::variables_map parsed;
  if (!Parse(argc, arguments.argv(), description, &parsed)) return -1;
  arguments.RestorePassword(&parsed);
  if (parsed.count("help") > 0) {
    std::cerr << description << std::endl;
    return 0;
  }
  if (parsed.count("action") == 0) {
    support::PrintDiagnostic("at least and only one --action is expected ");
    return -1;
  }
  return RunAndReport(parsed["action"].as<std::string>(), parsed, platform);
}

int RealMain(int argc, char** argv) {
  const std::unique_ptr<HttpTransport> http = HttpTransport::Curl();
  Platform platform;
  platform.network.http = http.get();
  return RealMain(argc, argv, platform);
}

}  // namespace corvel::storage::tzregister
