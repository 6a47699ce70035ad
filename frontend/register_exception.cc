#include "frontend/register_exception.h"

namespace corvel::storage::tzregister {
namespace {

constexpr Failure kNotConvertedFromText{ERR_CONVERSION, SEVERITY_CONVERSION, "Namespace:Engine",
                                        "Conversion from string failed for string "};

std::string TextOrEmpty(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

RegisterException::RegisterException(errornumber_t number, eventseveritylevel_t severity,
                                     const std::string& source, const std::string& description)
    : number_(number),
      severity_(severity),
      description_(description),
      source_(source),
      date_(std::time(nullptr)) {}

RegisterException::RegisterException(errornumber_t number, eventseveritylevel_t severity,
                                     const char* source, const char* description)
    : RegisterException(number, severity, TextOrEmpty(source), TextOrEmpty(description)) {}

RegisterException::~RegisterException() = default;

const char* RegisterException::what() const noexcept { return description_.c_str(); }

void Failure::Throw(const std::string& value) const {
  throw RegisterException(number, severity, source, text + value + end);
}

std::int64_t NumberFromText(const std::string& text) {
  std::istringstream stream(text);
  std::int64_t number = 0;
  stream >> std::dec >> number;
  if (stream.fail() || stream.peek() != std::istringstream::traits_type::eof()) {
    kNotConvertedFromText.Throw(text);
  }
  return number;
}

}  // namespace corvel::storage::tzregister
