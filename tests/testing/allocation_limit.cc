#include "tests/testing/allocation_limit.h"

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace corvel::storage::testing {
namespace {

std::size_t allocation_limit = SIZE_MAX;

/// How many allocations there are up to the one that fails; 0 when none does.
std::size_t allocations_left = 0;

bool Refuses(std::size_t size) {
  return size >= allocation_limit || (allocations_left > 0 && --allocations_left == 0);
}

void* Allocate(std::size_t size) {
  return Refuses(size) ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* Reallocate(void* block, std::size_t size) {
  return Refuses(size) ? nullptr : std::realloc(block, size);
}

void* AllocateZeroes(std::size_t count, std::size_t size) {
  return Refuses(count * size) ? nullptr : std::calloc(count, size);
}

// The crypto library says where in its sources it allocates.

void* CryptoAllocate(std::size_t size, const char* /*file*/, int /*line*/) {
  return size == 0 ? nullptr : Allocate(size);
}

void* CryptoReallocate(void* block, std::size_t size, const char* /*file*/, int /*line*/) {
  return Reallocate(block, size);
}

void CryptoFree(void* block, const char* /*file*/, int /*line*/) { std::free(block); }

}  // namespace

AllocationLimit::AllocationLimit(std::size_t bytes) { allocation_limit = bytes; }

AllocationLimit::~AllocationLimit() { allocation_limit = SIZE_MAX; }

AllocationFault::AllocationFault(std::size_t number) { allocations_left = number; }

AllocationFault::~AllocationFault() { allocations_left = 0; }

bool AllocationFault::reached() const { return allocations_left == 0; }

void ShareAllocator() {
  if (CRYPTO_set_mem_functions(CryptoAllocate, CryptoReallocate, CryptoFree) != 1 ||
      curl_global_init_mem(CURL_GLOBAL_DEFAULT, Allocate, std::free, Reallocate, strdup,
                           AllocateZeroes) != CURLE_OK) {
    std::abort();
  }
}

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
