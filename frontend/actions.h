#ifndef FRONTEND_ACTIONS_H_
#define FRONTEND_ACTIONS_H_

#include <string>
#include <vector>

#include "config/registry.h"
#include "registration/registrator.h"
#include "support/parsed_options.h"
#include "webservice/ws_cata_proxy.h"

namespace corvel::storage::tzregister {

/// What an action works with. Everything is borrowed for the call.
struct ActionContext {
  const support::ParsedOptions& options;
  const std::string& type;  ///< component type, empty when none was given
  WSCataProxy* proxy;
  Registrator* registrator;
  const RegistryHost& registry;
};

/// The names of all actions that can be performed.
std::vector<std::string> ActionNames();

/// Performs `action`, whose name must have passed the check against the type.
/// Returns 0, or -1 after a line on standard error when the command line lacks
/// what the action needs. Throws what the operations throw, and std::logic_error
/// for a name that is none of ActionNames().
int PerformAction(const std::string& action, const ActionContext& context);

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_ACTIONS_H_
