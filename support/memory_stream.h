#ifndef SUPPORT_MEMORY_STREAM_H_
#define SUPPORT_MEMORY_STREAM_H_

#include <sstream>

namespace corvel::storage::support {

/// A text stream in memory that throws std::bad_alloc when there is none. A plain
/// one swallows that, and what is written behind looks as if nothing were missing.
class MemoryStream : public std::stringstream {
 public:
  MemoryStream() { exceptions(std::ios::badbit); }
};

}  // namespace corvel::storage::support

#endif  // SUPPORT_MEMORY_STREAM_H_
