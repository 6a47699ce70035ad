#ifndef SUPPORT_CLOCK_H_
#define SUPPORT_CLOCK_H_

#include <ctime>

namespace corvel::storage::support {

/// The time of day and the pause between two polls, behind one seam so that a
/// deadline of minutes can be tested in microseconds.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Seconds since the epoch.
  virtual std::time_t Now() = 0;

  /// Blocks for `seconds`, or less when a signal arrives.
  virtual void Sleep(unsigned seconds) = 0;

  /// The machine's clock. It has no state and lives as long as the process.
  static Clock& System();
};

}  // namespace corvel::storage::support

#endif  // SUPPORT_CLOCK_H_
