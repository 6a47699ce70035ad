#include "frontend/options.h"

#include <boost/program_options/parsers.hpp>
#include <boost/program_options/value_semantic.hpp>
#include <memory>
#include <string>
#include <vector>

#include "support/parsed_options.h"

namespace corvel::storage::support {

/// Found by the option library for values of this kind: takes what it would
/// take for a text.
static void validate(boost::any& value, const std::vector<std::string>& tokens,
                     SharedSecret* /*kind*/, int /*rank*/) {
  namespace validators = boost::program_options::validators;
  validators::check_first_occurrence(value);
  value = SharedSecret(std::make_shared<const Secret>(validators::get_single_string(tokens)));
}

}  // namespace corvel::storage::support

namespace corvel::storage::tzregister {
namespace {

namespace po = boost::program_options;

enum class ValueKind { kNone, kText, kSecret, kNumber };

struct OptionRow {
  const char* names;  ///< long name, or long and short name with a comma between
  ValueKind kind;
  const char* help;
};

// No option has a default: an action tells one that was given from one that
// was not. The help of --storage and --dsrules is known to installers as it is.
constexpr OptionRow kOptions[] = {
    {"version,V", ValueKind::kNone, "Returns the version of this application"},
    {"help,h", ValueKind::kNone, "describe arguments"},
    {"action", ValueKind::kText,
     "Action [registry,discover,register,configfile,routingtables,certificate,createDS]"},
    {"login", ValueKind::kText, "User account login"},
    {"passwd", ValueKind::kSecret, "User account password"},
    {"passwdfile", ValueKind::kText,
     "Path to user account password ensure it is only root readable"},
    {"url", ValueKind::kText, "URL where the StoragePool Authority webservices can be found."},
    {"type", ValueKind::kText, "Type [Agent, ContentRouter, Controller, StoragePoolAuthority]"},
    {"todisk", ValueKind::kNone,
     "Store the output on disk using the location defined by qxregistry."},
    {"server", ValueKind::kNone, "Register as a server agent by specifying this flag."},
    {"mkdir", ValueKind::kNone, "whether or not create a directory."},
    {"agentType", ValueKind::kNumber,
     "Type of agent to register, one of 0=Quorvex Agent (default),1=KMT Agent, 2=WRX Agent, 3=JQ "
     "Agent"},
    {"keydir", ValueKind::kText, "Directory where SSL keys reside."},
    {"agentid", ValueKind::kNumber, "Id of agent for which to retrieve a config file."},
    {"hostname", ValueKind::kText, "The hostname of the computer on which the agent is installed."},
    {"file", ValueKind::kText,
     "Full path to output file, or path to config file for action=registry"},
    {"file2", ValueKind::kText, "Full path to output file for current route table"},
    {"configfile", ValueKind::kText, "Full path to config file for action=certificate"},
    {"dsname", ValueKind::kText, "Name of the DataSelection to be created with action createDS."},
    {"dsrules", ValueKind::kText, ""},
    {"storage", ValueKind::kText, "Register as a server agent by specifying this flag."},
    {"productname", ValueKind::kText, "Use STRING as productname instead the default 'Agent'."},
    {"dstypeid", ValueKind::kNumber, "DataSelection type to be created with action createDS."},
    {"storagepoolid", ValueKind::kNumber,
     "Id of the storagepool of which to fetch the routing tables."},
};

void Declare(const OptionRow& row, po::options_description* description) {
  switch (row.kind) {
    case ValueKind::kNone:
      description->add_options()(row.names, row.help);
      return;
    case ValueKind::kText:
      description->add_options()(row.names, po::value<std::string>(), row.help);
      return;
    case ValueKind::kSecret:
      description->add_options()(row.names, po::value<support::SharedSecret>(), row.help);
      return;
    case ValueKind::kNumber:
      description->add_options()(row.names, po::value<unsigned long>(), row.help);
      return;
  }
}

}  // namespace

po::options_description DescribeOptions() {
  po::options_description description("Usage");
  for (const OptionRow& row : kOptions) Declare(row, &description);
  return description;
}

void ParseOptions(int argc, const char* const* argv, const po::options_description& description,
                  po::variables_map* options) {
  po::store(po::parse_command_line(argc, argv, description), *options);
  po::notify(*options);
}

}  // namespace corvel::storage::tzregister
