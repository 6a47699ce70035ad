#include "frontend/string_check.h"

#include <algorithm>
#include <iterator>

#include "frontend/register_exception.h"

namespace corvel::storage::tzregister {
namespace {

/// In the order in which the refusal lists them.
constexpr const char* kValidTypes[] = {
    "Agent",      "ContentRouter", "StoragePoolAuthority", "MetabaseEngine", "MetabaseServer",
    "Controller", "qxwfe",         "storagepool",
};

constexpr Failure kNoSuchType{ERR_INVALID_ARGUMENT, SEVERITY_ERROR, "StringCheck", "Type \"",
                              "\".\n"};
constexpr Failure kNotANumber{ERR_INVALID_ARGUMENT, SEVERITY_ERROR, "StringCheck",
                              "String is not a number: "};
constexpr Failure kEmptyParameter{ERR_INVALID_ARGUMENT, SEVERITY_ERROR, "StringCheck", "Parameter ",
                                  " is empty. Please provide valid input"};

}  // namespace

void RegisterStringCheck::ValidateType(const std::string& type) {
  if (std::find(std::begin(kValidTypes), std::end(kValidTypes), type) != std::end(kValidTypes)) {
    return;
  }
  std::string refusal = type + "\" is not a valid type. Must be one of \"";
  for (const char* valid : kValidTypes) refusal.append(valid).append(" ");
  kNoSuchType.Throw(refusal);
}

void RegisterStringCheck::ValidateNumeric(const std::string& text) {
  if (text.find_first_not_of("0123456789") == std::string::npos) return;
  kNotANumber.Throw(text);
}

void RegisterStringCheck::ValidateNotEmpty(const std::string& name, const std::string& value) {
  if (!value.empty()) return;
  kEmptyParameter.Throw(name);
}

}  // namespace corvel::storage::tzregister
