#ifndef TESTS_TESTING_OUTCOME_H_
#define TESTS_TESTING_OUTCOME_H_

#include <climits>
#include <ostream>
#include <string>
#include <type_traits>

#include "frontend/register_exception.h"
#include "tests/testing/output_capture.h"

namespace corvel::storage::testing {

/// What a RegisterException says; number 0 stands for none.
struct Thrown {
  int number = 0;
  int severity = 0;
  std::string source;
  std::string description;
};

bool operator==(const Thrown& a, const Thrown& b);
bool operator!=(const Thrown& a, const Thrown& b);
std::ostream& operator<<(std::ostream& stream, const Thrown& thrown);

inline const Thrown kNothingThrown;

/// How a call ended and what it printed.
struct Outcome {
  /// What a call that threw returned: no call returns this.
  static constexpr int kNoResult = INT_MIN;

  int result = kNoResult;  ///< 0 for a call that returned without a value
  Thrown failure;          ///< the RegisterException that ended it
  std::string out;
  std::string err;
};

/// Performs `call`, which returns a number or nothing, and captures how it ends;
/// exceptions of other kinds pass through. Checks made afterwards can say what
/// they found, which they could not under the capture.
template <typename Call>
Outcome OutcomeOf(const Call& call) {
  OutputCapture output;
  Outcome outcome;
  try {
    if constexpr (std::is_void_v<decltype(call())>) {
      call();
      outcome.result = 0;
    } else {
      outcome.result = call();
    }
  } catch (const tzregister::RegisterException& thrown) {
    outcome.failure = {thrown.number(), thrown.severity(), thrown.source(), thrown.what()};
  }
  outcome.out = output.Stdout();
  outcome.err = output.Stderr();
  return outcome;
}

/// The call must have returned `result` and printed `out` and `err`, no more and
/// no less.
void ExpectResult(const Outcome& outcome, int result, const std::string& out,
                  const std::string& err);

/// The call must have succeeded, and printed nothing that is not given.
void ExpectSuccess(const Outcome& outcome, const std::string& out = "",
                   const std::string& err = "");

/// The call must have returned -1 and said why: `err` on standard error, nothing
/// on standard output.
void ExpectError(const Outcome& outcome, const std::string& err);

/// `failure` must have ended the call; it printed `err` on standard error before
/// and nothing on standard output.
void ExpectFailure(const Outcome& outcome, const Thrown& failure, const std::string& err = "");

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_OUTCOME_H_
