#ifndef TESTS_TESTING_OUTCOME_H_
#define TESTS_TESTING_OUTCOME_H_

#include <string>

#include "frontend/register_exception.h"
#include "tests/testing/output_capture.h"

namespace corvel::storage::testing {

/// How a call ended and what it printed.
struct Outcome {
  /// Number, severity, source and description of the RegisterException that
  /// ended it, e.g. "6/5 Record: Missing required field: b"; empty without one.
  std::string failure;
  std::string out;
  std::string err;
};

/// Performs `call` and captures how it ends. Checks made afterwards can say
/// what they found, which they could not under the capture.
template <typename Call>
Outcome OutcomeOf(const Call& call) {
  OutputCapture output;
  std::string failure;
  try {
    call();
  } catch (const tzregister::RegisterException& thrown) {
    failure = std::to_string(thrown.number()) + "/" + std::to_string(thrown.severity()) + " " +
              thrown.source() + ": " + thrown.what();
  }
  return {failure, output.Stdout(), output.Stderr()};
}

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_OUTCOME_H_
