#ifndef REGISTRATION_SYSTEM_ACCOUNT_H_
#define REGISTRATION_SYSTEM_ACCOUNT_H_

#include <cstddef>
#include <string>

namespace corvel::storage::tzregister {

// How the account with which a host talks to the authority lies in the host's
// configuration file.

/// The login whose stored password is a mask instead of an encrypted text.
inline constexpr char kMaskedLogin[] = "TWLX_AGENT";

/// Size, terminator included, of the buffers that hold the account's password,
/// plain or encrypted.
inline constexpr std::size_t kPasswordBytes = 1024;

/// Path of the host's key file in key directory `keydir`. The separator is
/// always added, also behind one that is there already.
inline std::string KeyFilePath(const std::string& keydir) { return keydir + "/auth.key"; }

}  // namespace corvel::storage::tzregister

#endif  // REGISTRATION_SYSTEM_ACCOUNT_H_
