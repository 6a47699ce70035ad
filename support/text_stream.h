#ifndef SUPPORT_TEXT_STREAM_H_
#define SUPPORT_TEXT_STREAM_H_

#include <cstddef>
#include <istream>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string_view>

#include "support/handle.h"

namespace corvel::storage::support {

// Streams over a text in memory that may have hundreds of megabytes: it grows,
// is read and is handed on without ever being there twice.

/// Collects what is written to it. Throws std::bad_alloc when memory is short;
/// what was written before stays.
class TextWriter : public std::ostream {
 public:
  TextWriter();

  /// Everything written so far. Borrowed: valid until the next write.
  std::string_view text() const { return {buffer_.text.get(), buffer_.size}; }

 private:
  struct Buffer : std::streambuf {
    int_type overflow(int_type character) override;
    std::streamsize xsputn(const char* bytes, std::streamsize count) override;

    HeapText text;
    std::size_t size = 0;
    std::size_t capacity = 0;
  };

  Buffer buffer_;
};

/// Reads a text that it borrows.
class TextReader : public std::istream {
 public:
  /// What `text` shows must outlive the reader and stay as it is.
  explicit TextReader(std::string_view text);

 private:
  struct Buffer : std::streambuf {
    explicit Buffer(std::string_view text);
  };

  Buffer buffer_;
};

}  // namespace corvel::storage::support

#endif  // SUPPORT_TEXT_STREAM_H_
