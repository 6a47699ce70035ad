#include "tests/testing/temp_directory.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace corvel::storage::testing {

TempDirectory::TempDirectory()
    : path_((std::filesystem::temp_directory_path() / "tzregister-test-XXXXXX").string()) {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
}

TempDirectory::~TempDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDirectory::Write(const std::string& name, const std::string& content) const {
  const std::string path = File(name);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

mode_t FileMode(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

}  // namespace corvel::storage::testing
