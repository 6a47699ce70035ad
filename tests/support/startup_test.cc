#include "support/startup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <vector>

namespace {

// Everything here changes the process as a whole: each case runs in a child,
// which tells by its status whether what was promised holds.

using ::testing::ExitedWithCode;

constexpr int kHolds = 0;

void Initialise() { InitSupportLibrary("tzregister", "6.0.0.0"); }

bool IsNullDevice(int descriptor) {
  struct stat status = {};
  return fstat(descriptor, &status) == 0 && S_ISCHR(status.st_mode) &&
         status.st_rdev == makedev(1, 3);
}

bool TakesNothing(int descriptor) { return write(descriptor, "x", 1) == -1; }

/// Closes `descriptors`, initialises and says whether they, and no others, are
/// the null device now.
[[noreturn]] void CheckStandardStreams(const std::vector<int>& closed) {
  for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
    if (IsNullDevice(descriptor)) dup2(open("/dev/zero", O_RDWR), descriptor);
  }
  const int next = dup(open("/dev/zero", O_RDWR));
  close(next);
  for (const int descriptor : closed) close(descriptor);
  Initialise();
  for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
    const bool was = std::find(closed.begin(), closed.end(), descriptor) != closed.end();
    if (IsNullDevice(descriptor) != was) _exit(1);
    if (was && !TakesNothing(descriptor)) _exit(2);
  }
  _exit(fcntl(next, F_GETFD) == -1 ? kHolds : 3);
}

TEST(InitSupportLibraryDeathTest, PutsTheNullDeviceInPlaceOfClosedStandardStreams) {
  for (const std::vector<int>& closed :
       {std::vector<int>{}, {0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}}) {
    SCOPED_TRACE(::testing::PrintToString(closed));
    EXPECT_EXIT(CheckStandardStreams(closed), ExitedWithCode(kHolds), "");
  }
}

[[noreturn]] void CheckCoreDumps() {
  const rlimit some = {1, 1};
  if (setrlimit(RLIMIT_CORE, &some) != 0) _exit(2);
  Initialise();
  rlimit limit = {1, 1};
  getrlimit(RLIMIT_CORE, &limit);
  _exit(limit.rlim_cur == 0 && limit.rlim_max == 0 ? kHolds : 1);
}

TEST(InitSupportLibraryDeathTest, SwitchesCoreDumpsOff) {
  EXPECT_EXIT(CheckCoreDumps(), ExitedWithCode(kHolds), "");
}

[[noreturn]] void CheckDumps() {
  if (prctl(PR_SET_DUMPABLE, 1) != 0) _exit(2);
  Initialise();
  _exit(prctl(PR_GET_DUMPABLE) == 0 ? kHolds : 1);
}

TEST(InitSupportLibraryDeathTest, KeepsOthersOutOfItsMemory) {
  EXPECT_EXIT(CheckDumps(), ExitedWithCode(kHolds), "");
}

[[noreturn]] void CheckClosedConnection() {
  std::signal(SIGPIPE, SIG_DFL);
  Initialise();
  int ends[2] = {};
  if (pipe(ends) != 0) _exit(1);
  close(ends[0]);
  _exit(write(ends[1], "x", 1) == -1 && errno == EPIPE ? kHolds : 2);
}

TEST(InitSupportLibraryDeathTest, MakesAWriteToAClosedConnectionAnError) {
  EXPECT_EXIT(CheckClosedConnection(), ExitedWithCode(kHolds), "");
}

[[noreturn]] void CheckWithoutDescriptors() {
  const rlimit none = {0, 0};
  setrlimit(RLIMIT_NOFILE, &none);
  close(STDIN_FILENO);
  Initialise();
  _exit(kHolds);
}

TEST(InitSupportLibraryDeathTest, GoesOnWhenNoDescriptorIsToBeHad) {
  EXPECT_EXIT(CheckWithoutDescriptors(), ExitedWithCode(kHolds), "");
}

}  // namespace
