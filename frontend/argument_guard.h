#ifndef FRONTEND_ARGUMENT_GUARD_H_
#define FRONTEND_ARGUMENT_GUARD_H_

#include <string>
#include <vector>

namespace corvel::storage::tzregister {

/// Keeps the password of a command line out of the host's process list: takes a
/// copy of the arguments for the program to work with and overwrites the value
/// of --passwd in the originals, which anybody on the host can read while the
/// process runs. The copy is wiped when it goes.
class ArgumentGuard {
 public:
  /// `argv` holds `argc` writable texts, the process's own arguments.
  ArgumentGuard(int argc, char** argv);
  ~ArgumentGuard();
  ArgumentGuard(const ArgumentGuard&) = delete;
  ArgumentGuard& operator=(const ArgumentGuard&) = delete;

  /// The copies with a null behind the last one, valid as long as this object.
  char** argv() { return pointers_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_ARGUMENT_GUARD_H_
