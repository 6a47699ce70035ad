#include "support/bounded_text.h"

#include <cstring>

namespace corvel::storage::support {

bool BoundedCopy(char* out, std::size_t outSize, const char* text) {
  if (outSize == 0) return false;
  out[0] = '\0';
  return BoundedAppend(out, outSize, text);
}

bool BoundedAppend(char* out, std::size_t outSize, const char* text) {
  const std::size_t used = strnlen(out, outSize);
  const std::size_t added = std::strlen(text);
  if (used == outSize || added >= outSize - used) return false;
  std::memcpy(out + used, text, added + 1);
  return true;
}

}  // namespace corvel::storage::support
