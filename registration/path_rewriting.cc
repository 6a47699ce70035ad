#include <cctype>

#include "config/config_file.h"
#include "registration/failures.h"
#include "registration/registrator.h"
#include "registration/system_account.h"
#include "support/file_system.h"
#include "support/password.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kAccountSection[] = "systemaccount";
constexpr char kMaskedPassword[] = "**********";

// Values of --agentType that decide about the system account.
constexpr std::uint64_t kQuorvexAgent = 0;
constexpr std::uint64_t kWrxAgent = 2;

struct PathOption {
  const char* section;
  const char* option;
};

constexpr PathOption kPathOptions[] = {
    {"paths", "var"},  {"paths", "keydir"},      {"paths", "log"},
    {"paths", "temp"}, {"paths", "snapshots"},   {"paths", "rtdir"},
    {"paths", "pid"},  {"paths", "progressdir"}, {"paths", "resourcebundles"},
};

// The storage daemon's path is visited twice: a relative storage path is put in
// front of it twice, and existing installations rely on the place that gives.
constexpr PathOption kContentRouterPathOptions[] = {
    {"ContentRouter", "RouteTableLocation"},
    {"ContentRouter", "PrevRouteTableLocation"},
    {"Logging", "LogPath"},
    {"Spooler", "Path"},
    {"StorageDaemon", "Storage"},
    {"StorageDaemon", "Path"},
    {"StorageDaemon", "ProcessedPath"},
    {"StorageDaemon", "HistoryPath"},
    {"StorageDaemon", "TmpPath"},
    {"StorageDaemon", "DelLogPath"},
    {"StorageDaemon", "Path"},
    {"SSL", "CertFileName"},
    {"SSL", "PrivateKeyFileName"},
};

/// The options that say where the host's keys lie.
constexpr PathOption kKeyOptions[] = {{"paths", "keydir"}, {"SSL", "PrivateKeyFileName"}};

/// Who may look into the directory of an option.
support::FilePrivacy PrivacyOf(const std::string& section, const std::string& option) {
  for (const PathOption& row : kKeyOptions) {
    if (section == row.section && option == row.option) return support::FilePrivacy::kSecret;
  }
  return support::FilePrivacy::kPublic;
}

/// True for "/..." and for drive paths such as "C:/...".
bool IsAbsolute(const std::string& path) {
  if (path.empty()) return false;
  return path[0] == '/' ||
         (std::isalpha(static_cast<unsigned char>(path[0])) != 0 && path.compare(1, 2, ":/") == 0);
}

void StoreInAccount(const std::string& option, const std::string& value,
                    tzconfig::TZConfig* config) {
  if (config->SetOptionValue(kAccountSection, option, value) != tzconfig::kSuccess) {
    failures::kAccountNotStored.Throw(option);
  }
}

void StoreAccount(const std::string& login, const std::string& password,
                  tzconfig::TZConfig* config) {
  StoreInAccount("login", login, config);
  StoreInAccount("passwd", password, config);
}

/// Stores the account with its password encrypted under the host's key file.
void StoreEncryptedAccount(const std::string& login, const std::string& password,
                           tzconfig::TZConfig* config) {
  std::string keydir;
  std::string comment;
  if (config->GetOptionValue("paths", "keydir", &keydir, &comment) != tzconfig::kSuccess) {
    failures::kOptionNotLoaded.Throw("keydir");
  }
  char encrypted[kPasswordBytes];
  if (EncryptPasswdWithKey(KeyFilePath(keydir).c_str(), password.c_str(), encrypted,
                           static_cast<int>(sizeof(encrypted))) != 0) {
    failures::kPasswordNotEncrypted.Throw();
  }
  StoreAccount(login, encrypted, config);
}

}  // namespace

void Registrator::UpdatePathInParam(const std::string& option, const std::string& section,
                                    const std::string& base, bool makeDirs,
                                    tzconfig::TZConfig* config) const {
  std::string value;
  std::string comment;
  if (config->GetOptionValue(section, option, &value, &comment) != tzconfig::kSuccess) return;
  if (value.empty() || IsAbsolute(value)) return;
  value.insert(0, base.empty() || base.back() == '/' ? base : base + '/');
  if (config->SetOptionValue(section, option, value, comment) != tzconfig::kSuccess) {
    failures::kPathNotStored.Throw();
  }
  if (makeDirs) support::MakeDirectories(value, PrivacyOf(section, option));
}

void Registrator::SetStoragePath(const std::string& storagePath, bool makeDirs,
                                 tzconfig::TZConfig* config) const {
  for (const PathOption& row : kPathOptions) {
    UpdatePathInParam(row.option, row.section, storagePath, makeDirs, config);
  }
}

void Registrator::SetContentRouterStoragePath(const std::string& storagePath, bool makeDirs,
                                              tzconfig::TZConfig* config) const {
  for (const PathOption& row : kContentRouterPathOptions) {
    UpdatePathInParam(row.option, row.section, storagePath, makeDirs, config);
  }
}

void Registrator::SetSystemAccount(const std::string& login, const std::string& password,
                                   tzconfig::TZConfig* config) const {
  if (!options_.Has("agentType")) return;
  const std::uint64_t agentType = options_.Number("agentType");
  if (agentType == kWrxAgent) {
    StoreAccount(kMaskedLogin, kMaskedPassword, config);
  } else if (agentType == kQuorvexAgent && !login.empty() && !password.empty()) {
    StoreEncryptedAccount(login, password, config);
  }
}

void Registrator::ReplacePathsInConfigFile(std::istream* in, std::ostream* out,
                                           configfiletemplate_t templateId,
                                           const std::string& storagePath, const std::string& login,
                                           const std::string& password) const {
  if (in == nullptr || out == nullptr) {
    failures::kNoTemplateStream.Throw();
  }
  const bool makeDirs = options_.Has("mkdir");
  tzconfig::TZConfig config;
  const tzconfig::TZConfigFile file("", "");
  if (file.LoadConfig(in, &config) != tzconfig::kSuccess) {
    failures::kTemplateNotLoaded.Throw();
  }
  if (templateId == TEMPLATE_CONTENT_ROUTER) {
    SetContentRouterStoragePath(storagePath, makeDirs, &config);
  } else {
    SetStoragePath(storagePath, makeDirs, &config);
  }
  SetSystemAccount(login, password, &config);
  if (file.DumpConfig(out, &config) != tzconfig::kSuccess) {
    failures::kTemplateNotDumped.Throw();
  }
}

}  // namespace corvel::storage::tzregister
