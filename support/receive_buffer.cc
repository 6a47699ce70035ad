#include "support/receive_buffer.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace corvel::storage::support {
namespace {

/// A server that never pauses would keep libcurl from looking at its own clock.
bool IsLate(const ReceiveBuffer& buffer) {
  return std::chrono::steady_clock::now() > buffer.deadline;
}

}  // namespace

bool ReceiveBuffer::Append(const char* bytes, std::size_t count) {
  const bool fits = size <= kMaxAnswerBytes && count <= kMaxAnswerBytes - size && !IsLate(*this);
  auto* const grown = fits ? static_cast<char*>(std::realloc(data, size + count + 1)) : nullptr;
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
  std::free(data);
  data = nullptr;
  size = 0;
}

char* ReceiveBuffer::TakeData() {
  size = 0;
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
