#include "support/password.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/testing/allocation_limit.h"
#include "tests/testing/disguised_secret.h"
#include "tests/testing/temp_directory.h"

namespace {

using corvel::storage::testing::DisguisedSecret;
using corvel::storage::testing::ForEachFailedAllocation;
using corvel::storage::testing::TempDirectory;
using corvel::storage::testing::WriteSecretFile;
using ::testing::MatchesRegex;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr char kMark[] = "qx1.";
constexpr std::size_t kMarkLength = 4;
constexpr std::size_t kSaltBytes = 16;
constexpr std::size_t kNonceBytes = 12;
constexpr std::size_t kTagBytes = 16;

/// What a call returned, and the text that it left.
struct Converted {
  int result = 0;
  std::string text;
  bool operator==(const Converted& other) const {
    return result == other.result && text == other.text;
  }
};

std::ostream& operator<<(std::ostream& stream, const Converted& converted) {
  return stream << converted.result << " \"" << converted.text << '"';
}

using PasswordCall = int (*)(const char*, const char*, char*, int);

/// Calls with a buffer of exactly `size` bytes on the heap, where the sanitizer
/// sees every byte too many.
Converted Call(PasswordCall call, const std::string& keyFile, const std::string& text,
               std::size_t size = 1024) {
  std::vector<char> out(size, '#');
  const int result = call(keyFile.c_str(), text.c_str(), out.data(), static_cast<int>(size));
  return {result, out.data()};
}

const Converted kFailed = {-1, ""};

std::string Encrypted(const std::string& keyFile, const std::string& plain) {
  const Converted converted = Call(EncryptPasswdWithKey, keyFile, plain);
  EXPECT_EQ(converted.result, 0);
  return converted.text;
}

class PasswordTest : public ::testing::Test {
 protected:
  Converted Decrypt(const std::string& text) const {
    return Call(DecryptPasswdWithKey, keyFile, text);
  }

  TempDirectory directory;
  std::string keyFile = directory.Write("auth.key", "the host's key material\n");
};

TEST_F(PasswordTest, DecryptingUndoesEncrypting) {
  std::string allBytes;
  for (int byte = 1; byte < 256; ++byte) allBytes += static_cast<char>(byte);
  for (const std::string& plain :
       {std::string(), std::string("p"), std::string("secret"), std::string(" a=b;#[c]| \t"),
        std::string("p\xc3\xa4ssw\xc3\xb6rt"), std::string("two\nlines"), allBytes,
        std::string(700, 'x')}) {
    SCOPED_TRACE(plain);
    EXPECT_EQ(Decrypt(Encrypted(keyFile, plain)), (Converted{0, plain}));
  }
}

TEST_F(PasswordTest, EveryLengthMakesTheRoundTrip) {
  for (std::size_t length = 0; length < 70; ++length) {
    const std::string plain(length, 'p');
    EXPECT_EQ(Decrypt(Encrypted(keyFile, plain)), (Converted{0, plain})) << length;
  }
}

TEST_F(PasswordTest, TheEncryptedFormIsOneLineOfHarmlessCharacters) {
  for (const char* plain : {"", "secret", "with\nline\rends and = signs"}) {
    EXPECT_THAT(Encrypted(keyFile, plain), MatchesRegex("qx1\\.[A-Za-z0-9_-]+"));
  }
}

TEST_F(PasswordTest, NoTwoEncryptionsOfOnePasswordAreEqual) {
  std::set<std::string> texts;
  for (int count = 0; count < 200; ++count) texts.insert(Encrypted(keyFile, "secret"));
  EXPECT_EQ(texts.size(), 200U);
}

TEST_F(PasswordTest, IsWholeOrEmptyWhicheverAllocationFails) {
  const std::string encrypted = Encrypted(keyFile, "secret");
  char out[256];
  int result = 0;
  const auto sweep = [&](PasswordCall call, const std::string& text, const auto& isRight) {
    return ForEachFailedAllocation(
        [&] {
          result = -1;
          result = call(keyFile.c_str(), text.c_str(), out, static_cast<int>(sizeof(out)));
        },
        [&](bool threw) {
          EXPECT_TRUE(result == 0 ? isRight() : *out == '\0') << threw << ' ' << out;
        });
  };
  const auto opens = [&] { return Decrypt(out) == Converted{0, "secret"}; };
  EXPECT_GT(sweep(EncryptPasswdWithKey, "secret", opens), 20U);
  const auto isSecret = [&] { return std::string(out) == "secret"; };
  EXPECT_GT(sweep(DecryptPasswdWithKey, encrypted, isSecret), 20U);
}

// A second implementation of the format, made of other calls of the library.

std::string FromBase64Url(const std::string& text) {
  std::string bytes;
  unsigned bits = 0;
  int count = 0;
  for (const char character : text) {
    const std::size_t value = std::string(kAlphabet).find(character);
    if (value == std::string::npos) throw std::invalid_argument(text);
    bits = bits << 6 | static_cast<unsigned>(value);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes += static_cast<char>(bits >> count & 0xff);
  }
  return bytes;
}

std::string ToBase64Url(const std::string& bytes) {
  std::string text;
  unsigned bits = 0;
  int count = 0;
  for (const char byte : bytes) {
    bits = bits << 8 | static_cast<unsigned char>(byte);
    for (count += 8; count >= 6; count -= 6) text += kAlphabet[bits >> (count - 6) & 63];
  }
  if (count > 0) text += kAlphabet[bits << (6 - count) & 63];
  return text;
}

unsigned char* Bytes(std::string* text) { return reinterpret_cast<unsigned char*>(text->data()); }

const unsigned char* Bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string DerivedKey(std::string material, std::string salt) {
  const std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kdf(
      EVP_KDF_fetch(nullptr, "HKDF", nullptr), EVP_KDF_free);
  const std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> context(
      EVP_KDF_CTX_new(kdf.get()), EVP_KDF_CTX_free);
  std::string digest = "SHA256";
  std::string label = "system account password";
  const OSSL_PARAM parameters[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest.data(), 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, material.data(), material.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, salt.data(), salt.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, label.data(), label.size()),
      OSSL_PARAM_construct_end()};
  std::string key(32, '\0');
  EXPECT_EQ(EVP_KDF_derive(context.get(), Bytes(&key), key.size(), parameters), 1);
  return key;
}

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

