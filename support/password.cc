#include "support/password.h"

#include <fcntl.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/openssl_handle.h"
#include "support/secret.h"

namespace {

using corvel::storage::support::EvpCipherCtxPtr;
using corvel::storage::support::EvpPkeyCtxPtr;
using corvel::storage::support::Secret;
using Bytes = std::vector<unsigned char>;

constexpr char kVersionMark[] = "qx1.";
constexpr std::size_t kMarkLength = sizeof(kVersionMark) - 1;
constexpr char kDerivationLabel[] = "system account password";
constexpr std::size_t kSaltBytes = 16;
constexpr std::size_t kNonceBytes = 12;
constexpr std::size_t kHeadBytes = kSaltBytes + kNonceBytes;
constexpr std::size_t kTagBytes = 16;
constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kMaxKeyFileBytes = 16u << 20;
constexpr std::size_t kReadChunkBytes = 4096;

/// An owned file descriptor; negative when there is none.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }

 private:
  int number_;
};

bool IsRegularFile(const Descriptor& file) {
  struct stat status;
  return file.number() >= 0 && fstat(file.number(), &status) == 0 && S_ISREG(status.st_mode);
}

/// The whole content of the key file; empty when there is none to be had. Opened
/// without blocking, so that a pipe of that name cannot hold the run up.
Secret ReadKeyFile(const char* path) {
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  Secret content;
  if (!IsRegularFile(file)) return content;
  std::size_t used = 0;
  ssize_t count = 0;
  do {
    used += static_cast<std::size_t>(count);
    content.Resize(used + kReadChunkBytes);
    count = read(file.number(), content.data() + used, kReadChunkBytes);
  } while (count > 0 && used < kMaxKeyFileBytes);
  content.Resize(count == 0 ? used : 0);
  return content;
}

/// The AES key for `salt` (kSaltBytes bytes); empty when it cannot be derived.
Secret DeriveKey(const char* keyFile, const unsigned char* salt) {
  const Secret material = ReadKeyFile(keyFile);
  if (material.empty()) return {};
  Secret key;
  key.Resize(kKeyBytes);
  std::size_t length = key.size();
  const EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr));
  const auto* label = reinterpret_cast<const unsigned char*>(kDerivationLabel);
  const bool derived =
      context != nullptr && EVP_PKEY_derive_init(context.get()) > 0 &&
      EVP_PKEY_CTX_set_hkdf_md(context.get(), EVP_sha256()) > 0 &&
      EVP_PKEY_CTX_set1_hkdf_salt(context.get(), salt, kSaltBytes) > 0 &&
      EVP_PKEY_CTX_set1_hkdf_key(context.get(), material.bytes(),
                                 static_cast<int>(material.size())) > 0 &&
      EVP_PKEY_CTX_add1_hkdf_info(context.get(), label, sizeof(kDerivationLabel) - 1) > 0 &&
      EVP_PKEY_derive(context.get(), key.bytes(), &length) > 0;
  return derived ? std::move(key) : Secret();
}

/// Binds the version mark to the cipher text, so that neither can be exchanged.
bool AuthenticateMark(EVP_CIPHER_CTX* context) {
  int length = 0;
  return EVP_CipherUpdate(context, nullptr, &length,
                          reinterpret_cast<const unsigned char*>(kVersionMark),
                          static_cast<int>(kMarkLength)) > 0;
}

EvpCipherCtxPtr StartCipher(const Secret& key, const unsigned char* nonce, bool encrypt) {
  EvpCipherCtxPtr context(EVP_CIPHER_CTX_new());
  if (key.empty() || context == nullptr ||
      EVP_CipherInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.bytes(), nonce,
                        encrypt ? 1 : 0) <= 0 ||
      !AuthenticateMark(context.get())) {
    return nullptr;
  }
  return context;
}

