#include <unistd.h>

#include "frontend/string_check.h"
#include "registration/failures.h"
#include "registration/registrator.h"

namespace corvel::storage::tzregister {
namespace {

/// Reported for every host; no network interface is ever read.
constexpr char kPlaceholderMacAddress[] = "000000000000";
constexpr std::size_t kHostNameBytes = 256;

/// This host's own name; empty when the host cannot tell.
std::string LocalHostName() {
  char name[kHostNameBytes + 1] = {};
  return gethostname(name, kHostNameBytes) == 0 ? name : "";
}

}  // namespace

void Registrator::RegisterComponent(const std::string& componentType, std::int64_t* agentId,
                                    const std::string& hostname, std::string* login,
                                    std::string* password) {
  RegisterStringCheck::ValidateType(componentType);
  std::string agentType;
  if (options_.Has("agentType")) {
    agentType = to_string<std::uint64_t>(options_.Number("agentType"), std::dec);
  }
  if (componentType != "Agent" || agentType.empty()) {
    failures::kTypeNotRegistered.Throw(componentType);
  }
  RegisterStringCheck::ValidateNumeric(agentType);
  proxy_->RegisterAgent(kPlaceholderMacAddress, AgentVersion, OSVariantId, OSTypeId, OSEextensions,
                        hostname.empty() ? LocalHostName() : hostname, agentType, agentId, login,
                        password);
}

}  // namespace corvel::storage::tzregister