/// What a sealed text is made of.
struct Sealed {
  std::string salt;
  std::string nonce;
  std::string text;
  std::string tag;
};

Sealed Split(const std::string& encrypted) {
  const std::string bytes = FromBase64Url(encrypted.substr(kMarkLength));
  const std::size_t head = kSaltBytes + kNonceBytes;
  const std::size_t end = bytes.size() - kTagBytes;
  return {bytes.substr(0, kSaltBytes), bytes.substr(kSaltBytes, kNonceBytes),
          bytes.substr(head, end - head), bytes.substr(end)};
}

/// The plain text of `encrypted`; "(refused)" when it is not genuine.
std::string OpenedIndependently(const std::string& material, const std::string& encrypted) {
  Sealed sealed = Split(encrypted);
  const std::string key = DerivedKey(material, sealed.salt);
  const CipherContext context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  std::string plain(sealed.text.size() + 16, '\0');
  int length = 0;
  EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, Bytes(key), Bytes(sealed.nonce));
  EVP_DecryptUpdate(context.get(), nullptr, &length, reinterpret_cast<const unsigned char*>(kMark),
                    kMarkLength);
  EVP_DecryptUpdate(context.get(), Bytes(&plain), &length, Bytes(sealed.text),
                    static_cast<int>(sealed.text.size()));
  EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, kTagBytes, sealed.tag.data());
  if (EVP_DecryptFinal_ex(context.get(), Bytes(&plain) + length, &length) != 1) return "(refused)";
  return plain.substr(0, sealed.text.size());
}

/// `plain` sealed with a fixed salt and nonce; `bound` is what the tag covers
/// besides.
std::string SealedIndependently(const std::string& material, const std::string& plain,
                                const std::string& bound = kMark) {
  const std::string salt = "0123456789abcdef";
  const std::string nonce = "nonce-123456";
  const std::string key = DerivedKey(material, salt);
  const CipherContext context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  std::string text(plain.size(), '\0');
  std::string tag(kTagBytes, '\0');
  int length = 0;
  EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, Bytes(key), Bytes(nonce));
  EVP_EncryptUpdate(context.get(), nullptr, &length, Bytes(bound), static_cast<int>(bound.size()));
  EVP_EncryptUpdate(context.get(), Bytes(&text), &length, Bytes(plain),
                    static_cast<int>(plain.size()));
  EVP_EncryptFinal_ex(context.get(), nullptr, &length);
  EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, kTagBytes, tag.data());
  return ToBase64Url(salt + nonce + text + tag);
}

