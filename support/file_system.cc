#include "support/file_system.h"

#include <fcntl.h>
#include <unistd.h>

namespace corvel::storage::support {
namespace {

constexpr mode_t kPublicMode = 0666;
constexpr mode_t kSecretMode = 0600;

/// The mode is right when the file appears: a later chmod would leave a moment
/// in which somebody else could open it.
int OpenDescriptor(const std::string& path, FilePrivacy privacy) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  return open(path.c_str(), kFlags, privacy == FilePrivacy::kSecret ? kSecretMode : kPublicMode);
}

}  // namespace

bool PathExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

FilePtr OpenForWriting(const std::string& path, FilePrivacy privacy) {
  const int descriptor = OpenDescriptor(path, privacy);
  if (descriptor < 0) return nullptr;
  FilePtr file(fdopen(descriptor, "wb"));
  if (file == nullptr) {
    close(descriptor);
    return nullptr;
  }
  // Written in one piece: no buffer keeps a copy of the secret.
  if (privacy == FilePrivacy::kSecret) std::setvbuf(file.get(), nullptr, _IONBF, 0);
  return file;
}

bool WriteText(const std::string& text, std::FILE* file) {
  return std::fwrite(text.data(), 1, text.size(), file) == text.size();
}

bool CloseFile(FilePtr file) { return std::fclose(file.release()) == 0; }

}  // namespace corvel::storage::support
