#include "webservice/answer_parser.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <utility>

#include "webservice/webservice.h"

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
  char digits[kCountBytes];
  std::size_t length = 0;
  while (length + 1 < sizeof(digits) && std::isdigit(static_cast<unsigned char>(text[length]))) {
    digits[length] = text[length];
    ++length;
  }
  digits[length] = '\0';
  return NumberAt(digits);
}

/// Returns 0, or -1 when there are too many columns.
int ReadDefinitions(char* names, char* types, const AnswerLimits& limits, RecordSet* records) {
  while (names != nullptr && types != nullptr) {
    if (records->definitions.size() == limits.columns) return -1;
    auto definition = std::make_unique<FieldDefinition>();
    definition->name = support::CopyHeapText(CutToken(&names));
    definition->type = *CutToken(&types);
    records->definitions.push_back(std::move(definition));
  }
  return 0;
}

/// Returns 0, or -1 when there are too many values.
int ReadRecords(char* text, const AnswerLimits& limits, RecordSet* records) {
  std::size_t values = 0;
  while (!StartsWith(text, kDone)) {
    char* const line = CutLine(&text);
    if (line == nullptr) return 0;
    records->insert(line);
    // A record without a value that is kept takes memory as well.
    values += 1 + records->records.back()->fields.size();
    if (values > limits.values) return -1;
  }
  return 0;
}

/// Reads what stands behind the marker of a table.
int ReadTable(char* text, const AnswerLimits& limits, RecordSet* records) {
  char* const markerEnd = FindLineBreak(text);
  if (markerEnd == nullptr) return -1;
  char* rest = markerEnd + 1;
  records->declaredCount = LeadingCount(rest);
  if (CutLine(&rest) == nullptr) return -1;
  char* const names = CutLine(&rest);
  if (names == nullptr) return -1;
  char* const types = CutLine(&rest);
  if (types == nullptr) return -1;
  if (ReadDefinitions(names, types, limits, records) != 0) return -1;
  if (ReadRecords(rest, limits, records) != 0) return -1;
  records->cursor = 0;
  return 0;
}

/// The description that begins on the line at `line`: it may span lines and
/// ends at the closing marker or with the text.
HeapText ReadDescription(char* line) {
  char* const done = std::strstr(line, kDone);
  if (done != nullptr) *done = '\0';
  const bool cutShort = std::strlen(line) < kDescriptionOffset;
  return support::CopyHeapText(cutShort ? "" : line + kDescriptionOffset);
}

/// If the line at `*text` begins with `key`, cuts it there, stores what follows
/// the key in `*field` and moves `*text` to the next line.
template <std::size_t Size>
bool TakeHeader(char** text, const char (&key)[Size], HeapText* field) {
  if (!StartsWith(*text, key)) return false;
  *field = support::CopyHeapText(CutLine(text) + Size - 1);
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

int ParseAnswer(char* text, RecordSet* records, const AnswerLimits& limits) {
  char* const marker = std::strstr(text, kMarker);
  if (marker == nullptr) return -1;
  if (StartsWith(marker, kBegin) || StartsWith(marker, kStart)) {
    return ReadTable(marker + kMarkerLength, limits, records);
  }
  if (StartsWith(marker, kError)) return ReadError(marker + kMarkerLength, records);
  return -1;
}

int WebService::parse(RecordSet* records) const {
  if (buffer.data == nullptr) return -1;
  support::SecretBytes copy;
  try {
    copy.assign(buffer.data, buffer.data + std::strlen(buffer.data) + 1);
  } catch (const std::bad_alloc&) {
    std::cerr << "Could not convert webservice result to wide character string from UTF-8: %m."
              << std::endl;
    return -1;
  }
  return ParseAnswer(reinterpret_cast<char*>(copy.data()), records);
}

}  // namespace corvel::storage::tzregister
