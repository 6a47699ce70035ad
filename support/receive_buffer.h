#ifndef SUPPORT_RECEIVE_BUFFER_H_
#define SUPPORT_RECEIVE_BUFFER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace corvel::storage::support {

/// The most bytes of one answer that are kept. Far above any real answer; it
/// stops a server from filling the host's memory before the deadline ends the
/// transfer.
inline constexpr std::uint64_t kMaxAnswerBytes = 256ull << 20;

/// The most bytes of headers and trailers of one answer. libcurl keeps them all
/// and has a limit for single lines only.
inline constexpr std::uint64_t kMaxHeaderBytes = 1u << 20;

/// An answer while it arrives: one growing heap block, owned.
struct ReceiveBuffer {
  /// From malloc/realloc, or null. When not null, data[size] is a zero byte.
  char* data = nullptr;
  /// Bytes received, without the terminating zero byte.
  std::uint64_t size = 0;
  /// Bytes that the block has room for.
  std::uint64_t capacity = 0;
  /// Bytes of headers and trailers received; they are counted and not kept.
  std::uint64_t headerBytes = 0;
  /// After this nothing more is taken.
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();

  ReceiveBuffer() = default;
  ~ReceiveBuffer() { Release(); }
  ReceiveBuffer(const ReceiveBuffer&) = delete;
  ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

  /// Adds `count` bytes behind the old end and terminates them. When memory is
  /// short, the deadline has passed, or the answer would exceed kMaxAnswerBytes,
  /// releases everything and returns false.
  bool Append(const char* bytes, std::size_t count);

  /// Frees the block; the buffer is then empty.
  void Release();

  /// Hands the block to the caller, who frees it; the buffer is then empty.
  char* TakeData();
};

/// libcurl's write function, for every transfer: appends size * nmemb bytes to
/// the ReceiveBuffer at `userdata` and returns that number. Returns 0, which
/// ends the transfer, when `userdata` is null, memory is short, the deadline has
/// passed or the answer is longer than is accepted; the buffer is empty then.
std::size_t data_callback(char* ptr, std::size_t size, std::size_t nmemb, void* userdata);

/// libcurl's header function, for every transfer: counts size * nmemb bytes in
/// the ReceiveBuffer at `userdata` and returns that number. Returns 0, which ends
/// the transfer, when the deadline has passed or there are more than
/// kMaxHeaderBytes.
std::size_t header_callback(char* ptr, std::size_t size, std::size_t nmemb, void* userdata);

}  // namespace corvel::storage::support

#endif  // SUPPORT_RECEIVE_BUFFER_H_
