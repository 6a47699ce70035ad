#include "webservice/record_set.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "support/unescape.h"
#include "webservice/failures.h"

namespace corvel::storage::tzregister {
namespace {

constexpr int kIntegerType = 1;
constexpr int kStringType = 2;

/// Length of the value at `text`: up to a bar, a line break or the end. Values are
/// short, too short for what the library's search sets up first.
std::size_t ValueLength(const char* text) {
  const char* end = text;
  while (*end != '|' && *end != '\n' && *end != '\r' && *end != '\0') ++end;
  return static_cast<std::size_t>(end - text);
}

/// The cell of a column; null for a column that is not kept.
std::unique_ptr<Field> MakeField(const FieldDefinition& definition, std::string_view value) {
  switch (definition.type) {
    case 'I':
      return std::make_unique<IntegerField>(CopyText(definition.name.get()), CopyText(value));
    case 'C':
    case 'S':
      return std::make_unique<StringField>(CopyText(definition.name.get()), CopyText(value));
    default:
      return nullptr;
  }
}

}  // namespace

HeapText CopyText(std::string_view text) {
  HeapText copy(static_cast<char*>(std::malloc(text.size() + 1)));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy.get(), text.data(), text.size());
  copy.get()[text.size()] = '\0';
  return copy;
}

Field::Field(HeapText fieldName, HeapText fieldValue)
    : name(std::move(fieldName)), value(std::move(fieldValue)) {}

Field::~Field() = default;

int IntegerField::type() const { return kIntegerType; }

int StringField::type() const { return kStringType; }

bool Compare::operator()(const char* a, const char* b) const { return std::strcmp(a, b) < 0; }

std::string Record::getValue(const std::string& name, bool /*required*/) const {
  const auto found = fields.find(name.c_str());
  if (found == fields.end()) failures::kMissingField.Throw(name);
  const Field* const field = found->second.get();
  if (field == nullptr || field->value == nullptr) failures::kMissingValue.Throw(name);
  const char* const raw = field->value.get();
  std::string plain(std::strlen(raw) + 1, '\0');
  CRStringUnescapeA(raw, plain.data(), plain.size());
  plain.resize(std::strlen(plain.c_str()));
  return plain;
}

void RecordSet::insert(char* line) {
  auto record = std::make_unique<Record>();
  for (const auto& definition : definitions) {
    const std::string_view value(line, ValueLength(line));
    char* const end = line + value.size();
    const bool more = *end != '\0';
    *end = '\0';
    if (std::unique_ptr<Field> field = MakeField(*definition, value)) {
      const char* const key = field->name.get();
      record->fields.emplace(key, std::move(field));
      ++record->fieldCount;
    }
    if (!more) break;
    line = end + 1;
  }
  records.push_back(std::move(record));
  ++recordCount;
}

Record* RecordSet::next() { return cursor < records.size() ? records[cursor++].get() : nullptr; }

}  // namespace corvel::storage::tzregister
