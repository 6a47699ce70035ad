#include "support/environment.h"

#include <cstdlib>

namespace corvel::storage::support {

std::string EnvironmentText(const char* name, const std::string& fallback) {
  const char* value = secure_getenv(name);
  return value == nullptr || *value == '\0' ? fallback : value;
}

}  // namespace corvel::storage::support
