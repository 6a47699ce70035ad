#include "frontend/actions.h"

#include <cstdint>
#include <stdexcept>

#include "frontend/register_exception.h"
#include "registration/config_retrieval.h"
#include "support/diagnostic.h"
#include "support/secret.h"

namespace corvel::storage::tzregister {
namespace {

bool WritesFiles(const support::ParsedOptions& options) {
  return options.Has("todisk") || options.Has("file");
}

std::int64_t AgentId(const support::ParsedOptions& options) {
  return options.Has("agentid") ? static_cast<std::int64_t>(options.Number("agentid")) : 0;
}

std::string DecimalOption(const support::ParsedOptions& options, const char* name) {
  return to_string<std::int64_t>(static_cast<std::int64_t>(options.Number(name)), std::dec);
}

/// Tells the registrator which file holds the credentials: the one named on the
/// command line, else the one that the registry names for `product`.
void ChooseConfigFile(const ActionContext& context, const std::string& product) {
  std::string path;
  if (context.options.Has("configfile")) {
    path = context.options.Text("configfile");
  } else {
    GetPathsFromRegistry(product, nullptr, &path, context.registry);
  }
  context.registrator->SetConfigFile(path);
}

int Discover(const ActionContext& context) {
  context.proxy->DiscoverStoragePool();
  return 0;
}

int Register(const ActionContext& context) {
  std::int64_t agentId = AgentId(context.options);
  std::string login;
  support::Secret password;
  context.registrator->RegisterComponent(context.type, &agentId, context.options.Text("hostname"),
                                         &login, password.Receive());
  GetConfigFile(context.options, *context.registrator, agentId, login, password.text(),
                context.registry);
  return 0;
}

int ConfigFile(const ActionContext& context) {
  GetConfigFile(context.options, *context.registrator, AgentId(context.options), "", "",
                context.registry);
  return 0;
}

int Certificate(const ActionContext& context) {
  std::string certFile;
  std::string keyFile;
  if (WritesFiles(context.options)) {
    ChooseConfigFile(context, "");
    context.registrator->FilenamesFromArguments(&certFile, &keyFile, "keydir", context.type,
                                                ".cert", ".key");
  }
  Registrator::GenerateSSLCertificate(certFile, keyFile, "");
  return 0;
}

int CreateDataSelection(const ActionContext& context) {
  if (!context.options.Has("dsname") || !context.options.Has("dstypeid")) {
    support::PrintDiagnostic("--dsname and --dstypeid are reqruied");
    return -1;
  }
  ChooseConfigFile(context, context.options.TextOr("productname", ""));
  context.registrator->CreateDataSelection(context.options.Text("dsname"),
                                           context.options.TextOr("dsrules", ""),
                                           DecimalOption(context.options, "dstypeid"));
  return 0;
}

int RoutingTables(const ActionContext& context) {
  if (!context.options.Has("storagepoolid")) {
    support::PrintDiagnostic("--storagepoolid is missing");
    return -1;
  }
  ChooseConfigFile(context, context.options.TextOr("productname", ""));
  std::string recommendedFile;
  std::string currentFile;
  if (WritesFiles(context.options)) {
    context.registrator->FilenamesFromArguments(&recommendedFile, &currentFile, "rtdir",
                                                DecimalOption(context.options, "storagepoolid"),
                                                ".recommended", ".current");
  }
  const auto poolId = static_cast<std::int64_t>(context.options.Number("storagepoolid"));
  context.registrator->GetRoutingTables(poolId, recommendedFile, currentFile);
  return 0;
}

struct ActionRow {
  const char* name;
  int (*perform)(const ActionContext&);
};

constexpr ActionRow kActions[] = {
    {"discover", Discover},
    {"register", Register},
    {"configfile", ConfigFile},
    {"certificate", Certificate},
    {"createds", CreateDataSelection},
    {"routingtables", RoutingTables},
};

}  // namespace

std::vector<std::string> ActionNames() {
  std::vector<std::string> names;
  for (const ActionRow& row : kActions) names.push_back(row.name);
  return names;
}

int PerformAction(const std::string& action, const ActionContext& context) {
  for (const ActionRow& row : kActions) {
    if (action == row.name) return row.perform(context);
  }
  throw std::logic_error("no such action: " + action);
}

}  // namespace corvel::storage::tzregister
