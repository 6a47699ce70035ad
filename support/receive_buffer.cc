#include "support/receive_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace corvel::storage::support {
namespace {

/// A server that never pauses would keep libcurl from looking at its own clock.
bool IsLate(const ReceiveBuffer& buffer) {
  return std::chrono::steady_clock::now() > buffer.deadline;
}

/// Grows the block to at least `bytes`; false when memory is short. It doubles, so
/// that many small pieces are not copied again and again; what is not written to
/// yet takes no memory.
bool HasRoomFor(std::uint64_t bytes, ReceiveBuffer* buffer) {
  if (bytes <= buffer->capacity) return true;
  const std::uint64_t capacity =
      std::max(bytes, std::min(2 * buffer->capacity, kMaxAnswerBytes + 1));
  auto* const grown = static_cast<char*>(std::realloc(buffer->data, capacity));
  if (grown == nullptr) return false;
  buffer->data = grown;
  buffer->capacity = capacity;
  return true;
}

}  // namespace

bool ReceiveBuffer::Append(const char* bytes, std::size_t count) {
  const bool fits = size <= kMaxAnswerBytes && count <= kMaxAnswerBytes - size && !IsLate(*this);
  if (!fits || !HasRoomFor(size + count + 1, this)) {
    Release();
    return false;
  }
  if (count > 0) std::memcpy(data + size, bytes, count);
  size += count;
  data[size] = '\0';
  return true;
}

void ReceiveBuffer::Release() {
  std::free(data);
  data = nullptr;
  size = capacity = 0;
}

char* ReceiveBuffer::TakeData() {
  size = capacity = 0;
  return std::exchange(data, nullptr);
}

std::size_t data_callback(char* ptr, std::size_t size, std::size_t nmemb, void* userdata) {
  if (userdata == nullptr) return 0;
  const std::size_t count = size * nmemb;
  return static_cast<ReceiveBuffer*>(userdata)->Append(ptr, count) ? count : 0;
}

std::size_t header_callback(char* /*ptr*/, std::size_t size, std::size_t nmemb, void* userdata) {
  auto* const buffer = static_cast<ReceiveBuffer*>(userdata);
  const std::size_t count = size * nmemb;
  buffer->headerBytes += count;
  return buffer->headerBytes <= kMaxHeaderBytes && !IsLate(*buffer) ? count : 0;
}

}  // namespace corvel::storage::support
