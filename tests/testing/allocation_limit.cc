#include "tests/testing/allocation_limit.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace corvel::storage::testing {
namespace {

std::size_t allocation_limit = SIZE_MAX;

void* Allocate(std::size_t size) {
  return size >= allocation_limit ? nullptr : std::malloc(size == 0 ? 1 : size);
}

}  // namespace

AllocationLimit::AllocationLimit(std::size_t bytes) { allocation_limit = bytes; }

AllocationLimit::~AllocationLimit() { allocation_limit = SIZE_MAX; }

}  // namespace corvel::storage::testing

// The whole program allocates through these. The forms for arrays are left
// alone: under the sanitizers they come in pairs of their own.

void* operator new(std::size_t size) {
  void* const block = corvel::storage::testing::Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return corvel::storage::testing::Allocate(size);
}

char* strdup(const char* text) noexcept {
  const std::size_t size = std::strlen(text) + 1;
  void* const block = corvel::storage::testing::Allocate(size);
  return block == nullptr ? nullptr : static_cast<char*>(std::memcpy(block, text, size));
}

void operator delete(void* block) noexcept { std::free(block); }

void operator delete(void* block, std::size_t /*size*/) noexcept { std::free(block); }

void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept { std::free(block); }
