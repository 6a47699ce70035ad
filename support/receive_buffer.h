#ifndef SUPPORT_RECEIVE_BUFFER_H_
#define SUPPORT_RECEIVE_BUFFER_H_

#include <cstddef>
#include <cstdint>

namespace corvel::storage::support {

/// The most bytes of one answer that are kept. Far above any real answer; it
/// stops a server from filling the host's memory before the deadline ends the
/// transfer.
inline constexpr std::uint64_t kMaxAnswerBytes = 64ull << 20;

/// An answer while it arrives: one growing heap block, owned, wiped before it
/// is given back because answers carry account passwords.
struct ReceiveBuffer {
  /// From malloc/realloc, or null. When not null, data[size] is a zero byte.
  char* data = nullptr;
  /// Bytes received, without the terminating zero byte.
  std::uint64_t size = 0;

  ReceiveBuffer() = default;
  ~ReceiveBuffer() { Release(); }
  ReceiveBuffer(const ReceiveBuffer&) = delete;
  ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

  /// Adds `count` bytes behind the old end and terminates them. When memory is
  /// short, or the answer would exceed kMaxAnswerBytes, releases everything
  /// and returns false.
  bool Append(const char* bytes, std::size_t count);

  /// Wipes and frees the block; the buffer is then empty.
  void Release();

  /// Hands the block to the caller, who frees it; the buffer is then empty.
  char* TakeData();
};

}  // namespace corvel::storage::support

#endif  // SUPPORT_RECEIVE_BUFFER_H_
