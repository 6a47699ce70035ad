#ifndef TESTS_TESTING_HEAP_WATCH_H_
#define TESTS_TESTING_HEAP_WATCH_H_

#include <cstddef>
#include <string>

namespace corvel::storage::testing {

// A program that uses either of these allocates through their operator new,
// operator delete and strdup.

/// While it lives, operator new and strdup refuse blocks of `bytes` and more. One
/// at a time.
class AllocationLimit {
 public:
  explicit AllocationLimit(std::size_t bytes);
  ~AllocationLimit();
  AllocationLimit(const AllocationLimit&) = delete;
  AllocationLimit& operator=(const AllocationLimit&) = delete;
};

/// Watches the blocks that operator delete gets for one text. One at a time.
class FreedTextWatch {
 public:
  explicit FreedTextWatch(const std::string& text);
  ~FreedTextWatch();
  FreedTextWatch(const FreedTextWatch&) = delete;
  FreedTextWatch& operator=(const FreedTextWatch&) = delete;

  /// True when a block still held the text as it was given back.
  bool seen() const;

 private:
  std::string text_;
};

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_HEAP_WATCH_H_
