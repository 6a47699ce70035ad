#include "config/config_file.h"

#include <fstream>
#include <iostream>
#include <utility>

#include "support/secret.h"

namespace corvel::storage::tzconfig {
namespace {

constexpr char kLeadingBlanks[] = " \t\r";
constexpr char kLineBlanks[] = " \n\r\t";
constexpr char kTrimmedBlanks[] = " \t";

bool Holds(const char* set, char character) {
  return std::string(set).find(character) != std::string::npos;
}

bool MarksComment(char first) { return first == '#' || first == ';'; }

/// Cuts blanks off the line's start; a line made of blanks becomes empty. A
/// line that begins with anything else is kept as it is.
void CutLeadingBlanks(std::string* line) {
  if (line->empty() || !Holds(kLeadingBlanks, line->front())) return;
  line->erase(0, line->find_first_not_of(kLineBlanks));
}

/// `text` without spaces and tabs at its ends; a text made of nothing else is
/// returned unchanged.
std::string Trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(kTrimmedBlanks);
  if (first == std::string::npos) return text;
  return text.substr(first, text.find_last_not_of(kTrimmedBlanks) - first + 1);
}

/// Takes the lines of one file, one by one, into a store.
class LineReader {
 public:
  explicit LineReader(TZConfig* config) : config_(config) {}

  std::int32_t Take(std::string* line) {
    CutLeadingBlanks(line);
    if (line->empty()) return kSuccess;
    if (MarksComment(line->front())) {
      pendingComment_.append("\n").append(*line);
      return kSuccess;
    }
    return line->front() == '[' ? TakeHeader(*line) : TakeOption(*line);
  }

 private:
  std::int32_t TakeHeader(const std::string& line) {
    const std::size_t end = line.find(']');
    if (end == std::string::npos || end == 1) return kInvalidLine;
    if (line.find_first_not_of(kLineBlanks, end + 1) != std::string::npos) {
      std::cerr << "Found invalid line: " << line << std::endl;
      return kInvalidLine;
    }
    section_ = line.substr(1, end - 1);
    SectionOptionMap* const map = config_->GetOptionMap(section_);
    if (map == nullptr) return kSectionUnavailable;
    map->comment = std::exchange(pendingComment_, {});
    return kSuccess;
  }

  std::int32_t TakeOption(const std::string& line) {
    if (section_.empty()) {
      std::cerr << "Found an invalid line: " << line << std::endl;
      return kInvalidLine;
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) return kInvalidLine;
    if (equals == 0) {
      std::cerr << "Found an invalid key: " << line << std::endl;
      return kInvalidLine;
    }
    std::string value = line.substr(equals + 1);
    const support::ScopedWipe wipeValue(&value);
    return StoreOption(Trimmed(line.substr(0, equals)), Trimmed(value));
  }

  std::int32_t StoreOption(const std::string& key, std::string value) {
    const support::ScopedWipe wipeValue(&value);
    if (pendingComment_.empty()) return config_->SetOptionValue(section_, key, value);
    const std::string comment = std::exchange(pendingComment_, {});
    return config_->SetOptionValue(section_, key, value, comment);
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
  for (const auto& entry : map.options) {
    OptionValue option;
    if (config->GetOptionValue(section, entry.first, &option.value, &option.comment) != kSuccess) {
      std::cerr << "Failed to get value for option: " << entry.first << std::endl;
      return;
    }
    DumpComment(option.comment, stream);
    *stream << entry.first << '=' << option.value << '\n';
  }
}

std::int32_t DumpSection(const std::string& section, TZConfig* config, std::ostream* stream) {
  SectionOptionMap* const map = section.empty() ? nullptr : config->GetOptionMap(section);
  if (map == nullptr) {
    std::cerr << "Failed to get option list for section: " << std::endl;
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
  std::ifstream stream(inputName_);
  return LoadConfig(&stream, config);
}

std::int32_t TZConfigFile::LoadConfig(std::istream* stream, TZConfig* config) const {
  if (stream == nullptr || config == nullptr) return kBadArgument;
  config->Reset();
  if (!stream->good()) {
    std::cerr << "Failed to open input file:" << inputName_ << std::endl;
    return kStreamFailure;
  }
  LineReader reader(config);
  std::string line;
  const support::ScopedWipe wipeLine(&line);
  while (std::getline(*stream, line)) {
    const std::int32_t result = reader.Take(&line);
    // A longer line would leave this one behind in the memory it outgrows.
    support::WipeText(&line);
    if (result != kSuccess) return result;
  }
  return stream->eof() ? kSuccess : kStreamFailure;
}

std::int32_t TZConfigFile::DumpConfig(std::ostream* stream, TZConfig* config) const {
  if (stream == nullptr || config == nullptr) return kBadArgument;
  if (!stream->good()) {
    std::cerr << "Failed to open file: " << outputName_ << std::endl;
    return kStreamFailure;
  }
  const std::vector<std::string> order = config->SectionOrder();
  for (const std::string& section : order) {
    const std::int32_t result = DumpSection(section, config, stream);
    if (result != kSuccess) return result;
  }
  return kSuccess;
}

}  // namespace corvel::storage::tzconfig