TEST_F(PasswordTest, MakesTextsThatASecondImplementationOpens) {
  for (const std::string& material :
       {std::string("k"), std::string("key\0with zero", 13), std::string(50000, 'k')}) {
    const std::string path = directory.Write("second.key", material);
    EXPECT_EQ(OpenedIndependently(material, Encrypted(path, "secret")), "secret");
    EXPECT_EQ(OpenedIndependently(material + "x", Encrypted(path, "secret")), "(refused)");
  }
}

TEST_F(PasswordTest, OpensTextsThatASecondImplementationMakes) {
  for (const char* plain : {"", "secret", "a longer password with blanks"}) {
    const std::string body = SealedIndependently("the host's key material\n", plain);
    EXPECT_EQ(Decrypt(kMark + body), (Converted{0, plain}));
  }
}

TEST_F(PasswordTest, CutsAPasswordAtItsFirstZeroByte) {
  const std::string body =
      SealedIndependently("the host's key material\n", std::string("pass\0word", 9));
  EXPECT_EQ(Decrypt(kMark + body), (Converted{0, "pass"}));
}

TEST_F(PasswordTest, RefusesAnotherVersionMark) {
  const std::string material = "the host's key material\n";
  EXPECT_EQ(Decrypt("qx2." + SealedIndependently(material, "secret", "qx2.")), kFailed);
  EXPECT_EQ(Decrypt(kMark + SealedIndependently(material, "secret", "qx2.")), kFailed);
  EXPECT_EQ(Decrypt(kMark + SealedIndependently(material, "secret", "")), kFailed);
  EXPECT_EQ(Decrypt("QX1." + SealedIndependently(material, "secret")), kFailed);
  EXPECT_EQ(Decrypt(SealedIndependently(material, "secret")), kFailed);
}

TEST_F(PasswordTest, TakesNewSaltAndNonceForEveryCall) {
  const Sealed first = Split(Encrypted(keyFile, "secret"));
  const Sealed second = Split(Encrypted(keyFile, "secret"));
  EXPECT_EQ(first.text.size(), 6U);
  EXPECT_NE(first.salt, second.salt);
  EXPECT_NE(first.nonce, second.nonce);
  EXPECT_NE(first.text, second.text);
}

TEST_F(PasswordTest, RefusesATextWithAnyCharacterChanged) {
  const std::string foreign = ".+/= \n\x80";
  // Three lengths, so that the last character carries 6, 2 and 4 bits; it is
  // tried with every character there is.
  for (const char* plain : {"secret", "secret1", "secret12"}) {
    const std::string genuine = Encrypted(keyFile, plain);
    for (std::size_t place = 0; place < genuine.size(); ++place) {
      const bool last = place + 1 == genuine.size();
      for (const char other : (last ? kAlphabet : "AQgw-_") + foreign) {
        if (other == genuine[place]) continue;
        std::string changed = genuine;
        changed[place] = other;
        ASSERT_EQ(Decrypt(changed), kFailed) << changed << " for " << genuine;
      }
    }
  }
}

TEST_F(PasswordTest, RefusesATextThatWasCutOrLengthened) {
  const std::string genuine = Encrypted(keyFile, "secret");
  for (std::size_t place = 0; place < genuine.size(); ++place) {
    SCOPED_TRACE(place);
    EXPECT_EQ(Decrypt(genuine.substr(0, place)), kFailed);
    EXPECT_EQ(Decrypt(std::string(genuine).erase(place, 1)), kFailed);
    for (const char* added : {"A", "=", " ", "\n", "_", "AAAA"}) {
      EXPECT_EQ(Decrypt(std::string(genuine).insert(place, added)), kFailed);
      EXPECT_EQ(Decrypt(genuine + added), kFailed);
    }
  }
}

