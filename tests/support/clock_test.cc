#include "support/clock.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <csignal>
#include <ctime>

namespace corvel::storage::support {
namespace {

volatile std::sig_atomic_t alarms = 0;

/// Raises SIGALRM every few milliseconds, which the process only counts.
class ScopedAlarm {
 public:
  ScopedAlarm() : previous_(std::signal(SIGALRM, [](int) { alarms = alarms + 1; })) {
    SetInterval(kMicroseconds);
  }
  ~ScopedAlarm() {
    SetInterval(0);
    std::signal(SIGALRM, previous_);
  }
  ScopedAlarm(const ScopedAlarm&) = delete;
  ScopedAlarm& operator=(const ScopedAlarm&) = delete;

 private:
  static constexpr suseconds_t kMicroseconds = 20000;

  static void SetInterval(suseconds_t microseconds) {
    const itimerval interval = {{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &interval, nullptr);
  }

  void (*previous_)(int);
};

TEST(SystemClock, TellsSecondsSinceTheEpoch) {
  const std::time_t before = std::time(nullptr);
  const std::time_t now = Clock::System().Now();
  EXPECT_GE(now, before);
  EXPECT_LE(now, std::time(nullptr));
}

TEST(SystemClock, SleepsUntilASignalArrives) {
  alarms = 0;
  const ScopedAlarm alarm;
  Clock::System().Sleep(3600);
  EXPECT_GT(alarms, 0);
}

TEST(SystemClock, IsOneObject) { EXPECT_EQ(&Clock::System(), &Clock::System()); }

}  // namespace
}  // namespace corvel::storage::support
