#ifndef TESTS_TESTING_OUTPUT_CAPTURE_H_
#define TESTS_TESTING_OUTPUT_CAPTURE_H_

#include <gtest/gtest.h>

#include <iostream>
#include <string>

namespace corvel::storage::testing {

/// Captures standard output and standard error of the process (C++ streams and
/// stdio alike) from its construction until the first look at either.
class OutputCapture {
 public:
  OutputCapture() {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
  }
  ~OutputCapture() { Stop(); }
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;

  const std::string& Stdout() { return Stop(), stdout_; }
  const std::string& Stderr() { return Stop(), stderr_; }

 private:
  void Stop() {
    if (stopped_) return;
    stopped_ = true;
    std::cout.flush();
    stdout_ = ::testing::internal::GetCapturedStdout();
    stderr_ = ::testing::internal::GetCapturedStderr();
  }

  bool stopped_ = false;
  std::string stdout_;
  std::string stderr_;
};

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_OUTPUT_CAPTURE_H_
