#include "config/registry.h"

#include <unistd.h>

#include <iostream>

#include "config/config.h"
#include "config/config_file.h"
#include "frontend/register_exception.h"
#include "support/diagnostic.h"
#include "support/file_system.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kDefaultSection[] = "Agent";
constexpr char kDefaultConfigFile[] = "/etc/quorvex/Agent.cfg";
constexpr char kDefaultInstallPath[] = "/usr/zenta/vrmo/qxag";
constexpr char kExecutableLink[] = "/proc/self/exe";
constexpr char kExecutableDirectory[] = "/bin";
constexpr std::size_t kLinkBufferBytes = 4096;

constexpr Failure kNotOpened{ERR_REGISTRY, SEVERITY_ERROR, "TZRegister",
                             "Could not open TZRegister"};

class SystemRegistryHost final : public RegistryHost {
 public:
  std::string RegistryFile() const override { return Registry::RegistryPath; }

  bool Exists(const std::string& path) const override { return support::PathExists(path); }

  ssize_t ReadExecutableLink(char* buffer, std::size_t size) const override {
    return readlink(kExecutableLink, buffer, size);
  }
};

}  // namespace

const RegistryHost& RegistryHost::System() {
  static const SystemRegistryHost host;
  return host;
}

int Registry::Open(const char* section, const char* /*ignored*/) {
  section_ = section;
  tzconfig::TZConfig config;
  const tzconfig::TZConfigFile file(host_.RegistryFile(), "");
  if (file.LoadConfig(&config) != tzconfig::kSuccess) {
    UseDefaults();
    return 0;
  }
  std::string comment;
  if (config.GetOptionValue(section_, "configfilepath", &configFilePath_, &comment) != 0) return -1;
  return config.GetOptionValue(section_, "path", &installPath_, &comment) == 0 ? 0 : -1;
}

void Registry::UseDefaults() {
  support::PrintDiagnostic(host_.RegistryFile() + " doesn't exist, use the default values");
  configFilePath_ = kDefaultConfigFile;
  installPath_ = kDefaultInstallPath;
  if (!host_.Exists(installPath_)) UseExecutablePath();
}

void Registry::UseExecutablePath() {
  char buffer[kLinkBufferBytes];
  const ssize_t length = host_.ReadExecutableLink(buffer, sizeof(buffer));
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof(buffer)) {
    support::PrintDiagnostic("Failed to get current exe path, readlink failed");
    return;
  }
  const std::string executable(buffer, static_cast<std::size_t>(length));
  installPath_ = executable.substr(0, executable.rfind(kExecutableDirectory));
  std::cout << "can't acccess " << kDefaultInstallPath
            << ", use the path of current executable app " << installPath_ << std::endl;
}

void GetPathsFromRegistry(const std::string& section, std::string* path, std::string* configFile,
                          const RegistryHost& host) {
  Registry registry(host);
  if (registry.Open(section.empty() ? kDefaultSection : section.c_str(), "") != 0) {
    kNotOpened.Throw();
  }
  if (path != nullptr) *path = registry.installPath();
  if (configFile != nullptr) *configFile = registry.configFilePath();
}

}  // namespace corvel::storage::tzregister
