#include "tests/testing/outcome.h"

#include <tuple>

namespace corvel::storage::testing {

bool operator==(const Thrown& a, const Thrown& b) {
  return std::tie(a.number, a.severity, a.source, a.description) ==
         std::tie(b.number, b.severity, b.source, b.description);
}

bool operator!=(const Thrown& a, const Thrown& b) { return !(a == b); }

std::ostream& operator<<(std::ostream& stream, const Thrown& thrown) {
  if (thrown == kNothingThrown) return stream << "nothing thrown";
  return stream << "number " << thrown.number << ", severity " << thrown.severity << ", source \""
                << thrown.source << "\", description \"" << thrown.description << '"';
}

void ExpectResult(const Outcome& outcome, int result, const std::string& out,
                  const std::string& err) {
  EXPECT_EQ(outcome.failure, kNothingThrown);
  EXPECT_EQ(outcome.result, result);
  EXPECT_EQ(outcome.out, out);
  EXPECT_EQ(outcome.err, err);
}

void ExpectSuccess(const Outcome& outcome, const std::string& out, const std::string& err) {
  ExpectResult(outcome, 0, out, err);
}

void ExpectError(const Outcome& outcome, const std::string& err) {
  ExpectResult(outcome, -1, "", err);
}

void ExpectFailure(const Outcome& outcome, const Thrown& failure, const std::string& err) {
  EXPECT_EQ(outcome.failure, failure);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, err);
}

}  // namespace corvel::storage::testing
