#ifndef TESTS_TESTING_ALLOCATION_LIMIT_H_
#define TESTS_TESTING_ALLOCATION_LIMIT_H_

#include <cstddef>

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

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_ALLOCATION_LIMIT_H_
