#include "support/text_stream.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace corvel::storage::support {

TextWriter::TextWriter() : std::ostream(nullptr) {
  rdbuf(&buffer_);
  // Makes the stream hand on what its buffer throws.
  exceptions(std::ios::badbit);
}

TextWriter::Buffer::int_type TextWriter::Buffer::overflow(int_type character) {
  const char byte = traits_type::to_char_type(character);
  xsputn(&byte, 1);
  return character;
}

std::streamsize TextWriter::Buffer::xsputn(const char* bytes, std::streamsize count) {
  if (count <= 0) return 0;
  const std::size_t newSize = size + static_cast<std::size_t>(count);
  if (newSize > capacity) {
    // The kernel moves a big block without copying it, and the half of it that
    // is not written to yet takes no memory.
    const std::size_t newCapacity = std::max(newSize, 2 * capacity);
    auto* const grown = static_cast<char*>(std::realloc(text.get(), newCapacity));
    if (grown == nullptr) throw std::bad_alloc();
    static_cast<void>(text.release());
    text.reset(grown);
    capacity = newCapacity;
  }
  std::memcpy(text.get() + size, bytes, static_cast<std::size_t>(count));
  size = newSize;
  return count;
}

TextReader::Buffer::Buffer(std::string_view text) {
  // The interface wants bytes that could be written to; reading never does.
  char* const start = const_cast<char*>(text.data());
  setg(start, start, start + text.size());
}

TextReader::TextReader(std::string_view text) : std::istream(nullptr), buffer_(text) {
  rdbuf(&buffer_);
}

}  // namespace corvel::storage::support
