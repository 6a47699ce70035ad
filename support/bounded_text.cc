#include "support/bounded_text.h"

#include <cstring>

namespace corvel::storage::support {

bool BoundedCopy(char* out, std::size_t outSize, const char* text) {
  if (outSize == 0) return false;
  const std::size_t length = strnlen(text, outSize);
  const std::size_t copied = length < outSize ? length : outSize - 1;
  std::memcpy(out, text, copied);
  out[copied] = '\0';
  return copied == length;
}

bool BoundedAppend(char* out, std::size_t outSize, const char* text) {
  const std::size_t used = strnlen(out, outSize);
  const std::size_t added = std::strlen(text);
  if (used == outSize || added >= outSize - used) return false;
  std::memcpy(out + used, text, added + 1);
  return true;
}

}  // namespace corvel::storage::support
