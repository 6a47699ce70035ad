#ifndef TESTS_WEBSERVICE_ANSWER_MODEL_H_
#define TESTS_WEBSERVICE_ANSWER_MODEL_H_

#include <cstdint>
#include <limits>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

// A second reading of the authority's answers, for the parser to be held against.

namespace corvel::storage::testing {

// What an answer holds, in plain values.

struct Cell {
  std::string raw;
  std::string plain;
  int type = 0;
  bool operator==(const Cell& other) const {
    return raw == other.raw && plain == other.plain && type == other.type;
  }
};

struct Row {
  std::map<std::string, Cell> cells;
  int fieldCount = 0;
  bool operator==(const Row& other) const {
    return cells == other.cells && fieldCount == other.fieldCount;
  }
};

struct Answer {
  int result = -1;
  std::int32_t declaredCount = 0;
  std::vector<std::pair<std::string, char>> columns;
  std::vector<Row> rows;
  /// Number and texts of the error block; a text it lacks is absent.
  std::map<std::string, std::string> error;

  bool operator==(const Answer& other) const {
    return result == other.result && declaredCount == other.declaredCount &&
           columns == other.columns && rows == other.rows && error == other.error;
  }
};

struct Line {
  std::size_t offset = 0;  ///< of its first byte in the text
  std::string text;
  bool ended = false;  ///< a line break follows
};

inline bool BeginsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

inline std::vector<Line> SplitLines(const std::string& text) {
  std::vector<Line> lines(1);
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\n' || text[at] == '\r') {
      lines.back().ended = true;
      lines.push_back({at + 1, "", false});
    } else {
      lines.back().text += text[at];
    }
  }
  return lines;
}

inline std::vector<std::string> SplitBars(const std::string& text) {
  std::vector<std::string> tokens(1);
  for (const char byte : text) {
    if (byte == '|') {
      tokens.emplace_back();
    } else {
      tokens.back() += byte;
    }
  }
  return tokens;
}

/// The value of `digits`, held at the ends of 64 bits, in its low 32 bits.
inline std::int32_t LowHalf(const std::string& digits, bool negative) {
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  const std::uint64_t limit = negative ? kMax + 1 : kMax;
  std::uint64_t value = 0;
  for (const char digit : digits) {
    const auto next = static_cast<std::uint64_t>(digit - '0');
    value = value > (limit - next) / 10 ? limit : value * 10 + next;
  }
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(negative ? 0 - value : value));
}

inline std::string LeadingDigits(const std::string& text) {
  return text.substr(0, text.find_first_not_of("0123456789"));
}

inline std::int32_t NumberBehindBlanks(const std::string& text) {
  const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
  if (start == std::string::npos) return 0;
  const bool isSigned = text[start] == '-' || text[start] == '+';
  return LowHalf(LeadingDigits(text.substr(start + (isSigned ? 1 : 0))), text[start] == '-');
}

inline int HexDigit(char digit) {
  static const std::string kDigits = "0123456789abcdef0123456789ABCDEF";
  const std::size_t at = kDigits.find(digit);
  return at == std::string::npos ? -1 : static_cast<int>(at % 16);
}

