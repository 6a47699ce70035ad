#include "support/diagnostic.h"

#include <iostream>

namespace corvel::storage::support {

void PrintDiagnostic(const std::string& line) { std::cerr << line + '\n' << std::flush; }

}  // namespace corvel::storage::support
