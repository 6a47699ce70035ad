#ifndef SUPPORT_DIAGNOSTIC_H_
#define SUPPORT_DIAGNOSTIC_H_

#include <string>

namespace corvel::storage::support {

/// Writes `line` and a line end to standard error, in one piece and at once.
void PrintDiagnostic(const std::string& line);

}  // namespace corvel::storage::support

#endif  // SUPPORT_DIAGNOSTIC_H_
