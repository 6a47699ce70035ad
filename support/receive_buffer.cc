#include "support/receive_buffer.h"

#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace corvel::storage::support {
namespace {

/// Blocks above this size are moved by the kernel page by page, which leaves no
/// copy behind; smaller ones are copied by hand so that the old one can be wiped.
constexpr std::uint64_t kCopyLimitBytes = 1u << 20;

/// A block of `newSize` bytes that begins with the first `usedSize` bytes of
/// `old`, which is then gone. Null, with `old` untouched, when memory is short.
char* GrowBlock(char* old, std::uint64_t usedSize, std::uint64_t newSize) {
  if (old == nullptr || usedSize > kCopyLimitBytes) {
    return static_cast<char*>(std::realloc(old, newSize));
  }
  auto* block = static_cast<char*>(std::malloc(newSize));
  if (block == nullptr) return nullptr;
  std::memcpy(block, old, usedSize);
  OPENSSL_cleanse(old, usedSize);
  std::free(old);
  return block;
}

}  // namespace

bool ReceiveBuffer::Append(const char* bytes, std::size_t count) {
  const bool fits = size <= kMaxAnswerBytes && count <= kMaxAnswerBytes - size;
  char* grown = fits ? GrowBlock(data, size, size + count + 1) : nullptr;
  if (grown == nullptr) {
    Release();
    return false;
  }
  data = grown;
  if (count > 0) std::memcpy(data + size, bytes, count);
  size += count;
  data[size] = '\0';
  return true;
}

void ReceiveBuffer::Release() {
  if (data != nullptr) OPENSSL_cleanse(data, size);
  std::free(data);
  data = nullptr;
  size = 0;
}

char* ReceiveBuffer::TakeData() {
  size = 0;
  return std::exchange(data, nullptr);
}

}  // namespace corvel::storage::support
