#ifndef CONFIG_CONFIG_H_
#define CONFIG_CONFIG_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace corvel::storage::tzconfig {

// Result codes of the configuration classes.
inline constexpr std::int32_t kSuccess = 0;
inline constexpr std::int32_t kBadArgument = -1;         ///< empty name or missing pointer
inline constexpr std::int32_t kInvalidLine = -2;         ///< a line that is not of the format
inline constexpr std::int32_t kStreamFailure = -4;       ///< a stream that is not good
inline constexpr std::int32_t kSectionUnavailable = -5;  ///< a section's options cannot be had
inline constexpr std::int32_t kOptionMissing = -7;       ///< no such option in the section

/// Orders names without regard to letter case.
struct StringCaseCmp {
  bool operator()(const std::string& a, const std::string& b) const;
};

/// One option's value, and the comment block that stands above it (empty when
/// there is none).
struct OptionValue {
  std::string value;
  std::string comment;
};

/// One section: the comment block above its header and its options, which are
/// always walked in case-insensitive alphabetical order.
struct SectionOptionMap {
  std::string comment;
  std::map<std::string, OptionValue, StringCaseCmp> options;
};

/// A configuration file in memory: named sections of named options. Names that
/// differ in letter case alone are the same name and keep the spelling of their
/// first use. Asking for anything in a section creates the section. For use by
/// one thread; throws nothing but std::bad_alloc.
class TZConfig {
 public:
  TZConfig() = default;
  TZConfig(const TZConfig&) = delete;
  TZConfig& operator=(const TZConfig&) = delete;

  /// The section called `section`, which may be empty; created when missing.
  /// Never null. Borrowed: valid until Reset or destruction.
  SectionOptionMap* GetOptionMap(const std::string& section);

  /// Sets an option's value and keeps its comment; creates section and option
  /// when missing. kSuccess, kBadArgument for an empty name (nothing is created
  /// then) or kSectionUnavailable.
  std::int32_t SetOptionValue(const std::string& section, std::string option, std::string value);

  /// As above, but sets the comment as well.
  std::int32_t SetOptionValue(const std::string& section, std::string option, std::string value,
                              std::string comment);

  /// Copies an option's value and comment out. kSuccess, kBadArgument for an
  /// empty name or a null output, kSectionUnavailable or kOptionMissing; the
  /// outputs are untouched unless it succeeds. Creates the section when missing.
  std::int32_t GetOptionValue(const std::string& section, const std::string& option,
                              std::string* value, std::string* comment);

  /// Removes everything.
  void Reset();

  /// Section names as first spelled, in the order of their creation. Borrowed:
  /// valid until Reset or destruction.
  const std::vector<std::string_view>& SectionOrder() const { return sectionOrder_; }

 private:
  /// The option's entry, created when missing; null, with the code in `*result`,
  /// when it cannot be had.
  OptionValue* OptionEntry(const std::string& section, std::string option, std::int32_t* result);

  using Sections = std::map<std::string, std::unique_ptr<SectionOptionMap>, StringCaseCmp>;

  Sections sections_;
  /// The section of the last call: the next one mostly asks for the same.
  Sections::iterator last_ = sections_.end();
  std::vector<std::string_view> sectionOrder_;  ///< the keys of sections_
};

}  // namespace corvel::storage::tzconfig

#endif  // CONFIG_CONFIG_H_
