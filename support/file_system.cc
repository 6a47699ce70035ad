#include "support/file_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <utility>

namespace corvel::storage::support {
namespace {

constexpr int kClosed = -1;

mode_t FileMode(FilePrivacy privacy) { return privacy == FilePrivacy::kSecret ? 0600 : 0666; }

mode_t DirectoryMode(FilePrivacy privacy) { return privacy == FilePrivacy::kSecret ? 0700 : 0755; }

bool IsDirectory(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

/// Throws for errno, which the last call left.
[[noreturn]] void ThrowNotMade(const std::string& path) {
  const boost::system::error_code reason(errno, boost::system::system_category());
  throw boost::filesystem::filesystem_error("boost::filesystem::create_directories", path, reason);
}

}  // namespace

bool PathExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The mode is right when the file appears: a later chmod would leave a moment in
// which somebody else could open it.
OutputFile::OutputFile(const std::string& path, FilePrivacy privacy)
    : descriptor_(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, FileMode(privacy))) {}

OutputFile::~OutputFile() {
  if (isOpen()) close(descriptor_);
}

bool OutputFile::IsSameAs(const OutputFile& other) const {
  struct stat one;
  struct stat two;
  return fstat(descriptor_, &one) == 0 && fstat(other.descriptor_, &two) == 0 &&
         S_ISREG(one.st_mode) && one.st_dev == two.st_dev && one.st_ino == two.st_ino;
}

bool OutputFile::Empty() {
  struct stat status;
  if (fstat(descriptor_, &status) != 0) return false;
  return !S_ISREG(status.st_mode) || ftruncate(descriptor_, 0) == 0;
}

bool OutputFile::Write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(descriptor_, text.data(), text.size());
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool OutputFile::Close() { return close(std::exchange(descriptor_, kClosed)) == 0; }

void MakeDirectories(const std::string& path, FilePrivacy privacy) {
  const mode_t mode = DirectoryMode(privacy);
  if (mkdir(path.c_str(), mode) == 0) return;
  const std::string parent = boost::filesystem::path(path).parent_path().string();
  if (errno == ENOENT && !parent.empty()) {
    MakeDirectories(parent, FilePrivacy::kPublic);
    if (mkdir(path.c_str(), mode) == 0) return;
  }
  if (errno != EEXIST) ThrowNotMade(path);
  if (IsDirectory(path.c_str())) return;
  errno = EEXIST;
  ThrowNotMade(path);
}

}  // namespace corvel::storage::support
