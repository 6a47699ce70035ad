#include "registration/registrator.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "registration/failures.h"

namespace corvel::storage::tzregister {

const std::string AgentVersion = "6.6.0.12345";
const std::int64_t OSVariantId = 0;
const std::int64_t OSTypeId = 20;
const std::string OSEextensions;

namespace {

struct TypeActions {
  const char* type;
  std::vector<const char*> actions;  ///< in the order in which the refusal lists them
};

/// What may be done for which component type; the empty type stands for none
/// given. A type that is not here may do nothing.
std::vector<TypeActions> AllowedActions() {
  return {
      {"Agent", {"register", "configfile", "routingtables", "certificate", "createds"}},
      {"StoragePoolAuthority", {"configfile"}},
      {"storagepool", {"discover"}},
      {"ContentRouter", {"configfile"}},
      {"", {"createds", "routingtables", "discover"}},
  };
}

std::vector<const char*> ActionsOf(const std::string& type) {
  for (const TypeActions& row : AllowedActions()) {
    if (type == row.type) return row.actions;
  }
  return {};
}

}  // namespace

Registrator::Registrator(const boost::program_options::variables_map& options, WSCataProxy* proxy)
    : options_(options), proxy_(proxy) {}

void Registrator::SetConfigFile(const std::string& path) { configFile_ = path; }

void Registrator::ValidateAction(const std::string& action, const std::string& type) const {
  const std::vector<const char*> allowed = ActionsOf(type);
  if (std::find(allowed.begin(), allowed.end(), action) != allowed.end()) return;
  std::string refusal =
      action + " is not a valid action for type " + type + ".\nValid actions are: ";
  for (const char* valid : allowed) refusal.append(valid).append(" ");
  failures::kActionNotAllowed.Throw(refusal);
}

}  // namespace corvel::storage::tzregister
