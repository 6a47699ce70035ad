#ifndef TESTS_TESTING_FILE_SIZE_LIMIT_H_
#define TESTS_TESTING_FILE_SIZE_LIMIT_H_

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

namespace corvel::storage::testing {

/// While it lives, no file that the process writes grows beyond `bytes`, as on a
/// disk that is full in the middle of a file. What a call prints under an
/// OutputCapture goes to a file as well. One at a time.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit limit = {bytes, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*handler_)(int);
  rlimit before_ = {};
};

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_FILE_SIZE_LIMIT_H_