/// `text` without its escapes, up to a zero byte that one of them stands for.
inline std::string Unescaped(const std::string& text) {
  static const std::map<char, char> kPlain = {{'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'\\', '\\'}};
  std::string plain;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::string escape = text[at] == '\\' ? text.substr(at + 1, 3) : "";
    if (!escape.empty() && kPlain.count(escape[0]) > 0) {
      plain += kPlain.at(escape[0]);
      at += 1;
    } else if (escape.size() == 3 && escape[0] == 'x' && HexDigit(escape[1]) >= 0 &&
               HexDigit(escape[2]) >= 0) {
      plain += static_cast<char>(HexDigit(escape[1]) * 16 + HexDigit(escape[2]));
      at += 3;
    } else {
      plain += text[at];
    }
  }
  return plain.substr(0, plain.find('\0'));
}

inline Row ModelRow(const std::string& line,
                    const std::vector<std::pair<std::string, char>>& columns) {
  Row row;
  const std::vector<std::string> values = SplitBars(line);
  for (std::size_t at = 0; at < columns.size() && at < values.size(); ++at) {
    const auto& [name, type] = columns[at];
    if (type != 'I' && type != 'S' && type != 'C') continue;
    ++row.fieldCount;
    if (row.cells.count(name) > 0) continue;
    row.cells[name] = {values[at], Unescaped(values[at]), type == 'I' ? 1 : 2};
  }
  return row;
}

inline Answer ModelTable(const std::vector<Line>& lines) {
  constexpr std::size_t kHeadLines = 4;  // marker, count, names, types
  Answer answer;
  if (lines.size() > 1) answer.declaredCount = LowHalf(LeadingDigits(lines[1].text), false);
  if (lines.size() <= kHeadLines) return answer;
  answer.result = 0;
  const std::vector<std::string> names = SplitBars(lines[2].text);
  const std::vector<std::string> types = SplitBars(lines[3].text);
  for (std::size_t at = 0; at < names.size() && at < types.size(); ++at) {
    answer.columns.emplace_back(names[at], types[at].empty() ? '\0' : types[at][0]);
  }
  for (std::size_t at = kHeadLines; at < lines.size() && lines[at].ended; ++at) {
    if (BeginsWith(lines[at].text, "***DONE***")) break;
    answer.rows.push_back(ModelRow(lines[at].text, answer.columns));
  }
  return answer;
}

inline std::string ModelDescription(std::string rest) {
  rest = rest.substr(0, rest.find("***DONE***"));
  const std::string key = "description:?";
  return rest.size() < key.size() ? "" : rest.substr(key.size());
}

inline Answer ModelError(const std::string& text, const std::vector<Line>& lines) {
  constexpr std::size_t kFirstHeader = 2;
  constexpr std::size_t kEndOfHeaders = 12;
  Answer answer;
  if (lines.size() <= kFirstHeader) return answer;
  answer.result = 0;
  answer.error["number"] = std::to_string(NumberBehindBlanks(text.substr(lines[1].offset)));
  for (std::size_t at = kFirstHeader; at < kEndOfHeaders && lines[at].ended; ++at) {
    bool known = false;
    for (const std::string key : {"severity", "server", "source"}) {
      if (!BeginsWith(lines[at].text, key + ": ")) continue;
      answer.error[key] = lines[at].text.substr(key.size() + 2);
      known = true;
    }
    if (known) continue;
    if (BeginsWith(lines[at].text, "description:")) {
      answer.error["description"] = ModelDescription(text.substr(lines[at].offset));
    }
    break;
  }
  return answer;
}

inline Answer ModelAnswer(const std::string& bytes) {
  const std::string received = bytes.substr(0, bytes.find('\0'));
  const std::size_t marker = received.find("***");
  if (marker == std::string::npos) return {};
  const std::string text = received.substr(marker);
  const std::vector<Line> lines = SplitLines(text);
  if (BeginsWith(text, "***BEGIN***") || BeginsWith(text, "***START***")) return ModelTable(lines);
  if (BeginsWith(text, "***ERROR***")) return ModelError(text, lines);
  return {};
}

inline void PrintTo(const Answer& answer, std::ostream* out) {
  *out << "result " << answer.result << ", declared " << answer.declaredCount << ", columns";
  for (const auto& [name, type] : answer.columns) *out << " [" << name << ":" << type << "]";
  for (const Row& row : answer.rows) {
    *out << "\nrow of " << row.fieldCount;
    for (const auto& [name, cell] : row.cells) *out << " [" << name << "=" << cell.raw << "]";
  }
  for (const auto& [key, text] : answer.error) *out << "\nerror " << key << " [" << text << "]";
}

}  // namespace corvel::storage::testing

#endif  // TESTS_WEBSERVICE_ANSWER_MODEL_H_
