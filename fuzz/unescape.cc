// Undoing escapes, held against a model that looks at the whole text at once.

#include "support/unescape.h"

#include <memory>

#include "fuzz/fuzzing.h"

namespace {

using namespace corvel::storage::fuzzing;

constexpr char kHexDigits[] = "0123456789abcdef0123456789ABCDEF";

/// Position of `digit` among the sixteen, or 16 when it is none.
std::size_t DigitValue(char digit) {
  const std::string digits(kHexDigits);
  const std::size_t place = digits.find(digit);
  return place == std::string::npos ? 16 : place % 16;
}

std::string Model(const std::string& text) {
  const std::string letters = "nrt\\";
  const std::string meanings = "\n\r\t\\";
  std::string plain;
  for (std::size_t place = 0; place < text.size(); ++place) {
    const std::string rest = text.substr(place, 4);
    const std::size_t letter = rest.size() > 1 ? letters.find(rest[1]) : std::string::npos;
    if (rest[0] == '\\' && letter != std::string::npos) {
      plain += meanings[letter];
      place += 1;
    } else if (rest.size() == 4 && rest.compare(0, 2, "\\x") == 0 && DigitValue(rest[2]) < 16 &&
               DigitValue(rest[3]) < 16) {
      plain += static_cast<char>(DigitValue(rest[2]) * 16 + DigitValue(rest[3]));
      place += 3;
    } else {
      plain += rest[0];
    }
  }
  return plain;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t room = data[0];
  const std::string text = TextOf(data + 1, size - 1);
  const std::string model = Model(text.c_str());

  std::unique_ptr<char[]> whole(new char[text.size() + 1]);
  const std::size_t length = CRStringUnescapeA(text.c_str(), whole.get(), text.size() + 1);
  Expect(length <= text.size(), "the plain text is never longer");
  Expect(std::string(whole.get(), length) == model, "the plain text is that of the model");
  Expect(whole[length] == '\0', "the plain text is terminated");

  std::unique_ptr<char[]> part(new char[room]);
  const std::size_t partLength = CRStringUnescapeA(text.c_str(), part.get(), room);
  Expect(room == 0 ? partLength == 0 : partLength == std::min(model.size(), room - 1),
         "a small buffer takes what fits");
  Expect(room == 0 || std::string(part.get(), partLength) == model.substr(0, partLength),
         "a small buffer holds the beginning");
  return 0;
}
