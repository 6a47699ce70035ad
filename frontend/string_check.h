#ifndef FRONTEND_STRING_CHECK_H_
#define FRONTEND_STRING_CHECK_H_

#include <string>

namespace corvel::storage::tzregister {

/// Checks of texts that reach the operations. Each returns when the text is
/// acceptable and otherwise throws RegisterException (ERR_INVALID_ARGUMENT,
/// severity 5, source "StringCheck") that names the offending value. None of
/// them changes its input or writes to a stream.
class RegisterStringCheck {
 public:
  /// `type` must be one of the eight component types, letter case included.
  static void ValidateType(const std::string& type);

  /// `text` must hold decimal digits alone; an empty text passes.
  static void ValidateNumeric(const std::string& text);

  /// `value`, the value of the parameter called `name`, must not be empty.
  static void ValidateNotEmpty(const std::string& name, const std::string& value);
};

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_STRING_CHECK_H_
