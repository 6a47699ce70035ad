#include "config/config_file.h"
#include "frontend/register_exception.h"
#include "registration/registrator.h"
#include "registration/system_account.h"
#include "support/file_system.h"
#include "support/password.h"
#include "support/secret.h"

namespace corvel::storage::tzregister {
namespace {

[[noreturn]] void Throw(const std::string& description) {
  throw RegisterException(ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator", description);
}

bool ReadOption(const char* section, const char* option, tzconfig::TZConfig* config,
                std::string* value) {
  std::string comment;
  return config->GetOptionValue(section, option, value, &comment) == tzconfig::kSuccess;
}

/// The options that every credential file must hold, in the order in which a
/// missing one is reported.
struct RequiredOption {
  const char* section;
  const char* option;
  std::string StoredCredentials::*target;
};
constexpr RequiredOption kRequiredOptions[] = {
    {"spa", "url", &StoredCredentials::url},
    {"systemaccount", "login", &StoredCredentials::login},
    {"systemaccount", "passwd", &StoredCredentials::passwd},
    {"paths", "keydir", &StoredCredentials::keydir},
};

void ReadRequired(tzconfig::TZConfig* config, StoredCredentials* credentials) {
  for (const RequiredOption& required : kRequiredOptions) {
    if (!ReadOption(required.section, required.option, config, &(credentials->*required.target))) {
      Throw("Failed to load " + std::string(required.option) + " from file\n");
    }
  }
}

/// Turns the stored password into the plain one. It is plain already for the
/// masked login and where the host has no key file.
void DecryptPassword(StoredCredentials* credentials) {
  if (credentials->login == kMaskedLogin) return;
  const std::string keyFile = KeyFilePath(credentials->keydir);
  if (!support::PathExists(keyFile)) return;
  support::SecretBytes buffer(kPasswordBytes);
  auto* const plain = reinterpret_cast<char*>(buffer.data());
  const int result = DecryptPasswdWithKey(keyFile.c_str(), credentials->passwd.c_str(), plain,
                                          static_cast<int>(buffer.size()));
  if (result != 0) Throw("Failed to decrypt password for user " + credentials->login);
  credentials->passwd = plain;
}

}  // namespace

StoredCredentials::~StoredCredentials() { support::WipeText(&passwd); }

void Registrator::GetCredentialFromFile(const std::string& file, std::string* url,
                                        std::string* login, std::string* passwd,
                                        std::string* keydir, std::string* agentid) {
  if (url == nullptr || login == nullptr || passwd == nullptr || keydir == nullptr ||
      agentid == nullptr) {
    Throw("url, login or passwd is null\n");
  }
  tzconfig::TZConfig config;
  if (tzconfig::TZConfigFile(file, "").LoadConfig(&config) != tzconfig::kSuccess) {
    Throw("Failed to load from file " + file + "\n");
  }
  StoredCredentials credentials;
  ReadRequired(&config, &credentials);
  ReadOption("main", "agentid", &config, agentid);
  DecryptPassword(&credentials);
  *url = credentials.url;
  *login = credentials.login;
  *passwd = credentials.passwd;
  *keydir = credentials.keydir;
}

StoredCredentials Registrator::ReadStoredCredentials() const {
  StoredCredentials stored;
  GetCredentialFromFile(configFile_, &stored.url, &stored.login, &stored.passwd, &stored.keydir,
                        &stored.agentid);
  return stored;
}

std::string Registrator::UseStoredCredentials() {
  const StoredCredentials stored = ReadStoredCredentials();
  proxy_->StoreCredentials(stored.url, stored.login, stored.passwd, stored.keydir);
  return stored.agentid;
}

}  // namespace corvel::storage::tzregister
