#include "webservice/record_set.h"

#include <cstring>
#include <utility>

#include "frontend/register_exception.h"
#include "support/unescape.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kValueEnds[] = "|\n\r";
constexpr int kIntegerType = 1;
constexpr int kStringType = 2;

/// The cell of a column of type `type`; null for a column that is not kept.
std::unique_ptr<Field> MakeField(const FieldDefinition& definition, const char* value) {
  switch (definition.type) {
    case 'I':
      return std::make_unique<IntegerField>(support::CopyHeapText(definition.name.get()),
                                            support::CopyHeapText(value));
    case 'C':
    case 'S':
      return std::make_unique<StringField>(support::CopyHeapText(definition.name.get()),
                                           support::CopyHeapText(value));
    default:
      return nullptr;
  }
}

[[noreturn]] void ThrowMissing(const char* what, const std::string& name) {
  throw RegisterException(ERR_WEBSERVICE, SEVERITY_ERROR, "Record", what + name);
}

}  // namespace

Field::Field(HeapText fieldName, HeapText fieldValue)
    : name(std::move(fieldName)), value(std::move(fieldValue)) {}

Field::~Field() = default;

int IntegerField::type() const { return kIntegerType; }

int StringField::type() const { return kStringType; }

bool Compare::operator()(const char* a, const char* b) const { return std::strcmp(a, b) < 0; }

std::string Record::getValue(const std::string& name, bool /*required*/) const {
  const auto found = fields.find(name.c_str());
  if (found == fields.end()) ThrowMissing("Missing required field: ", name);
  const Field* const field = found->second.get();
  if (field == nullptr || field->value == nullptr) {
    ThrowMissing("Missing required value for field: ", name);
  }
  const char* const raw = field->value.get();
  support::SecretBytes plain(std::strlen(raw) + 1);
  auto* const text = reinterpret_cast<char*>(plain.data());
  CRStringUnescapeA(raw, text, plain.size());
  return text;
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
