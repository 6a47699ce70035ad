#ifndef SUPPORT_HANDLE_H_
#define SUPPORT_HANDLE_H_

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

/// An owned zero-terminated text from malloc.
using HeapText = std::unique_ptr<char, HandleDeleter<std::free>>;

}  // namespace corvel::storage::support

#endif  // SUPPORT_HANDLE_H_
