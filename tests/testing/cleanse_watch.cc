#include "tests/testing/cleanse_watch.h"

#include <openssl/crypto.h>

#include <algorithm>

namespace corvel::storage::testing {
namespace {

CleanseWatch* watch = nullptr;

}  // namespace

CleanseWatch::CleanseWatch() { watch = this; }

CleanseWatch::~CleanseWatch() { watch = nullptr; }

bool CleanseWatch::Saw(const std::string& text) const {
  return std::any_of(blocks_.begin(), blocks_.end(), [&](const std::string& block) {
    return block.find(text) != std::string::npos;
  });
}

}  // namespace corvel::storage::testing

// Takes the place of the library's own function for the code that is linked
// into this program.
void OPENSSL_cleanse(void* block, std::size_t size) {
  auto* const bytes = static_cast<char*>(block);
  if (corvel::storage::testing::watch != nullptr) {
    corvel::storage::testing::watch->Record(std::string(bytes, size));
  }
  std::fill_n(bytes, size, '\0');
}
