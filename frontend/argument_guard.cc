#include "frontend/argument_guard.h"

#include <cstring>

#include "support/secret.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kPasswordOption[] = "--passwd";
constexpr char kPasswordAssignment[] = "--passwd=";
constexpr char kMask = '*';

void Mask(char* text) { std::memset(text, kMask, std::strlen(text)); }

/// Masks every value that the password option has in `argv`.
void MaskPasswords(int argc, char** argv) {
  constexpr std::size_t kAssignmentLength = sizeof(kPasswordAssignment) - 1;
  for (int index = 1; index < argc; ++index) {
    if (std::strncmp(argv[index], kPasswordAssignment, kAssignmentLength) == 0) {
      Mask(argv[index] + kAssignmentLength);
    } else if (std::strcmp(argv[index], kPasswordOption) == 0 && index + 1 < argc) {
      Mask(argv[++index]);
    }
  }
}

}  // namespace

ArgumentGuard::ArgumentGuard(int argc, char** argv) : texts_(argv, argv + argc) {
  for (std::string& text : texts_) pointers_.push_back(text.data());
  pointers_.push_back(nullptr);
  MaskPasswords(argc, argv);
}

ArgumentGuard::~ArgumentGuard() {
  for (std::string& text : texts_) support::WipeText(&text);
}

}  // namespace corvel::storage::tzregister
