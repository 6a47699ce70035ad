#ifndef TESTS_TESTING_TEMP_DIRECTORY_H_
#define TESTS_TESTING_TEMP_DIRECTORY_H_

#include <sys/stat.h>

#include <string>

namespace corvel::storage::testing {

/// A directory of one test case's own, removed with everything in it at the end.
class TempDirectory {
 public:
  TempDirectory();
  ~TempDirectory();
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::string& path() const { return path_; }

  /// Path of `name` in the directory; nothing is created.
  std::string File(const std::string& name) const { return path_ + "/" + name; }

  /// Writes `content` to `name` in the directory and returns its path.
  std::string Write(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

/// The whole content of the file at `path`; fails the test when it cannot be read.
std::string ReadFile(const std::string& path);

/// Permission bits of the file at `path`; fails the test when there is none.
mode_t FileMode(const std::string& path);

/// True when something exists at `path`.
bool Exists(const std::string& path);

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_TEMP_DIRECTORY_H_
