#ifndef REGISTRATION_KEY_FILE_H_
#define REGISTRATION_KEY_FILE_H_

#include <cstddef>
#include <string>

namespace corvel::storage::tzregister {

/// Size, terminator included, of the buffers that hold a system account's
/// password, plain or encrypted.
inline constexpr std::size_t kPasswordBytes = 1024;

/// Path of the host's key file in key directory `keydir`. The separator is
/// always added, also behind one that is there already.
inline std::string KeyFilePath(const std::string& keydir) { return keydir + "/auth.key"; }

}  // namespace corvel::storage::tzregister

#endif  // REGISTRATION_KEY_FILE_H_
