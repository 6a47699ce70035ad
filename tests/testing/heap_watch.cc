#include "tests/testing/heap_watch.h"

#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace corvel::storage::testing {
namespace {

std::size_t allocation_limit = SIZE_MAX;
const std::string* watched = nullptr;
bool watched_seen = false;

void* Allocate(std::size_t size) {
  if (size >= allocation_limit) return nullptr;
  // Cleared, so that what a block holds was put there by its owner.
  return std::calloc(1, size == 0 ? 1 : size);
}

void Free(void* block) {
  if (block != nullptr && watched != nullptr) {
    const std::size_t size = malloc_usable_size(block);
    if (memmem(block, size, watched->data(), watched->size()) != nullptr) watched_seen = true;
  }
  std::free(block);
}

}  // namespace

AllocationLimit::AllocationLimit(std::size_t bytes) { allocation_limit = bytes; }

AllocationLimit::~AllocationLimit() { allocation_limit = SIZE_MAX; }

FreedTextWatch::FreedTextWatch(const std::string& text) : text_(text) {
  watched_seen = false;
  watched = &text_;
}

FreedTextWatch::~FreedTextWatch() { watched = nullptr; }

bool FreedTextWatch::seen() const { return watched_seen; }

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

void operator delete(void* block) noexcept { corvel::storage::testing::Free(block); }

void operator delete(void* block, std::size_t /*size*/) noexcept {
  corvel::storage::testing::Free(block);
}

void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept {
  corvel::storage::testing::Free(block);
}
