#include "webservice/answer_parser.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace corvel::storage::tzregister {
namespace {

constexpr char kMarker[] = "***";
constexpr char kBegin[] = "***BEGIN***";
constexpr char kStart[] = "***START***";
constexpr char kError[] = "***ERROR***";
constexpr char kDone[] = "***DONE***";
constexpr char kDescriptionKey[] = "description:";
constexpr std::size_t kMarkerLength = sizeof(kBegin) - 1;
constexpr std::size_t kDescriptionOffset = sizeof(kDescriptionKey);  // key and one blank
constexpr int kMaxHeaderLines = 10;
constexpr std::size_t kCountBytes = 24;

template <std::size_t Size>
bool StartsWith(const char* text, const char (&prefix)[Size]) {
  return std::strncmp(text, prefix, Size - 1) == 0;
}

/// The next CR or LF at or behind `text`; null when there is none.
char* FindLineBreak(char* text) { return std::strpbrk(text, "\r\n"); }

/// Ends the line that begins at `*text` and moves `*text` behind it. Returns
/// the line, or null when no line break follows.
char* CutLine(char** text) {
  char* const line = *text;
  char* const end = FindLineBreak(line);
  if (end == nullptr) return nullptr;
  *end = '\0';
  *text = end + 1;
  return line;
}

/// Ends the token that begins at `*list` and moves `*list` behind its bar, or to
/// null when it was the last one. Returns the token.
char* CutToken(char** list) {
  char* const token = *list;
  char* const bar = std::strchr(token, '|');
  if (bar != nullptr) *bar = '\0';
  *list = bar == nullptr ? nullptr : bar + 1;
  return token;
}

std::int32_t NumberAt(const char* text) {
  return static_cast<std::int32_t>(std::strtol(text, nullptr, 10));
}

/// The number that the decimal digits at the very start of `text` form.
std::int32_t LeadingCount(const char* text) {
  char digits[kCountBytes] = {};
  std::size_t length = 0;
  while (length + 1 < sizeof(digits) && std::isdigit(static_cast<unsigned char>(text[length]))) {
    digits[length] = text[length];
    ++length;
  }
  return NumberAt(digits);
}

/// What a table may still take of the memory that is granted to it. An answer of
/// bars alone would take a hundred times its own size; no real one comes near.
class Budget {
 public:
  explicit Budget(std::size_t textLength) : left_(textLength + kAllowanceBytes) {}

  /// Reckons with `bytes` more; false when they are not to be had.
  bool Take(std::size_t bytes) {
    if (bytes > left_) return false;
    left_ -= bytes;
    return true;
  }

 private:
  static constexpr std::size_t kAllowanceBytes = 160u << 20;

  std::size_t left_;
};

// What the heap takes for an entry of each kind, without its texts.
constexpr std::size_t kDefinitionBytes = 80;
constexpr std::size_t kRecordBytes = 96;
constexpr std::size_t kFieldBytes = 160;

/// Returns 0, or -1 when there are too many columns.
int ReadDefinitions(char* names, char* types, Budget* budget, RecordSet* records) {
  while (names != nullptr && types != nullptr) {
    auto definition = std::make_unique<FieldDefinition>();
    const char* const name = CutToken(&names);
    if (!budget->Take(kDefinitionBytes + std::strlen(name))) return -1;
    definition->name = CopyText(name);
    definition->type = *CutToken(&types);
    records->definitions.push_back(std::move(definition));
  }
  return 0;
}

/// Bytes of all column names together.
std::size_t NamesLength(const RecordSet& records) {
  std::size_t length = 0;
  for (const auto& definition : records.definitions) length += std::strlen(definition->name.get());
  return length;
}

/// Returns 0, or -1 when there are too many records and values.
int ReadRecords(char* text, Budget* budget, RecordSet* records) {
  const std::size_t namesLength = NamesLength(*records);
  while (!StartsWith(text, kDone)) {
    char* const line = CutLine(&text);
    if (line == nullptr) return 0;
    const auto lineLength = static_cast<std::size_t>(text - line);
    records->insert(line);
    // Each field holds its own copy of its column's name.
    const std::size_t fields = records->records.back()->fields.size();
    const std::size_t names = fields == 0 ? 0 : namesLength;
    if (!budget->Take(kRecordBytes + fields * kFieldBytes + names + lineLength)) return -1;
  }
  return 0;
}

/// Reads what stands behind the marker of a table.
int ReadTable(char* text, RecordSet* records) {
  Budget budget(std::strlen(text));
  char* const markerEnd = FindLineBreak(text);
  if (markerEnd == nullptr) return -1;
  char* rest = markerEnd + 1;
  records->declaredCount = LeadingCount(rest);
  if (CutLine(&rest) == nullptr) return -1;
  char* const names = CutLine(&rest);
  if (names == nullptr) return -1;
  char* const types = CutLine(&rest);
  if (types == nullptr) return -1;
  if (ReadDefinitions(names, types, &budget, records) != 0) return -1;
  if (ReadRecords(rest, &budget, records) != 0) return -1;
  records->cursor = 0;
  return 0;
}

/// The description that begins on the line at `line`: it may span lines and
/// ends at the closing marker or with the text.
HeapText ReadDescription(char* line) {
  char* const done = std::strstr(line, kDone);
  if (done != nullptr) *done = '\0';
  const bool cutShort = std::strlen(line) < kDescriptionOffset;
  return CopyText(cutShort ? "" : line + kDescriptionOffset);
}

/// If the line at `*text` begins with `key`, cuts it there, stores what follows
/// the key in `*field` and moves `*text` to the next line.
template <std::size_t Size>
bool TakeHeader(char** text, const char (&key)[Size], HeapText* field) {
  if (!StartsWith(*text, key)) return false;
  *field = CopyText(CutLine(text) + Size - 1);
  return true;
}

void ReadErrorHeaders(char* text, ServiceError* error) {
  for (int count = 0; count < kMaxHeaderLines; ++count) {
    if (FindLineBreak(text) == nullptr) return;
    if (TakeHeader(&text, "severity: ", &error->severity) ||
        TakeHeader(&text, "server: ", &error->server) ||
        TakeHeader(&text, "source: ", &error->source)) {
      continue;
    }
    if (StartsWith(text, kDescriptionKey)) error->description = ReadDescription(text);
    return;
  }
}

/// Reads what stands behind the marker of an error block.
int ReadError(char* text, RecordSet* records) {
  char* const markerEnd = FindLineBreak(text);
  if (markerEnd == nullptr) return -1;
  auto error = std::make_unique<ServiceError>();
  error->errorNumber = NumberAt(markerEnd + 1);
  char* const numberEnd = FindLineBreak(markerEnd + 1);
  if (numberEnd == nullptr) return -1;
  ReadErrorHeaders(numberEnd + 1, error.get());
  records->error = std::move(error);
  return 0;
}

}  // namespace

int ParseAnswer(char* text, RecordSet* records) {
  char* const marker = std::strstr(text, kMarker);
  if (marker == nullptr) return -1;
  if (StartsWith(marker, kBegin) || StartsWith(marker, kStart)) {
    return ReadTable(marker + kMarkerLength, records);
  }
  if (StartsWith(marker, kError)) return ReadError(marker + kMarkerLength, records);
  return -1;
}

}  // namespace corvel::storage::tzregister
