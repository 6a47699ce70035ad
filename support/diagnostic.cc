#include "support/diagnostic.h"

#include <iostream>

namespace corvel::storage::support {

void PrintDiagnostic(const std::string& line) {
  std::string text;
  text.reserve(line.size() + 1);  // a line may be as long as an answer: there is no room to grow
  text.append(line).push_back('\n');
  std::cerr << text << std::flush;
}

}  // namespace corvel::storage::support
