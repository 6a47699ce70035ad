#ifndef SUPPORT_HANDLE_H_
#define SUPPORT_HANDLE_H_

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace corvel::storage::support {

/// Deleter that calls one C release function; the building block of every
/// handle alias, so that no clean-up code is written by hand.
template <auto Release>
struct HandleDeleter {
  template <typename Handle>
  void operator()(Handle* handle) const {
    Release(handle);
  }
};

/// Closes a stdio stream and drops the result of closing; CloseFile of
/// support/file_system.h tells it.
struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

/// An owned zero-terminated text from malloc.
using HeapText = std::unique_ptr<char, HandleDeleter<std::free>>;

/// An owned stdio stream; null when it could not be opened.
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace corvel::storage::support

#endif  // SUPPORT_HANDLE_H_
