#ifndef CONFIG_REGISTRY_H_
#define CONFIG_REGISTRY_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace corvel::storage::tzregister {

/// What the registry look-up asks of the host it runs on.
class RegistryHost {
 public:
  virtual ~RegistryHost() = default;

  /// The registry file to read.
  virtual std::string RegistryFile() const = 0;

  /// True when something exists at `path`; access rights are not tested.
  virtual bool Exists(const std::string& path) const = 0;

  /// Reads the path of the running executable into `buffer` (`size` bytes, no
  /// terminator is added), as readlink does: the number of bytes, or -1.
  virtual ssize_t ReadExecutableLink(char* buffer, std::size_t size) const = 0;

  /// The host itself. It has no state and lives as long as the process.
  static const RegistryHost& System();
};

/// One installed component's entry in the host's local registry.
class Registry {
 public:
  /// The registry file of every host.
  static constexpr char RegistryPath[] = "/etc/qxregistry.cfg";

  /// `host` is borrowed and must outlive the object.
  explicit Registry(const RegistryHost& host = RegistryHost::System()) : host_(host) {}

  /// Reads the entry of component `section` (zero-terminated). Returns 0, or -1
  /// when the registry can be read but lacks the section or one of its two
  /// options. A registry that cannot be read gives the agent's default places
  /// whatever the section; notices of that go to standard error, the notice
  /// that the executable's own place is used goes to standard output.
  int Open(const char* section, const char* ignored);

  /// Full path of the component's configuration file.
  const std::string& configFilePath() const { return configFilePath_; }
  /// Directory in which the component is installed.
  const std::string& installPath() const { return installPath_; }

 private:
  void UseDefaults();
  void UseExecutablePath();

  const RegistryHost& host_;
  std::string configFilePath_;
  std::string installPath_;
  std::string section_;
};

/// Looks component `section` ("Agent" when empty) up in the local registry and
/// stores its installation directory in `*path` and its configuration-file path
/// in `*configFile`; either may be null. Prints what Registry::Open prints.
/// Throws RegisterException (ERR_REGISTRY, severity 5, source "TZRegister")
/// when the registry lacks the component.
void GetPathsFromRegistry(const std::string& section, std::string* path, std::string* configFile,
                          const RegistryHost& host = RegistryHost::System());

}  // namespace corvel::storage::tzregister

#endif  // CONFIG_REGISTRY_H_
