#ifndef FRONTEND_ACTIONS_H_
#define FRONTEND_ACTIONS_H_

#include <string>

#include "config/registry.h"
#include "frontend/parsed_options.h"
#include "registration/registrator.h"
#include "webservice/ws_cata_proxy.h"

namespace corvel::storage::tzregister {

/// What an action works with. Everything is borrowed for the call.
struct ActionContext {
  const ParsedOptions& options;
  const std::string& type;  ///< component type, empty when none was given
  WSCataProxy* proxy;
  Registrator* registrator;
  const RegistryHost& registry;
};

/// Performs `action`, whose name must have passed the check against the type;
/// a name that no other action has means routing tables. Returns 0, or -1 after
/// a line on standard error when the command line lacks what the action needs.
/// Throws what the operations throw.
int PerformAction(const std::string& action, const ActionContext& context);

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_ACTIONS_H_
