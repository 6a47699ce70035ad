#include "frontend/argument_guard.h"

#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "support/parsed_options.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kOptionName[] = "passwd";
constexpr char kPasswordOption[] = "--passwd";
constexpr char kPasswordAssignment[] = "--passwd=";
constexpr std::size_t kAssignmentLength = sizeof(kPasswordAssignment) - 1;
constexpr char kMask = '*';

bool IsAssignment(const char* text) {
  return std::strncmp(text, kPasswordAssignment, kAssignmentLength) == 0;
}

/// Length of all the assignments that `text` begins with. One of them may be the
/// option and another the password's own beginning: only the option library knows
/// which.
std::size_t AssignmentsLength(const char* text) {
  std::size_t length = 0;
  while (IsAssignment(text + length)) length += kAssignmentLength;
  return length;
}

/// True for a value that a stand-in can take the place of: the option library
/// refuses some that are empty or begin with a dash.
bool CanStandIn(const char* value) { return *value != '\0' && *value != '-'; }

}  // namespace

ArgumentGuard::ArgumentGuard(int argc, char** argv) {
  bool isValue = false;
  for (int index = 0; index < argc; ++index) {
    char* const text = argv[index];
    const bool isOption = index > 0 && std::strcmp(text, kPasswordOption) == 0;
    if (isValue) {
      texts_.push_back(TakePassword(text));
    } else if (index > 0 && IsAssignment(text)) {
      texts_.push_back(kPasswordAssignment + TakePassword(text + kAssignmentLength));
    } else {
      texts_.push_back(text);
    }
    // Also where it was a value itself: the option before may have been another's.
    isValue = isOption;
  }
  for (std::string& text : texts_) pointers_.push_back(text.data());
  pointers_.push_back(nullptr);
}

std::string ArgumentGuard::TakePassword(char* value) {
  const std::size_t prefix = AssignmentsLength(value);
  const char* const password = value + prefix;
  std::string inCopy(value, prefix);
  if (CanStandIn(password)) {
    inCopy += std::to_string(passwords_.size());
    passwords_.emplace_back(password);
  } else {
    inCopy += password;
  }
  std::memset(value, kMask, std::strlen(value));
  return inCopy;
}

void ArgumentGuard::RestorePassword(boost::program_options::variables_map* options) {
  const auto found = options->find(kOptionName);
  if (found == options->end()) return;
  const std::string& inCopy = found->second.as<support::SharedSecret>()->text();
  const std::size_t prefix = AssignmentsLength(inCopy.c_str());
  if (!CanStandIn(inCopy.c_str() + prefix)) return;
  support::Secret& taken = passwords_.at(std::stoul(inCopy.substr(prefix)));
  auto password = std::make_shared<support::Secret>(std::string_view(inCopy).substr(0, prefix));
  password->Append(taken.text());
  taken = support::Secret();
  found->second.value() = support::SharedSecret(std::move(password));
}

}  // namespace corvel::storage::tzregister