TEST_F(PasswordTest, RefusesTextsThatWereNeverEncrypted) {
  for (const std::string& text :
       {std::string(), std::string("plain password"), std::string("**********"),
        std::string("qx1."), std::string("qx1.A"), std::string("qx1.===="), std::string("qx1.AAAA"),
        "qx1." + std::string(58, 'A'), "qx1." + std::string(59, 'A'), "qx1." + std::string(60, 'A'),
        "qx1." + std::string(5000, '_')}) {
    EXPECT_EQ(Decrypt(text), kFailed) << text;
  }
}

TEST_F(PasswordTest, RefusesAnotherKey) {
  const std::string material(10000, 'k');
  const std::string encrypted = Encrypted(directory.Write("key", material), "secret");
  std::vector<std::string> others = {"k", material + "k", material + "\n", material.substr(1)};
  for (const std::size_t place : {0U, 4095U, 4096U, 9999U}) {
    others.push_back(material);
    others.back()[place] = 'K';
  }
  for (const std::string& other : others) {
    const std::string path = directory.Write("other", other);
    EXPECT_EQ(Call(DecryptPasswdWithKey, path, encrypted), kFailed);
  }
  const std::string copy = directory.Write("copy", material);
  EXPECT_EQ(Call(DecryptPasswdWithKey, copy, encrypted), (Converted{0, "secret"}));
}

TEST_F(PasswordTest, ReadsBinaryKeyFilesToTheirEnd) {
  const std::string first = directory.Write("first", std::string("key\0one", 7));
  const std::string second = directory.Write("second", std::string("key\0two", 7));
  EXPECT_EQ(Call(DecryptPasswdWithKey, second, Encrypted(first, "secret")), kFailed);
}

/// Encrypting and decrypting with `path` as key file must both fail.
void ExpectUnusable(const std::string& path, const std::string& encrypted) {
  SCOPED_TRACE(path);
  EXPECT_EQ(Call(EncryptPasswdWithKey, path, "secret"), kFailed);
  EXPECT_EQ(Call(DecryptPasswdWithKey, path, encrypted), kFailed);
}

TEST_F(PasswordTest, RefusesKeyFilesThatCannotServe) {
  const std::string fifo = directory.File("fifo");
  const std::string loop = directory.File("loop");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(symlink("loop", loop.c_str()), 0);
  const std::string encrypted = Encrypted(keyFile, "secret");
  // The last two: a device that never ends, and a regular file whose reading fails.
  for (const std::string& path :
       {std::string(), directory.File("missing"), directory.Write("empty", ""), directory.path(),
        fifo, loop, keyFile + "/x", std::string("/dev/null"), std::string("/dev/zero"),
        std::string("/proc/self/mem")}) {
    ExpectUnusable(path, encrypted);
  }
}

TEST_F(PasswordTest, RefusesAPipeEvenWhenItHoldsAKey) {
  int ends[2] = {};
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "the key", 7), 7);
  close(ends[1]);
  ExpectUnusable("/proc/self/fd/" + std::to_string(ends[0]), "");
  close(ends[0]);
}

TEST_F(PasswordTest, TakesKeyFilesOfUpToSixteenMebibytes) {
  constexpr off_t kLimit = 16 << 20;
  ASSERT_EQ(truncate(keyFile.c_str(), kLimit), 0);
  EXPECT_EQ(Call(EncryptPasswdWithKey, keyFile, "secret").result, 0);
  ASSERT_EQ(truncate(keyFile.c_str(), kLimit + 1), 0);
  EXPECT_EQ(Call(EncryptPasswdWithKey, keyFile, "secret"), kFailed);
}

TEST_F(PasswordTest, LetsGoOfTheKeyFile) {
  const std::string encrypted = Encrypted(keyFile, "secret");
  const int before = dup(STDIN_FILENO);
  close(before);
  Decrypt(encrypted);
  ExpectUnusable(directory.path(), encrypted);
  const int after = dup(STDIN_FILENO);
  close(after);
  EXPECT_EQ(after, before);
}

TEST_F(PasswordTest, TheEncryptedTextMustFitTheBuffer) {
  const std::size_t needed = Encrypted(keyFile, "secret").size() + 1;
  EXPECT_EQ(Call(EncryptPasswdWithKey, keyFile, "secret", needed).result, 0);
  for (const std::size_t size : {needed - 1, needed - 2, std::size_t{5}, std::size_t{1}}) {
    EXPECT_EQ(Call(EncryptPasswdWithKey, keyFile, "secret", size), kFailed) << size;
  }
}

