#ifndef FRONTEND_REFUSAL_H_
#define FRONTEND_REFUSAL_H_

#include <iostream>

namespace corvel::storage::tzregister {

/// Writes `message` as a line to standard error and returns -1, the result of a
/// run whose command line lacks something.
inline int Refuse(const char* message) {
  std::cerr << message << std::endl;
  return -1;
}

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_REFUSAL_H_
