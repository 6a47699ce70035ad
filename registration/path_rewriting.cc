#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cctype>

#include "config/config_file.h"
#include "frontend/register_exception.h"
#include "registration/registrator.h"
#include "registration/system_account.h"
#include "support/password.h"
#include "support/secret.h"

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

[[noreturn]] void Throw(const char* description) {
  throw RegisterException(ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator", description);
}

/// True for "/..." and for drive paths such as "C:/...".
bool IsAbsolute(const std::string& path) {
  if (path.empty()) return false;
  return path[0] == '/' ||
         (std::isalpha(static_cast<unsigned char>(path[0])) != 0 && path.compare(1, 2, ":/") == 0);
}

void StoreAccount(const char* login, const char* password, tzconfig::TZConfig* config) {
  if (config->SetOptionValue(kAccountSection, "login", login) != tzconfig::kSuccess) {
    Throw("Failed to set systemaccount login");
  }
  if (config->SetOptionValue(kAccountSection, "passwd", password) != tzconfig::kSuccess) {
    Throw("Failed to set systemaccount passwd");
  }
}

/// Stores the account with its password encrypted under the host's key file.
void StoreEncryptedAccount(const std::string& login, const std::string& password,
                           tzconfig::TZConfig* config) {
  std::string keydir;
  std::string comment;
  if (config->GetOptionValue("paths", "keydir", &keydir, &comment) != tzconfig::kSuccess) {
    Throw("Failed to load keydir from file\n");
  }
  char encrypted[kPasswordBytes];
  if (EncryptPasswdWithKey(KeyFilePath(keydir).c_str(), password.c_str(), encrypted,
                           static_cast<int>(sizeof(encrypted))) != 0) {
    Throw("Failed to encrypt password from file\n");
  }
  StoreAccount(login.c_str(), encrypted, config);
}

}  // namespace

void Registrator::UpdatePathInParam(const std::string& option, const std::string& section,
                                    const std::string& base, bool make_dirs,
                                    tzconfig::TZConfig* config) const {
  std::string value;
  std::string comment;
  if (config->GetOptionValue(section, option, &value, &comment) != tzconfig::kSuccess) return;
  if (value.empty() || IsAbsolute(value)) return;
  boost::filesystem::path joined(base);
  joined /= value;
  if (config->SetOptionValue(section, option, joined.string(), comment) != tzconfig::kSuccess) {
    throw RegisterException(ERR_FILE_WRITE, SEVERITY_ERROR, "ConfigFile",
                            "Failed to update parameter in configfile");
  }
  if (make_dirs) boost::filesystem::create_directories(joined);
}

void Registrator::SetStoragePath(const std::string& storage_path, bool make_dirs,
                                 tzconfig::TZConfig* config) const {
  for (const PathOption& row : kPathOptions) {
    UpdatePathInParam(row.option, row.section, storage_path, make_dirs, config);
  }
}

void Registrator::SetContentRouterStoragePath(const std::string& storage_path, bool make_dirs,
                                              tzconfig::TZConfig* config) const {
  for (const PathOption& row : kContentRouterPathOptions) {
    UpdatePathInParam(row.option, row.section, storage_path, make_dirs, config);
  }
}

void Registrator::SetSystemAccount(const std::string& login, const std::string& password,
                                   tzconfig::TZConfig* config) const {
  if (!Has("agentType")) return;
  const std::uint64_t agentType = Number("agentType");
  if (agentType == kWrxAgent) {
    StoreAccount(kMaskedLogin, kMaskedPassword, config);
  } else if (agentType == kQuorvexAgent && !login.empty() && !password.empty()) {
    StoreEncryptedAccount(login, password, config);
  }
}

void Registrator::ReplacePathsInConfigFile(std::istream* in, std::ostream* out,
                                           configfiletemplate_t template_id,
                                           const std::string& storage_path,
                                           const std::string& login,
                                           const std::string& password) const {
  if (in == nullptr || out == nullptr) {
    throw RegisterException(ERR_WEBSERVICE, SEVERITY_ERROR, "Registrator",
                            "in, out or storagepath is NULL");
  }
  const bool make_dirs = Has("mkdir");
  tzconfig::TZConfig config;
  const tzconfig::TZConfigFile file("", "");
  if (file.LoadConfig(in, &config) != tzconfig::kSuccess) {
    Throw("Failed to load from input stream ");
  }
  if (template_id == TEMPLATE_CONTENT_ROUTER) {
    SetContentRouterStoragePath(storage_path, make_dirs, &config);
  } else {
    SetStoragePath(storage_path, make_dirs, &config);
  }
  SetSystemAccount(login, password, &config);
  if (file.DumpConfig(out, &config) != tzconfig::kSuccess) {
    Throw("Failed to dump to output stream ");
  }
}

}  // namespace corvel::storage::tzregister