/// Salt, nonce, cipher text and tag for `plain`; empty on failure.
Bytes Seal(const char* keyFile, const char* plain) {
  const std::size_t plainLength = std::strlen(plain);
  Bytes sealed(kHeadBytes + plainLength + kTagBytes);
  unsigned char* text = sealed.data() + kHeadBytes;
  if (RAND_bytes(sealed.data(), static_cast<int>(kHeadBytes)) <= 0) return {};
  const Secret key = DeriveKey(keyFile, sealed.data());
  const EvpCipherCtxPtr context = StartCipher(key, sealed.data() + kSaltBytes, true);
  int length = 0;
  const bool done =
      context != nullptr &&
      EVP_CipherUpdate(context.get(), text, &length, reinterpret_cast<const unsigned char*>(plain),
                       static_cast<int>(plainLength)) > 0 &&
      EVP_CipherFinal_ex(context.get(), text + length, &length) > 0 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagBytes),
                          text + plainLength) > 0;
  return done ? sealed : Bytes();
}

/// Undoes Seal into `*plain`; false when the bytes are not what Seal made.
bool Unseal(const char* keyFile, Bytes sealed, Secret* plain) {
  if (sealed.size() < kHeadBytes + kTagBytes) return false;
  const Secret key = DeriveKey(keyFile, sealed.data());
  const EvpCipherCtxPtr context = StartCipher(key, sealed.data() + kSaltBytes, false);
  const std::size_t textLength = sealed.size() - kHeadBytes - kTagBytes;
  plain->Resize(textLength + kTagBytes);
  int length = 0;
  if (context == nullptr ||
      EVP_CipherUpdate(context.get(), plain->bytes(), &length, sealed.data() + kHeadBytes,
                       static_cast<int>(textLength)) <= 0 ||
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagBytes),
                          sealed.data() + kHeadBytes + textLength) <= 0 ||
      EVP_CipherFinal_ex(context.get(), plain->bytes() + length, &length) <= 0) {
    return false;
  }
  plain->Resize(textLength);
  return true;
}

std::string ToBase64Url(const Bytes& bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  std::replace(text.begin(), text.end(), '+', '-');
  std::replace(text.begin(), text.end(), '/', '_');
  text.erase(std::find(text.begin(), text.end(), '='), text.end());
  return text;
}

/// The bytes that ToBase64Url wrote as `text`; empty when it wrote no such text.
Bytes FromBase64Url(const std::string& text) {
  std::string padded = text;
  std::replace(padded.begin(), padded.end(), '-', '+');
  std::replace(padded.begin(), padded.end(), '_', '/');
  const std::size_t padding = (4 - padded.size() % 4) % 4;
  padded.append(padding, '=');
  Bytes bytes(padded.size() / 4 * 3);
  const int length =
      EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(padded.data()),
                      static_cast<int>(padded.size()));
  if (length < 0 || padding > static_cast<std::size_t>(length)) return {};
  bytes.resize(static_cast<std::size_t>(length) - padding);
  // The decoder forgives blanks and stray bits; a changed text is not forgiven.
  return ToBase64Url(bytes) == text ? bytes : Bytes();
}

/// Stores `length` bytes and a terminator in `out`; non-zero when they do not fit.
int StoreText(const void* text, std::size_t length, char* out, int outSize) {
  if (length >= static_cast<std::size_t>(outSize)) return -1;
  std::memcpy(out, text, length);
  out[length] = '\0';
  return 0;
}

/// True when a call can be carried out at all; `out` is then an empty text.
bool PrepareCall(const char* keyFile, const char* text, char* out, int outSize) {
  if (out == nullptr || outSize <= 0) return false;
  out[0] = '\0';
  return keyFile != nullptr && text != nullptr;
}

}  // namespace

int EncryptPasswdWithKey(const char* keyFile, const char* passwd, char* out, int outSize) {
  if (!PrepareCall(keyFile, passwd, out, outSize)) return -1;
  const Bytes sealed = Seal(keyFile, passwd);
  if (sealed.empty()) return -1;
  const std::string text = kVersionMark + ToBase64Url(sealed);
  return StoreText(text.data(), text.size(), out, outSize);
}

int DecryptPasswdWithKey(const char* keyFile, const char* encrypted, char* out, int outSize) {
  if (!PrepareCall(keyFile, encrypted, out, outSize)) return -1;
  if (std::strncmp(encrypted, kVersionMark, kMarkLength) != 0) return -1;
  Secret plain;
  if (!Unseal(keyFile, FromBase64Url(encrypted + kMarkLength), &plain)) return -1;
  return StoreText(plain.data(), plain.size(), out, outSize);
}
