#ifndef TESTS_TESTING_SCOPED_ENVIRONMENT_H_
#define TESTS_TESTING_SCOPED_ENVIRONMENT_H_

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

namespace corvel::storage::testing {

/// Sets one environment variable, or removes it, and puts the old state back at
/// the end of the scope.
class ScopedEnvironment {
 public:
  /// A null `value` stands for a variable that is not set.
  ScopedEnvironment(std::string name, const char* value) : name_(std::move(name)) {
    if (const char* const old = std::getenv(name_.c_str())) old_ = old;
    Set(value);
  }
  ~ScopedEnvironment() { Set(old_ ? old_->c_str() : nullptr); }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  void Set(const char* value) {
    if (value == nullptr) {
      unsetenv(name_.c_str());
    } else {
      setenv(name_.c_str(), value, 1);
    }
  }

  std::string name_;
  std::optional<std::string> old_;
};

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_SCOPED_ENVIRONMENT_H_
