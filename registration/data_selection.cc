#include "frontend/register_exception.h"
#include "frontend/string_check.h"
#include "registration/registrator.h"
#include "support/diagnostic.h"

namespace corvel::storage::tzregister {
namespace {

void WarnMissing(const std::string& parameter) {
  support::PrintDiagnostic("Warning: No " + parameter + " parameter given. Continuing without.");
}

}  // namespace

void Registrator::CreateDataSelection(const std::string& dsname, const std::string& dsrules,
                                      const std::string& dstypeid) {
  std::string agentId = UseStoredCredentials();
  if (options_.Has("agentid")) {
    agentId = to_string<std::uint64_t>(options_.Number("agentid"), std::dec);
  }
  RegisterStringCheck::ValidateNotEmpty("dsname", dsname);
  if (dstypeid.empty()) {
    WarnMissing("dstypeid");
  } else {
    RegisterStringCheck::ValidateNumeric(dstypeid);
  }
  if (dsrules.empty()) WarnMissing("dsrules");
  proxy_->CreateDataSelection(agentId, dstypeid, dsrules, dsname);
}

}  // namespace corvel::storage::tzregister
