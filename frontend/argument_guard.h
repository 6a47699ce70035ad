#ifndef FRONTEND_ARGUMENT_GUARD_H_
#define FRONTEND_ARGUMENT_GUARD_H_

#include <boost/program_options/variables_map.hpp>
#include <string>
#include <vector>

#include "support/secret.h"

namespace corvel::storage::tzregister {

/// Keeps the password of a command line out of the host's process list and out
/// of the option library, which copies every argument many times: overwrites
/// the values of --passwd in the process's own arguments, which anybody on the
/// host can read while the process runs, and lets the option library work on a
/// copy in which stand-ins take their place.
///
/// A value that begins with a dash stays in the copy, because the option
/// library decides by its letters whether it is a value at all.
class ArgumentGuard {
 public:
  /// `argv` holds `argc` writable texts, the process's own arguments.
  ArgumentGuard(int argc, char** argv);
  ArgumentGuard(const ArgumentGuard&) = delete;
  ArgumentGuard& operator=(const ArgumentGuard&) = delete;

  /// The copies with a null behind the last one, valid as long as this object.
  char** argv() { return pointers_.data(); }

  /// Puts the password in the place of the stand-in that the option library
  /// found in argv(); does nothing when there was none. To be called once.
  void RestorePassword(boost::program_options::variables_map* options);

 private:
  /// Takes the password at `value` out of the process's arguments; returns what
  /// stands for it in the copy.
  std::string TakePassword(char* value);

  std::vector<support::Secret> passwords_;  ///< each stands in the copy as its index
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_ARGUMENT_GUARD_H_