TEST_F(PasswordTest, ThePasswordMustFitTheBuffer) {
  const std::string encrypted = Encrypted(keyFile, "secret");
  EXPECT_EQ(Call(DecryptPasswdWithKey, keyFile, encrypted, 7), (Converted{0, "secret"}));
  for (const std::size_t size : {6U, 5U, 1U}) {
    EXPECT_EQ(Call(DecryptPasswdWithKey, keyFile, encrypted, size), kFailed) << size;
  }
  EXPECT_EQ(Call(DecryptPasswdWithKey, keyFile, Encrypted(keyFile, ""), 1), (Converted{0, ""}));
}

TEST_F(PasswordTest, DecryptsPasswordsThatFillTheBufferOfTheCredentialFile) {
  const std::string longest(1023, 'x');
  const Converted encrypted = Call(EncryptPasswdWithKey, keyFile, longest, 4096);
  EXPECT_EQ(Decrypt(encrypted.text), (Converted{0, longest}));
  const Converted tooLong = Call(EncryptPasswdWithKey, keyFile, longest + "x", 4096);
  EXPECT_EQ(Decrypt(tooLong.text), kFailed);
}

TEST_F(PasswordTest, RefusesMissingArguments) {
  const std::string encrypted = Encrypted(keyFile, "secret");
  const char* const key = keyFile.c_str();
  for (const PasswordCall call : {EncryptPasswdWithKey, DecryptPasswdWithKey}) {
    std::array<char, 256> out = {'#', '\0'};
    EXPECT_NE(call(key, encrypted.c_str(), nullptr, 256), 0);
    EXPECT_NE(call(key, encrypted.c_str(), out.data(), 0), 0);
    EXPECT_NE(call(key, encrypted.c_str(), out.data(), -1), 0);
    EXPECT_STREQ(out.data(), "#");
    EXPECT_NE(call(nullptr, encrypted.c_str(), out.data(), 256), 0);
    EXPECT_STREQ(out.data(), "");
    out = {'#', '\0'};
    EXPECT_NE(call(key, nullptr, out.data(), 256), 0);
    EXPECT_STREQ(out.data(), "");
  }
}

TEST_F(PasswordTest, LeavesNoCopyOfTheKeyMaterial) {
  const DisguisedSecret material(5000);
  const std::string path = directory.File("disguised.key");
  WriteSecretFile(path, "", material, "");
  const std::string encrypted = Encrypted(path, "secret");
  EXPECT_EQ(material.Copies(), 0U);
  EXPECT_EQ(Call(DecryptPasswdWithKey, path, encrypted), (Converted{0, "secret"}));
  EXPECT_EQ(material.Copies(), 0U);
}

TEST_F(PasswordTest, LeavesNoCopyOfTheKey) {
  const std::string encrypted = Encrypted(keyFile, "secret");
  std::string key = DerivedKey("the host's key material\n", Split(encrypted).salt);
  const DisguisedSecret derived(Bytes(&key), key.size());
  EXPECT_EQ(derived.Copies(), 0U);
  EXPECT_EQ(Decrypt(encrypted), (Converted{0, "secret"}));
  EXPECT_EQ(derived.Copies(), 0U);
}

TEST_F(PasswordTest, LeavesNoCopyOfAPasswordThatItDoesNotHandOut) {
  for (const std::size_t length : {12U, 60U}) {
    const DisguisedSecret password(length);
    std::string encrypted;
    password.Reveal([&](const char* text) {
      std::array<char, 256> out = {};
      EXPECT_EQ(EncryptPasswdWithKey(keyFile.c_str(), text, out.data(), 256), 0);
      encrypted = out.data();
    });
    std::string forged = encrypted;
    forged.back() = forged.back() == 'A' ? 'Q' : 'A';
    for (const std::string& text : {encrypted, forged}) {
      EXPECT_EQ(Call(DecryptPasswdWithKey, keyFile, text, 1), kFailed);
      EXPECT_EQ(password.Copies(), 0U) << text;
    }
  }
}

}  // namespace
