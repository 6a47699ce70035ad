#ifndef FUZZ_FUZZING_H_
#define FUZZ_FUZZING_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

/// Called by libFuzzer with one input; always returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace corvel::storage::fuzzing {

inline std::string TextOf(const std::uint8_t* data, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

/// The part of `*text` before the first `separator`, which is cut off with it;
/// all of it when there is none.
inline std::string TakeUntil(char separator, std::string* text) {
  const std::size_t end = text->find(separator);
  const std::string part = text->substr(0, end);
  text->erase(0, end == std::string::npos ? end : end + 1);
  return part;
}

/// Ends the process, which libFuzzer takes for a finding, unless `holds`.
inline void Expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

/// Keeps standard error quiet while it lives: what is refused is told there.
class QuietErrors {
 public:
  QuietErrors() : previous_(std::cerr.rdbuf(nullptr)) {}
  ~QuietErrors() {
    std::cerr.rdbuf(previous_);
    std::cerr.clear();
  }
  QuietErrors(const QuietErrors&) = delete;
  QuietErrors& operator=(const QuietErrors&) = delete;

 private:
  std::streambuf* previous_;
};

}  // namespace corvel::storage::fuzzing

#endif  // FUZZ_FUZZING_H_
