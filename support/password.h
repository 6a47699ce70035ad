#ifndef SUPPORT_PASSWORD_H_
#define SUPPORT_PASSWORD_H_

// System-account passwords at rest. A password is sealed with AES-256-GCM under
// a key that HKDF-SHA-256 derives from the whole content of a key file and a
// random salt; salt and nonce are new on every call, so equal passwords never
// give equal texts. The text is one line: a version mark, then salt, nonce,
// cipher text and tag in base64url.
//
// The key file may be any regular file that is not empty, up to 16 MiB. The text
// is four thirds of the password and 63 bytes long: a buffer of 1,024 bytes takes
// that of a password of 720 bytes, and no longer one.

/// Encrypts the zero-terminated `passwd` with the key file `keyFile` and leaves
/// the zero-terminated text in `out`, which holds `outSize` bytes.
/// Returns 0 on success. Non-zero, with `out` made empty, when an argument is
/// null, the key file is missing, unreadable, empty or too large, the text does
/// not fit, or the cryptography fails. Everything secret that it held is wiped.
int EncryptPasswdWithKey(const char* keyFile, const char* passwd, char* out, int outSize);

/// Decrypts `encrypted`, a text that EncryptPasswdWithKey made with the same key
/// file content, and leaves the zero-terminated password in `out`, which holds
/// `outSize` bytes.
/// Returns 0 on success. Non-zero, with `out` made empty, in the cases above and
/// when the text was changed in any way or belongs to another key.
int DecryptPasswdWithKey(const char* keyFile, const char* encrypted, char* out, int outSize);

#endif  // SUPPORT_PASSWORD_H_
