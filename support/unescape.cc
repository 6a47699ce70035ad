#include "support/unescape.h"

namespace {

/// The value of a hexadecimal digit, or -1.
int HexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

/// Reads one byte of the plain text from the escaped text at `in`, stores it in
/// `*byte` and returns how many characters it took.
std::size_t ReadByte(const char* in, char* byte) {
  *byte = in[0];
  if (in[0] != '\\') return 1;
  switch (in[1]) {
    case 'n':
      *byte = '\n';
      return 2;
    case 'r':
      *byte = '\r';
      return 2;
    case 't':
      *byte = '\t';
      return 2;
    case '\\':
      return 2;
    case 'x': {
      const int high = HexValue(in[2]);
      const int low = high < 0 ? -1 : HexValue(in[3]);
      if (low < 0) return 1;
      *byte = static_cast<char>(high * 16 + low);
      return 4;
    }
    default:
      return 1;
  }
}

}  // namespace

std::size_t CRStringUnescapeA(const char* in, char* out, std::size_t outSize) {
  if (outSize == 0) return 0;
  std::size_t length = 0;
  while (*in != '\0' && length + 1 < outSize) in += ReadByte(in, &out[length++]);
  out[length] = '\0';
  return length;
}
