#include "webservice/ws_cata_proxy.h"

#include <fstream>
#include <iostream>

#include "frontend/register_exception.h"
#include "support/secret.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kChannelPrefix[] = "vrmo";
constexpr char kPasswordMark[] = "passwd=";

[[noreturn]] void ThrowBadArgument(const char* description) {
  throw RegisterException(ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "WSCataProxy", description);
}

bool Refuse(const char* message) {
  std::cerr << message << std::endl;
  return false;
}

/// Stores what follows the first "passwd=" of the first line that holds one;
/// false, after a line on standard error, when there is nothing to be had.
bool getSpaPasswdFromFile(const std::string& path, std::string& passwd) {
  std::ifstream file;
  // A stream's own buffer would keep the password after the file is closed.
  file.rdbuf()->pubsetbuf(nullptr, 0);
  file.open(path);
  if (!file) return Refuse("Failed to open SPA passwd file.");
  std::string line;
  const support::ScopedWipe wipeLine(&line);
  while (std::getline(file, line)) {
    const std::size_t mark = line.find(kPasswordMark);
    if (mark == std::string::npos) continue;
    passwd = line.substr(mark + sizeof(kPasswordMark) - 1);
    return !passwd.empty() || Refuse("Empty SPA passwd from file.");
  }
  return Refuse("Could not find a SPA passwd from file.");
}

/// Performs the call; true when the answer is a table. Otherwise the reason
/// stands on standard error.
bool IsTable(WebService* ws, RecordSet* records) {
  long httpCode = 0;
  if (ws->get(&httpCode) != 0) return false;
  if (ws->parse(records) != 0) {
    return Refuse("The data returned by the webservice could not be parsed.");
  }
  if (records->error == nullptr) return true;
  const char* const description = records->error->description.get();
  std::cerr << "The webservice returned an error :"
            << (description == nullptr ? "no description" : description) << std::endl;
  return false;
}

}  // namespace

WSCataProxy::WSCataProxy(const boost::program_options::variables_map& options,
                         const Network& network)
    : ParsedOptions(options), network_(network) {}

WSCataProxy::~WSCataProxy() { support::WipeText(&passwd_); }

void WSCataProxy::StoreCredentials(const std::string& url, const std::string& login,
                                   const std::string& passwd, const std::string& keydir) {
  url_ = url;
  login_ = login;
  passwd_ = passwd;
  keydir_ = keydir;
}

std::string WSCataProxy::PasswordFromFile() const {
  std::string password;
  if (!Has("passwdfile") || Has("passwd")) return password;
  if (!getSpaPasswdFromFile(Text("passwdfile"), password)) {
    ThrowBadArgument("Required parameter passwdfile not valid");
  }
  return password;
}

WSCataProxy::Account WSCataProxy::OptionAccount(const std::string& filePassword) const {
  if (!Has("url") || !Has("login") || !(Has("passwd") || Has("passwdfile"))) {
    ThrowBadArgument("Required parameter url or login or passwd not present, or missing ws");
  }
  return {Text("url"), Text("login"), TextOr("passwd", filePassword)};
}

WSCataProxy::Account WSCataProxy::StoredAccount(const std::string& filePassword) const {
  const std::string& password = Has("passwdfile") ? filePassword : passwd_;
  return {url_, TextOr("login", login_), TextOr("passwd", password)};
}

void WSCataProxy::PPrepareWebService(WebService* ws, const std::string& page) const {
  if (ws == nullptr) ThrowBadArgument("missing ws");
  std::string filePassword = PasswordFromFile();
  const support::ScopedWipe wipeFilePassword(&filePassword);
  const bool stored = !url_.empty();
  Account account = stored ? StoredAccount(filePassword) : OptionAccount(filePassword);
  const support::ScopedWipe wipePassword(&account.password);
  if (stored) ws->field("keydir", keydir_.c_str());

  const bool isChannel = account.address.rfind(kChannelPrefix, 0) == 0;
  ws->url = isChannel ? account.address : account.address + "/" + page;
  ws->field("login", account.login.c_str());
  ws->field("passwd", account.password.c_str());
  if (Has("keydir")) ws->field("keydir", Text("keydir").c_str());
}

void WSCataProxy::PPrepareAgentWebService(WebService* ws, const std::string& action,
                                          std::int64_t /*ignored*/) const {
  PPrepareWebService(ws, "ws_agent.php");
  if (!Has("agentid")) {
    throw RegisterException(ERR_WEBSERVICE, SEVERITY_CRITICAL, "WSCataProxy", "can't find agentid");
  }
  const auto agentId = static_cast<std::int64_t>(Number("agentid"));
  if (agentId > 0) ws->field("id", agentId);
  ws->field("action", action.c_str());
  if (Has("keydir")) ws->field("keydir", Text("keydir").c_str());
}

void WSCataProxy::PCallWebService(WebService* ws, RecordSet* records) {
  if (ws == nullptr || records == nullptr) {
    std::cerr << "null ws or res" << std::endl;
    throw RegisterException(ERR_WEBSERVICE, SEVERITY_CRITICAL, "WSCataProxy", "null ws or res");
  }
  if (IsTable(ws, records)) return;
  std::cerr << "Server's HTTP response code was " << ws->httpStatus << std::endl;
  throw RegisterException(ERR_WEBSERVICE, SEVERITY_CRITICAL, "WSCataProxy",
                          "WebService call failed");
}

}  // namespace corvel::storage::tzregister
