#ifndef SUPPORT_SECRET_H_
#define SUPPORT_SECRET_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace corvel::storage::support {

/// An owned text, or run of bytes, that nobody may find in memory later: what it
/// held is overwritten before the memory is given back or used for something
/// else. The one type for values known to be secrets: passwords, the content of
/// key files, derived keys. It moves and is never copied; code that must hand a
/// secret to the wire or to a library makes that copy itself, out of text().
class Secret {
 public:
  Secret() = default;
  /// Holds a copy of `text`, which stays the caller's to look after.
  explicit Secret(std::string_view text);
  ~Secret();
  Secret(Secret&& other) noexcept;
  Secret& operator=(Secret&& other) noexcept;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  const std::string& text() const { return text_; }
  std::size_t size() const { return text_.size(); }
  bool empty() const { return text_.empty(); }
  const unsigned char* bytes() const;

  /// The size() bytes, to be written to.
  char* data() { return text_.data(); }
  unsigned char* bytes();

  /// Empties the secret and lends out its text, for a function that hands a
  /// secret out through a std::string. To be assigned to once: a second, longer
  /// text would leave the first one behind.
  std::string* Receive();

  /// Adds `text` behind the end.
  void Append(std::string_view text);

  /// Cuts the secret to `size` bytes or fills it up with zero bytes.
  void Resize(std::size_t size);

 private:
  void Wipe() noexcept;
  void Reserve(std::size_t size);

  std::string text_;
};

}  // namespace corvel::storage::support

#endif  // SUPPORT_SECRET_H_
