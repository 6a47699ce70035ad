#include "support/secret.h"

#include <openssl/crypto.h>

#include <algorithm>

namespace corvel::storage::support {

Secret::Secret(std::string_view text) : text_(text) {}

Secret::~Secret() { Wipe(); }

// A short text lies inside the object and is copied by a swap; the object that
// it is swapped out of wipes it. The one that it is swapped into is empty: a swap
// of two short texts would leave a copy on the stack.
Secret::Secret(Secret&& other) noexcept {
  text_.swap(other.text_);
  other.Wipe();
}

Secret& Secret::operator=(Secret&& other) noexcept {
  if (this == &other) return *this;
  Wipe();
  text_.swap(other.text_);
  other.Wipe();
  return *this;
}

const unsigned char* Secret::bytes() const {
  return reinterpret_cast<const unsigned char*>(text_.data());
}

unsigned char* Secret::bytes() { return reinterpret_cast<unsigned char*>(text_.data()); }

std::string* Secret::Receive() {
  Wipe();
  return &text_;
}

void Secret::Append(std::string_view text) {
  Reserve(text_.size() + text.size());
  text_.append(text);
}

void Secret::Resize(std::size_t size) {
  Reserve(size);
  if (size < text_.size()) OPENSSL_cleanse(text_.data() + size, text_.size() - size);
  text_.resize(size);
}

void Secret::Wipe() noexcept {
  // Growing to the capacity brings every byte that the text owns within its
  // bounds without moving it.
  text_.resize(text_.capacity());
  OPENSSL_cleanse(text_.data(), text_.size());
  text_.clear();
}

/// Makes room for `size` bytes without leaving a block behind; doubles, so that
/// appending piece by piece stays linear.
void Secret::Reserve(std::size_t size) {
  if (size <= text_.capacity()) return;
  Secret larger;
  larger.text_.reserve(std::max(size, 2 * text_.capacity()));
  larger.text_ = text_;
  *this = std::move(larger);
}

}  // namespace corvel::storage::support
