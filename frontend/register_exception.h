#ifndef FRONTEND_REGISTER_EXCEPTION_H_
#define FRONTEND_REGISTER_EXCEPTION_H_

#include <cstdint>
#include <ctime>
#include <exception>
#include <ios>
#include <sstream>
#include <string>

namespace corvel::storage::tzregister {

/// What kind of failure a RegisterException stands for.
enum errornumber_t : std::int32_t {
  ERR_CONVERSION = 1,         ///< a value could not be turned into or read from text
  ERR_WEBSERVICE = 6,         ///< a call of the authority failed or its answer lacks something
  ERR_FILE_WRITE = 14,        ///< an output could not be written
  ERR_INVALID_ARGUMENT = 16,  ///< an argument or a value read from a file is missing or malformed
  ERR_MISSING_AGENTID = 17,   ///< the agent id that routing tables need is absent
  ERR_REGISTRY = 18,          ///< the local registry, or a parameter it should be joined with
  ERR_CERTIFICATE = 705,      ///< key pair or certificate could not be made
};

/// How grave a failure is.
enum eventseveritylevel_t : std::int32_t {
  SEVERITY_ERROR = 5,       ///< the common case
  SEVERITY_CONVERSION = 6,  ///< conversion failures
  SEVERITY_CRITICAL = 7,    ///< credential, configuration-file and transport failures
};

/// The one exception type of the tool. Number, severity, source and date travel
/// with it for whoever catches it; the tool prints the description alone.
class RegisterException : public std::exception {
 public:
  /// `source` is the unit that raised it, `description` the message; many
  /// descriptions end in a line end, which is part of them.
  RegisterException(errornumber_t number, eventseveritylevel_t severity, const std::string& source,
                    const std::string& description);

  /// As above; a null text is taken as the empty one.
  RegisterException(errornumber_t number, eventseveritylevel_t severity, const char* source,
                    const char* description);

  ~RegisterException() override;

  /// The description's characters, valid as long as the exception.
  const char* what() const noexcept override;

  errornumber_t number() const { return number_; }
  eventseveritylevel_t severity() const { return severity_; }
  const std::string& source() const { return source_; }
  /// Seconds since the epoch at which the exception was constructed.
  std::time_t date() const { return date_; }

 private:
  errornumber_t number_;
  eventseveritylevel_t severity_;
  std::string description_;
  std::string source_;
  std::time_t date_;
};

/// One way in which a unit fails, as data: a row of that unit's table of
/// failures. The description is `text`, the value that the failure is about,
/// and `end`.
struct Failure {
  errornumber_t number;
  eventseveritylevel_t severity;
  const char* source;  ///< the unit that raises it
  const char* text;
  const char* end = "";

  /// Throws the RegisterException of this failure about `value`, which is empty
  /// where the description names none.
  [[noreturn]] void Throw(const std::string& value = "") const;
};

/// Raised by to_string; see there.
inline constexpr Failure kNotConvertedToText{
    ERR_CONVERSION, SEVERITY_CONVERSION, "Namespace:Engine", "Conversion to string failed for "};

/// `value` as text, written with `manipulator` (std::dec for decimal numbers).
/// Throws RegisterException (ERR_CONVERSION, severity 6) when it cannot be.
template <typename T>
std::string to_string(const T& value, std::ios_base& (*manipulator)(std::ios_base&)) {
  std::ostringstream text;
  if ((text << manipulator << value).fail()) {
    std::ostringstream plain;
    plain << value;
    kNotConvertedToText.Throw(plain.str());
  }
  return text.str();
}

/// The number that `text` holds in decimal, signed, 64 bits. Leading white
/// space is skipped; nothing may follow the digits.
/// Throws RegisterException (ERR_CONVERSION, severity 6) otherwise.
std::int64_t NumberFromText(const std::string& text);

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_REGISTER_EXCEPTION_H_
