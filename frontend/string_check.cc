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

[[noreturn]] void Refuse(const std::string& description) {
  throw RegisterException(ERR_INVALID_ARGUMENT, SEVERITY_ERROR, "StringCheck", description);
}

}  // namespace

void RegisterStringCheck::ValidateType(const std::string& type) {
  if (std::find(std::begin(kValidTypes), std::end(kValidTypes), type) != std::end(kValidTypes)) {
    return;
  }
  std::string description = "Type \"" + type + "\" is not a valid type. Must be one of \"";
  for (const char* valid : kValidTypes) description.append(valid).append(" ");
  Refuse(description + "\".\n");
}

void RegisterStringCheck::ValidateNumeric(const std::string& text) {
  if (text.find_first_not_of("0123456789") == std::string::npos) return;
  Refuse("String is not a number: " + text);
}

void RegisterStringCheck::ValidateNotEmpty(const std::string& name, const std::string& value) {
  if (!value.empty()) return;
  Refuse("Parameter " + name + " is empty. Please provide valid input");
}

}  // namespace corvel::storage::tzregister
