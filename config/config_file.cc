#include "config/config_file.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <new>
#include <string_view>
#include <utility>

#include "support/diagnostic.h"

namespace corvel::storage::tzconfig {
namespace {

constexpr std::string_view kLeadingBlanks = " \t\r";
constexpr std::string_view kLineBlanks = " \n\r\t";
constexpr std::string_view kTrimmedBlanks = " \t";

bool Holds(std::string_view set, char character) {
  return set.find(character) != std::string_view::npos;
}

bool MarksComment(char first) { return first == '#' || first == ';'; }

/// `line` without blanks at its start; a line made of blanks becomes empty. A
/// line that begins with anything else is returned as it is.
std::string_view WithoutLeadingBlanks(std::string_view line) {
  if (line.empty() || !Holds(kLeadingBlanks, line.front())) return line;
  line.remove_prefix(std::min(line.find_first_not_of(kLineBlanks), line.size()));
  return line;
}

/// `text` without spaces and tabs at its ends; a text made of nothing else is
/// returned unchanged.
std::string_view Trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kTrimmedBlanks);
  if (first == std::string_view::npos) return text;
  return text.substr(first, text.find_last_not_of(kTrimmedBlanks) - first + 1);
}

/// Takes the lines of one file, one by one, into a store.
class LineReader {
 public:
  explicit LineReader(TZConfig* config) : config_(config) {}

  std::int32_t Take(std::string_view wholeLine) {
    const std::string_view line = WithoutLeadingBlanks(wholeLine);
    if (line.empty()) return kSuccess;
    if (MarksComment(line.front())) {
      pendingComment_.append("\n").append(line);
      return kSuccess;
    }
    return line.front() == '[' ? TakeHeader(line) : TakeOption(line);
  }

 private:
  std::int32_t TakeHeader(std::string_view line) {
    const std::size_t end = line.find(']');
    if (end == std::string_view::npos || end == 1) return kInvalidLine;
    if (line.find_first_not_of(kLineBlanks, end + 1) != std::string_view::npos) {
      return Invalid("Found invalid line: ", line);
    }
    section_ = line.substr(1, end - 1);
    SectionOptionMap* const map = config_->GetOptionMap(section_);
    if (map == nullptr) return kSectionUnavailable;
    map->comment = std::exchange(pendingComment_, {});
    return kSuccess;
  }

  std::int32_t TakeOption(std::string_view line) {
    if (section_.empty()) return Invalid("Found an invalid line: ", line);
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) return kInvalidLine;
    if (equals == 0) return Invalid("Found an invalid key: ", line);
    std::string key(Trimmed(line.substr(0, equals)));
    std::string value(Trimmed(line.substr(equals + 1)));
    if (pendingComment_.empty()) {
      return config_->SetOptionValue(section_, std::move(key), std::move(value));
    }
    return config_->SetOptionValue(section_, std::move(key), std::move(value),
                                   std::exchange(pendingComment_, {}));
  }

  /// Shows the line and returns the code for it.
  static std::int32_t Invalid(const char* reason, std::string_view line) {
    support::PrintDiagnostic(std::string(reason).append(line));
    return kInvalidLine;
  }

  TZConfig* config_;
  std::string section_;  ///< empty until the first header
  std::string pendingComment_;
};

/// Writes a comment block, marked as one if its first line is not.
void DumpComment(const std::string& comment, std::ostream* stream) {
  if (comment.empty()) return;
  const std::size_t first = comment.find_first_not_of(kLineBlanks);
  if (first != std::string::npos && !MarksComment(comment[first])) *stream << '#';
  *stream << comment << '\n';
}

/// Writes the options of `map`, which is the section called `section`.
void DumpOptions(const std::string& section, const SectionOptionMap& map, TZConfig* config,
                 std::ostream* stream) {
  OptionValue option;
  for (const auto& entry : map.options) {
    if (config->GetOptionValue(section, entry.first, &option.value, &option.comment) != kSuccess) {
      support::PrintDiagnostic("Failed to get value for option: " + entry.first);
      return;
    }
    DumpComment(option.comment, stream);
    *stream << entry.first << '=' << option.value << '\n';
  }
}

std::int32_t DumpSection(const std::string& section, TZConfig* config, std::ostream* stream) {
  SectionOptionMap* const map = section.empty() ? nullptr : config->GetOptionMap(section);
  if (map == nullptr) {
    support::PrintDiagnostic("Failed to get option list for section: ");
    return section.empty() ? kBadArgument : kSectionUnavailable;
  }
  DumpComment(map->comment, stream);
  *stream << '[' << section << "]\n";
  DumpOptions(section, *map, config, stream);
  return kSuccess;
}

}  // namespace

TZConfigFile::TZConfigFile(std::string inputName, std::string outputName)
    : inputName_(std::move(inputName)), outputName_(std::move(outputName)) {}

std::int32_t TZConfigFile::LoadConfig(TZConfig* config) const {
  if (inputName_.empty()) return kBadArgument;
  // A shortage of memory would pass for a file that is missing or cannot be read.
  errno = 0;
  std::ifstream stream(inputName_);
  if (!stream.is_open() && errno == ENOMEM) throw std::bad_alloc();
  stream.exceptions(std::ios::badbit);
  try {
    return LoadConfig(&stream, config);
  } catch (const std::ios_base::failure&) {
    return kStreamFailure;
  }
}

std::int32_t TZConfigFile::LoadConfig(std::istream* stream, TZConfig* config) const {
  if (stream == nullptr || config == nullptr) return kBadArgument;
  config->Reset();
  if (!stream->good()) {
    support::PrintDiagnostic("Failed to open input file:" + inputName_);
    return kStreamFailure;
  }
  LineReader reader(config);
  std::string line;
  while (std::getline(*stream, line)) {
    const std::int32_t result = reader.Take(line);
    if (result != kSuccess) return result;
  }
  return stream->eof() ? kSuccess : kStreamFailure;
}

std::int32_t TZConfigFile::DumpConfig(std::ostream* stream, TZConfig* config) const {
  if (stream == nullptr || config == nullptr) return kBadArgument;
  if (!stream->good()) {
    support::PrintDiagnostic("Failed to open file: " + outputName_);
    return kStreamFailure;
  }
  // Dumping adds no section: each one that is asked for is there.
  for (const std::string_view section : config->SectionOrder()) {
    const std::int32_t result = DumpSection(std::string(section), config, stream);
    if (result != kSuccess) return result;
  }
  return kSuccess;
}

}  // namespace corvel::storage::tzconfig
