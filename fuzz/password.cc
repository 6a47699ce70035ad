// Stored passwords: a text is opened only by the key that made it, and only unchanged.

#include "support/password.h"

#include <unistd.h>

#include <cstring>
#include <fstream>

#include "fuzz/fuzzing.h"

namespace {

using namespace corvel::storage::fuzzing;

constexpr int kTextBytes = 1024;

/// A key file that is there as long as the process.
class KeyFile {
 public:
  KeyFile() {
    const int file = mkstemp(path_);
    Expect(file >= 0 && write(file, "key", 3) == 3, "there is a key file");
    close(file);
  }
  ~KeyFile() { unlink(path_); }
  const char* path() const { return path_; }

 private:
  char path_[32] = "/tmp/tzregister-fuzz-XXXXXX";
};

std::string Decrypted(const std::string& text, bool* opened) {
  static const KeyFile key;
  char plain[kTextBytes];
  *opened = DecryptPasswdWithKey(key.path(), text.c_str(), plain, kTextBytes) == 0;
  Expect(*opened || plain[0] == '\0', "nothing is left of what was not opened");
  return plain;
}

std::string Encrypted(const std::string& plain) {
  static const KeyFile key;
  char text[kTextBytes];
  const int result = EncryptPasswdWithKey(key.path(), plain.c_str(), text, kTextBytes);
  Expect(result == 0 || text[0] == '\0', "nothing is left of what did not fit");
  return text;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::string input = TextOf(data + 2, size - 2);
  bool opened = false;
  Decrypted(input, &opened);

  const std::string plain = input.c_str();
  std::string text = Encrypted(plain);
  if (text.empty()) return 0;
  Expect(text.find_first_of("\n\r= \t") == std::string::npos, "the text is one plain word");
  // The two functions above have a key file each, of the same content.
  Expect(Decrypted(text, &opened) == plain && opened, "the text opens to what was stored");
  const std::size_t place = (data[0] * 256u + data[1]) % text.size();
  for (const char* other : {"A", "b", "_", "-", "=", " ", "", "\n"}) {
    std::string changed = text;
    changed.replace(place, 1, other);
    if (changed == text) continue;
    Decrypted(changed, &opened);
    Expect(!opened, "a changed text stays closed");
  }
  return 0;
}
