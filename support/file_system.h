#ifndef SUPPORT_FILE_SYSTEM_H_
#define SUPPORT_FILE_SYSTEM_H_

#include <string>
#include <string_view>

namespace corvel::storage::support {

/// True when something exists at `path`; access rights are not tested.
bool PathExists(const std::string& path);

/// Who may look into what the tool creates, from the moment of its creation. What
/// exists already keeps the mode it has.
enum class FilePrivacy {
  kPublic,  ///< files 0666, directories 0755, less the umask
  kSecret,  ///< files 0600, directories 0700, less the umask
};

/// A file that is written from its start; the one place where the tool opens a
/// file for writing. Opening creates a file that is missing and leaves one that
/// is there as it is: what it held is lost by Empty alone, so that everything
/// else which can fail has been done by then. Nothing here allocates memory.
class OutputFile {
 public:
  /// Opens `path`. The descriptor is not inherited by child processes.
  OutputFile(const std::string& path, FilePrivacy privacy);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// False when the file could not be opened; errno said why. Nothing else may
  /// be called then.
  bool isOpen() const { return descriptor_ >= 0; }

  /// True when both are one regular file, by whatever names. Devices and pipes
  /// can be written to twice.
  bool IsSameAs(const OutputFile& other) const;

  /// Drops what the file held; false when the disk does not. A device or a pipe
  /// holds nothing.
  bool Empty();

  /// Writes all of `text`; false when less was taken.
  bool Write(std::string_view text);

  /// Closes the file; false when that fails. Done by the destructor otherwise.
  bool Close();

 private:
  int descriptor_;
};

/// Creates directory `path` as `privacy` says, and as public ones the directories
/// that are missing above it. Throws boost::filesystem::filesystem_error.
void MakeDirectories(const std::string& path, FilePrivacy privacy);

}  // namespace corvel::storage::support

#endif  // SUPPORT_FILE_SYSTEM_H_
