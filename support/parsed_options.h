#ifndef SUPPORT_PARSED_OPTIONS_H_
#define SUPPORT_PARSED_OPTIONS_H_

#include <boost/program_options/variables_map.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "support/secret.h"

namespace corvel::storage::support {

/// The value of a secret option as the option library keeps it: one secret,
/// however often the parsed command line is copied.
using SharedSecret = std::shared_ptr<const Secret>;

/// A copy of the parsed command line, for code that reads options by name.
/// Reading an option that is absent, or as another kind of value than it has,
/// throws boost::bad_any_cast.
class ParsedOptions {
 public:
  explicit ParsedOptions(const boost::program_options::variables_map& options);

  /// True when option `name` was given.
  bool Has(const char* name) const;

  /// The text of option `name`, valid as long as this object.
  const std::string& Text(const char* name) const;

  /// The text of option `name` when it was given, else `fallback`.
  std::string TextOr(const char* name, const std::string& fallback) const;

  /// The number that option `name` holds.
  std::uint64_t Number(const char* name) const;

  /// The secret that option `name` holds, valid as long as this object.
  const Secret& SecretText(const char* name) const;

 private:
  boost::program_options::variables_map options_;
};

}  // namespace corvel::storage::support

#endif  // SUPPORT_PARSED_OPTIONS_H_
