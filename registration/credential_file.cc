#include <cstring>
#include <utility>

#include "config/config_file.h"
#include "registration/failures.h"
#include "registration/registrator.h"
#include "registration/system_account.h"
#include "support/file_system.h"
#include "support/password.h"
#include "support/secret.h"

namespace corvel::storage::tzregister {
namespace {

bool ReadOption(const char* section, const char* option, tzconfig::TZConfig* config,
                std::string* value) {
  std::string comment;
  return config->GetOptionValue(section, option, value, &comment) == tzconfig::kSuccess;
}

/// The account as it stands in the file.
struct FileAccount {
  std::string url;
  std::string login;
  std::string passwd;
  std::string keydir;
};

/// The options that every credential file must hold, in the order in which a
/// missing one is reported.
struct RequiredOption {
  const char* section;
  const char* option;
  std::string FileAccount::*target;
};
constexpr RequiredOption kRequiredOptions[] = {
    {"spa", "url", &FileAccount::url},
    {"systemaccount", "login", &FileAccount::login},
    {"systemaccount", "passwd", &FileAccount::passwd},
    {"paths", "keydir", &FileAccount::keydir},
};

FileAccount ReadAccount(tzconfig::TZConfig* config) {
  FileAccount account;
  for (const RequiredOption& required : kRequiredOptions) {
    if (!ReadOption(required.section, required.option, config, &(account.*required.target))) {
      failures::kOptionNotLoaded.Throw(required.option);
    }
  }
  return account;
}

/// The plain password. The stored one is plain already for the masked login and
/// where the host has no key file.
support::Secret PlainPassword(const FileAccount& account) {
  const std::string keyFile = KeyFilePath(account.keydir);
  if (account.login == kMaskedLogin || !support::PathExists(keyFile)) {
    return support::Secret(account.passwd);
  }
  support::Secret plain;
  plain.Resize(kPasswordBytes);
  const int result = DecryptPasswdWithKey(keyFile.c_str(), account.passwd.c_str(), plain.data(),
                                          static_cast<int>(plain.size()));
  if (result != 0) failures::kPasswordNotDecrypted.Throw(account.login);
  plain.Resize(std::strlen(plain.data()));
  return plain;
}

}  // namespace

void Registrator::GetCredentialFromFile(const std::string& file, std::string* url,
                                        std::string* login, std::string* passwd,
                                        std::string* keydir, std::string* agentid) {
  if (url == nullptr || login == nullptr || passwd == nullptr || keydir == nullptr ||
      agentid == nullptr) {
    failures::kNoCredentialOutput.Throw();
  }
  tzconfig::TZConfig config;
  if (tzconfig::TZConfigFile(file, "").LoadConfig(&config) != tzconfig::kSuccess) {
    failures::kCredentialFileNotLoaded.Throw(file);
  }
  const FileAccount account = ReadAccount(&config);
  ReadOption("main", "agentid", &config, agentid);
  const support::Secret plain = PlainPassword(account);
  *url = account.url;
  *login = account.login;
  *passwd = plain.text();
  *keydir = account.keydir;
}

StoredCredentials Registrator::ReadStoredCredentials() const {
  StoredCredentials stored;
  GetCredentialFromFile(configFile_, &stored.url, &stored.login, stored.passwd.Receive(),
                        &stored.keydir, &stored.agentid);
  return stored;
}

std::string Registrator::UseStoredCredentials() {
  StoredCredentials stored = ReadStoredCredentials();
  proxy_->StoreCredentials(stored.url, stored.login, std::move(stored.passwd), stored.keydir);
  return stored.agentid;
}

}  // namespace corvel::storage::tzregister
