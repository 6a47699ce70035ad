#ifndef TESTS_TESTING_ALLOCATION_LIMIT_H_
#define TESTS_TESTING_ALLOCATION_LIMIT_H_

#include <cstddef>
#include <new>

namespace corvel::storage::testing {

/// While it lives, operator new and strdup refuse blocks of `bytes` and more. One
/// at a time. A program that uses it allocates through an operator new, operator
/// delete and strdup of the tests' own.
class AllocationLimit {
 public:
  explicit AllocationLimit(std::size_t bytes);
  ~AllocationLimit();
  AllocationLimit(const AllocationLimit&) = delete;
  AllocationLimit& operator=(const AllocationLimit&) = delete;
};

/// While it lives, one allocation fails: the `number`-th, counted from 1, of
/// operator new, strdup, the crypto library and libcurl. One at a time, for one
/// thread.
class AllocationFault {
 public:
  explicit AllocationFault(std::size_t number);
  ~AllocationFault();
  AllocationFault(const AllocationFault&) = delete;
  AllocationFault& operator=(const AllocationFault&) = delete;

  /// True when the allocation came.
  bool reached() const;
};

/// Runs `run` once for each of its allocations, which fails, and once more.
/// `check` is told each time whether std::bad_alloc came out. Returns the number
/// of allocations that failed.
template <typename Run, typename Check>
std::size_t ForEachFailedAllocation(const Run& run, const Check& check) {
  for (std::size_t number = 1;; ++number) {
    bool threw = false;
    bool reached = false;
    {
      const AllocationFault fault(number);
      try {
        run();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      reached = fault.reached();
    }
    check(threw);
    if (!reached) return number - 1;
  }
}

/// Makes the crypto library and libcurl allocate as the tests do. To be called
/// before either is used.
void ShareAllocator();

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_ALLOCATION_LIMIT_H_
