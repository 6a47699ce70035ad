#include "frontend/argument_guard.h"

#include <cstring>
#include <memory>
#include <utility>

#include "support/parsed_options.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kOptionName[] = "passwd";
constexpr char kPasswordOption[] = "--passwd";
constexpr char kPasswordAssignment[] = "--passwd=";
constexpr std::size_t kAssignmentLength = sizeof(kPasswordAssignment) - 1;
constexpr char kMask = '*';

/// True for a value that a stand-in can take the place of: the option library
/// refuses some that are empty or begin with a dash.
bool CanStandIn(const char* value) { return *value != '\0' && *value != '-'; }

}  // namespace

ArgumentGuard::ArgumentGuard(int argc, char** argv) {
  for (int index = 0; index < argc; ++index) {
    char* const text = argv[index];
    const bool isOption = index > 0 && std::strcmp(text, kPasswordOption) == 0;
    if (index > 0 && std::strncmp(text, kPasswordAssignment, kAssignmentLength) == 0) {
      texts_.push_back(kPasswordAssignment + TakePassword(text + kAssignmentLength));
    } else {
      texts_.push_back(text);
    }
    if (isOption && index + 1 < argc) texts_.push_back(TakePassword(argv[++index]));
  }
  for (std::string& text : texts_) pointers_.push_back(text.data());
  pointers_.push_back(nullptr);
}

std::string ArgumentGuard::TakePassword(char* value) {
  std::string inCopy;
  if (CanStandIn(value)) {
    inCopy = std::to_string(passwords_.size());
    passwords_.emplace_back(value);
  } else {
    inCopy = value;
  }
  std::memset(value, kMask, std::strlen(value));
  return inCopy;
}

void ArgumentGuard::RestorePassword(boost::program_options::variables_map* options) {
  const auto found = options->find(kOptionName);
  if (found == options->end()) return;
  const std::string& standIn = found->second.as<support::SharedSecret>()->text();
  if (!CanStandIn(standIn.c_str())) return;
  support::Secret& password = passwords_.at(std::stoul(standIn));
  found->second.value() =
      support::SharedSecret(std::make_shared<const support::Secret>(std::move(password)));
}

}  // namespace corvel::storage::tzregister
