#include "support/clock.h"

#include <unistd.h>

namespace corvel::storage::support {
namespace {

class SystemClock final : public Clock {
 public:
  std::time_t Now() override { return std::time(nullptr); }
  void Sleep(unsigned seconds) override { ::sleep(seconds); }
};

}  // namespace

Clock& Clock::System() {
  static SystemClock clock;
  return clock;
}

}  // namespace corvel::storage::support
