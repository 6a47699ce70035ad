#ifndef TESTS_TESTING_FAKE_REGISTRY_HOST_H_
#define TESTS_TESTING_FAKE_REGISTRY_HOST_H_

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "config/registry.h"

namespace corvel::storage::testing {

/// A host whose registry file, installation directory and executable are what a
/// test says, and which records what it was asked. Unless told otherwise it has
/// no registry file and the default installation directory exists.
class FakeRegistryHost : public tzregister::RegistryHost {
 public:
  explicit FakeRegistryHost(std::string file = "/nonexistent/qxregistry.cfg")
      : registryFile(std::move(file)) {}

  std::string RegistryFile() const override { return registryFile; }

  bool Exists(const std::string& path) const override {
    existenceTests.push_back(path);
    return installed;
  }

  /// Cuts a path that is longer than the buffer, as readlink does.
  ssize_t ReadExecutableLink(char* buffer, std::size_t size) const override {
    linkBufferSizes.push_back(size);
    if (linkFails) return -1;
    const std::size_t length = std::min(size, executable.size());
    std::memcpy(buffer, executable.data(), length);
    return static_cast<ssize_t>(length);
  }

  std::string registryFile;
  bool installed = true;   ///< the default installation directory exists
  std::string executable;  ///< path of the running executable
  bool linkFails = false;  ///< the executable's path cannot be read
  mutable std::vector<std::string> existenceTests;
  mutable std::vector<std::size_t> linkBufferSizes;
};

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_FAKE_REGISTRY_HOST_H_
