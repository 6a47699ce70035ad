#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/testing/allocation_limit.h"

// The main of every test program. No case sees anything of the caller's
// environment: the tool, libcurl, OpenSSL and the C library each read some of it.

namespace {

/// What those who run and watch the tests tell them, each by its first letters.
const char* const kKept[] = {"TMPDIR=", "GTEST_", "GCOV_", "ASAN_", "LSAN_", "UBSAN_"};

bool IsKept(const std::string& variable) {
  return std::any_of(std::begin(kKept), std::end(kKept),
                     [&](const char* start) { return variable.rfind(start, 0) == 0; });
}

void ClearEnvironment() {
  std::vector<std::string> names;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    if (!IsKept(text)) names.push_back(text.substr(0, text.find('=')));
  }
  for (const std::string& name : names) unsetenv(name.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  ClearEnvironment();
  corvel::storage::testing::ShareAllocator();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
