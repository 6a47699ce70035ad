#include "webservice/record_set.h"

#include <cstring>
#include <new>
#include <utility>

#include "support/unescape.h"
#include "webservice/failures.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kValueEnds[] = "|\n\r";
constexpr int kIntegerType = 1;
constexpr int kStringType = 2;

/// The cell of a column of type `type`; null for a column that is not kept.
std::unique_ptr<Field> MakeField(const FieldDefinition& definition, const char* value) {
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

HeapText CopyText(const char* text) {
  HeapText copy(strdup(text));
  if (copy == nullptr) throw std::bad_alloc();
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
    char* const end = line + std::strcspn(line, kValueEnds);
    const bool more = *end != '\0';
    *end = '\0';
    if (std::unique_ptr<Field> field = MakeField(*definition, line)) {
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
