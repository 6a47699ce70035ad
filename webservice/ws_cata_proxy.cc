#include "webservice/ws_cata_proxy.h"

#include <fstream>
#include <string_view>
#include <utility>

#include "support/diagnostic.h"
#include "webservice/failures.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kChannelPrefix[] = "vrmo";
constexpr char kPasswordMark[] = "passwd=";
constexpr std::size_t kFileBufferBytes = 4096;

/// Moves `*file` behind the next "passwd="; false when none follows.
bool SkipPasswordMark(std::istream* file) {
  constexpr std::size_t kLength = sizeof(kPasswordMark) - 1;
  std::size_t matched = 0;
  char character = '\0';
  while (matched < kLength && file->get(character)) {
    // The mark's first letter stands in it but once, so a mismatch can begin
    // the mark anew at most.
    if (character != kPasswordMark[matched]) matched = 0;
    if (character == kPasswordMark[matched]) ++matched;
  }
  return matched == kLength;
}

/// Stores what follows the first "passwd=" of the first line that holds one;
/// false, after a line on standard error, when there is nothing to be had.
bool getSpaPasswdFromFile(const std::string& path, support::Secret* passwd) {
  // What the stream reads ahead holds the password as well.
  support::Secret buffer;
  buffer.Resize(kFileBufferBytes);
  std::ifstream file;
  file.rdbuf()->pubsetbuf(buffer.data(), static_cast<std::streamsize>(buffer.size()));
  file.open(path);
  if (!file) {
    support::PrintDiagnostic("Failed to open SPA passwd file.");
    return false;
  }
  if (!SkipPasswordMark(&file)) {
    support::PrintDiagnostic("Could not find a SPA passwd from file.");
    return false;
  }
  for (char character = '\0'; file.get(character) && character != '\n';) {
    passwd->Append(std::string_view(&character, 1));
  }
  if (passwd->empty()) support::PrintDiagnostic("Empty SPA passwd from file.");
  return !passwd->empty();
}

/// Performs the call; true when the answer is a table. Otherwise the reason
/// stands on standard error.
bool IsTable(WebService* ws, RecordSet* records) {
  long httpCode = 0;
  if (ws->get(&httpCode) != 0) return false;
  if (ws->parse(records) != 0) {
    support::PrintDiagnostic("The data returned by the webservice could not be parsed.");
    return false;
  }
  // The records hold copies of all that counts.
  ws->buffer.Release();
  if (records->error == nullptr) return true;
  const char* const description = records->error->description.get();
  support::PrintDiagnostic(std::string("The webservice returned an error :") +
                           (description == nullptr ? "no description" : description));
  return false;
}

}  // namespace

WSCataProxy::WSCataProxy(const boost::program_options::variables_map& options,
                         const Network& network)
    : options_(options), network_(network) {}

void WSCataProxy::StoreCredentials(const std::string& url, const std::string& login,
                                   support::Secret passwd, const std::string& keydir) {
  url_ = url;
  login_ = login;
  passwd_ = std::move(passwd);
  keydir_ = keydir;
}

support::Secret WSCataProxy::PasswordFromFile() const {
  support::Secret password;
  if (!options_.Has("passwdfile") || options_.Has("passwd")) return password;
  if (!getSpaPasswdFromFile(options_.Text("passwdfile"), &password)) {
    failures::kNoPasswordInFile.Throw();
  }
  return password;
}

WSCataProxy::Account WSCataProxy::OptionAccount(const support::Secret& filePassword) const {
  const bool hasPassword = options_.Has("passwd");
  if (!options_.Has("url") || !options_.Has("login") ||
      !(hasPassword || options_.Has("passwdfile"))) {
    failures::kNoAccount.Throw();
  }
  return {options_.Text("url"), options_.Text("login"),
          hasPassword ? &options_.SecretText("passwd") : &filePassword};
}

WSCataProxy::Account WSCataProxy::StoredAccount(const support::Secret& filePassword) const {
  const support::Secret* password = options_.Has("passwdfile") ? &filePassword : &passwd_;
  if (options_.Has("passwd")) password = &options_.SecretText("passwd");
  return {url_, options_.TextOr("login", login_), password};
}

void WSCataProxy::PPrepareWebService(WebService* ws, const std::string& page) const {
  if (ws == nullptr) failures::kNoWebService.Throw();
  const support::Secret filePassword = PasswordFromFile();
  const bool stored = !url_.empty();
  const Account account = stored ? StoredAccount(filePassword) : OptionAccount(filePassword);
  if (stored) ws->field("keydir", keydir_.c_str());

  const bool isChannel = account.address.rfind(kChannelPrefix, 0) == 0;
  ws->url = isChannel ? account.address : account.address + "/" + page;
  ws->field("login", account.login.c_str());
  ws->field("passwd", account.password->text().c_str());
  if (options_.Has("keydir")) ws->field("keydir", options_.Text("keydir").c_str());
}

void WSCataProxy::PPrepareAgentWebService(WebService* ws, const std::string& action,
                                          std::int64_t /*ignored*/) const {
  PPrepareWebService(ws, "ws_agent.php");
  if (!options_.Has("agentid")) failures::kNoAgentIdOption.Throw();
  const auto agentId = static_cast<std::int64_t>(options_.Number("agentid"));
  if (agentId > 0) ws->field("id", agentId);
  ws->field("action", action.c_str());
  if (options_.Has("keydir")) ws->field("keydir", options_.Text("keydir").c_str());
}

void WSCataProxy::PCallWebService(WebService* ws, RecordSet* records) {
  if (ws == nullptr || records == nullptr) {
    support::PrintDiagnostic("null ws or res");
    failures::kNothingToCall.Throw();
  }
  if (IsTable(ws, records)) return;
  support::PrintDiagnostic("Server's HTTP response code was " + std::to_string(ws->httpStatus));
  failures::kCallFailed.Throw();
}

}  // namespace corvel::storage::tzregister
