#ifndef SUPPORT_FILE_SYSTEM_H_
#define SUPPORT_FILE_SYSTEM_H_

#include <string>

#include "support/handle.h"

namespace corvel::storage::support {

/// True when something exists at `path`; access rights are not tested.
bool PathExists(const std::string& path);

/// Who may read a file that the tool creates, from the moment of its creation. A
/// file that exists already keeps the mode it has.
enum class FilePrivacy {
  kPublic,  ///< 0666 less the umask
  kSecret,  ///< 0600 less the umask
};

/// Opens `path` for writing from its start, creating or truncating it; the one
/// place where the tool opens a file for writing. Null when it cannot be
/// opened (errno says why). The descriptor is not inherited by child processes.
FilePtr OpenForWriting(const std::string& path, FilePrivacy privacy);

/// Writes all of `text` to `file`; false when less was taken.
bool WriteText(const std::string& text, std::FILE* file);

/// Closes `file`; false when writing out what was buffered, or closing, failed.
bool CloseFile(FilePtr file);

}  // namespace corvel::storage::support

#endif  // SUPPORT_FILE_SYSTEM_H_
