#include "webservice/failures.h"
#include "webservice/ws_cata_proxy.h"

namespace corvel::storage::tzregister {
namespace {

const Record& FirstRecord(RecordSet* records) {
  const Record* const record = records->next();
  if (record == nullptr) failures::kNoRecords.Throw();
  return *record;
}

void FieldUnlessEmpty(WebService* ws, const char* name, const std::string& value) {
  if (!value.empty()) ws->field(name, value.c_str());
}

/// Writes one column of `record` to `stream`, which must be good.
void WriteColumn(const Record& record, const char* column, const Failure& notWritten,
                 std::ostream* stream) {
  if (!stream->good()) notWritten.Throw();
  *stream << record.getValue(column, true);
}

}  // namespace

void WSCataProxy::DiscoverStoragePool() const {
  WebService ws(network_);
  RecordSet records;
  PPrepareWebService(&ws, "ws_storagepool.php");
  ws.field("action", "discover");
  PCallWebService(&ws, &records);
}

void WSCataProxy::RegisterAgent(const std::string& macAddress, const std::string& agentVersion,
                                std::int64_t osVariantId, std::int64_t osType,
                                const std::string& osExtensions, const std::string& hostName,
                                const std::string& type, std::int64_t* agentId, std::string* login,
                                std::string* password) const {
  if (agentId == nullptr || login == nullptr || password == nullptr) {
    failures::kNoAgentOutput.Throw();
  }
  WebService ws(network_);
  RecordSet records;
  PPrepareWebService(&ws, "ws_agent.php");
  ws.field("action", "register");
  ws.field("agentid", *agentId);
  ws.field("isServerAgent", "0");
  FieldUnlessEmpty(&ws, "macAddress", macAddress);
  FieldUnlessEmpty(&ws, "agentVersion", agentVersion);
  ws.field("version", agentVersion.c_str());
  ws.field("osvariantid", osVariantId);
  ws.field("osType", osType);
  ws.field("osextensions", osExtensions.c_str());
  FieldUnlessEmpty(&ws, "hostName", hostName);
  ws.field("type", type.empty() ? "0" : type.c_str());
  PCallWebService(&ws, &records);

  const Record& record = FirstRecord(&records);
  *agentId = NumberFromText(record.getValue("agentid", true));
  *login = record.getValue("login", true);
  *password = record.getValue("password", true);
}

void WSCataProxy::GetRoutingTables(std::int64_t storagePoolId, std::ostream* recommended,
                                   std::ostream* current) const {
  if (recommended == nullptr || current == nullptr) {
    failures::kNoTableOutput.Throw();
  }
  WebService ws(network_);
  RecordSet records;
  PPrepareAgentWebService(&ws, "getRoutingTables", 0);
  ws.field("storagepoolId", storagePoolId);
  PCallWebService(&ws, &records);

  const Record& record = FirstRecord(&records);
  WriteColumn(record, "cr_recommendedrt", failures::kRecommendedTableNotWritten, recommended);
  WriteColumn(record, "cr_currentrt", failures::kCurrentTableNotWritten, current);
}

void WSCataProxy::GetConfigFile(std::int64_t agentId, int templateId, std::ostream* out) const {
  if (out == nullptr) failures::kNoConfigFileOutput.Throw();
  WebService ws(network_);
  RecordSet records;
  PPrepareWebService(&ws, "ws_configfile.php");
  ws.field("action", "create");
  ws.field("agentid", agentId);
  ws.field("configfiletemplateid", std::int64_t{templateId});
  PCallWebService(&ws, &records);

  WriteColumn(FirstRecord(&records), "returnvalue", failures::kConfigFileNotStored, out);
}

void WSCataProxy::CreateDataSelection(const std::string& agentId, const std::string& dsTypeId,
                                      const std::string& dataSelection,
                                      const std::string& name) const {
  WebService ws(network_);
  RecordSet records;
  PPrepareWebService(&ws, "ws_dataselection.php");
  ws.field("action", "createDS");
  ws.field("agentid", agentId.c_str());
  ws.field("dstypeid", dsTypeId.c_str());
  ws.field("dataselection", dataSelection.c_str());
  ws.field("name", name.c_str());
  PCallWebService(&ws, &records);
}

}  // namespace corvel::storage::tzregister
