#ifndef FRONTEND_PARSED_OPTIONS_H_
#define FRONTEND_PARSED_OPTIONS_H_

#include <boost/program_options/variables_map.hpp>
#include <cstdint>
#include <string>

namespace corvel::storage::tzregister {

/// A copy of the parsed command line, for the classes whose operations read
/// options by name. Reading an option that is absent, or as another kind of
/// value than it has, throws boost::bad_any_cast. The password is wiped when
/// the copy goes.
class ParsedOptions {
 public:
  explicit ParsedOptions(const boost::program_options::variables_map& options);
  ~ParsedOptions();
  ParsedOptions(const ParsedOptions&) = delete;
  ParsedOptions& operator=(const ParsedOptions&) = delete;

  /// True when option `name` was given.
  bool Has(const std::string& name) const;

  /// The text of option `name`.
  const std::string& Text(const std::string& name) const;

  /// The text of option `name` when it was given, else `fallback`.
  std::string TextOr(const std::string& name, const std::string& fallback) const;

  /// The number that option `name` holds.
  std::uint64_t Number(const std::string& name) const;

  /// The options themselves, valid as long as this object.
  const boost::program_options::variables_map& map() const { return options_; }

 private:
  boost::program_options::variables_map options_;
};

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_PARSED_OPTIONS_H_
