#ifndef SUPPORT_SECRET_H_
#define SUPPORT_SECRET_H_

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace corvel::storage::support {

/// Overwrites the whole capacity of `*text` with zeros, then empties it.
void WipeText(std::string* text);

/// Wipes the text it was given when it goes out of scope, also when an
/// exception passes. Does not own the text, which must outlive it.
class ScopedWipe {
 public:
  explicit ScopedWipe(std::string* text) : text_(text) {}
  ~ScopedWipe() { WipeText(text_); }
  ScopedWipe(const ScopedWipe&) = delete;
  ScopedWipe& operator=(const ScopedWipe&) = delete;

 private:
  std::string* text_;
};

/// Frees a zero-terminated heap text after overwriting it.
struct HeapTextDeleter {
  void operator()(char* text) const {
    OPENSSL_cleanse(text, std::strlen(text));
    std::free(text);
  }
};

/// An owned zero-terminated text from malloc, wiped before it is freed.
using HeapText = std::unique_ptr<char, HeapTextDeleter>;

/// A heap copy of `text` (zero-terminated, not null).
/// Throws std::bad_alloc when there is no memory.
HeapText CopyHeapText(const char* text);

/// Allocator that overwrites what it gives back, so that a growing buffer of
/// secret bytes leaves no copies behind.
template <typename T>
struct WipingAllocator {
  using value_type = T;

  WipingAllocator() = default;
  template <typename U>
  WipingAllocator(const WipingAllocator<U>&) {}

  T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* block, std::size_t count) {
    OPENSSL_cleanse(block, count * sizeof(T));
    std::allocator<T>().deallocate(block, count);
  }
  template <typename U>
  bool operator==(const WipingAllocator<U>&) const {
    return true;
  }
  template <typename U>
  bool operator!=(const WipingAllocator<U>&) const {
    return false;
  }
};

/// Bytes that are wiped whenever their memory is given back.
using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

}  // namespace corvel::storage::support

#endif  // SUPPORT_SECRET_H_
