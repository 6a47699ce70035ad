// The authority's answers: the parser, and the values that it hands out, against an
// independent model.

#include <vector>

#include "fuzz/fuzzing.h"
#include "tests/webservice/answer_model.h"
#include "webservice/answer_parser.h"

namespace {

using namespace corvel::storage::fuzzing;
namespace tzregister = corvel::storage::tzregister;
using corvel::storage::testing::Answer;
using corvel::storage::testing::ModelAnswer;
using corvel::storage::testing::Row;

Row RowOf(const tzregister::Record& record) {
  Row row;
  row.fieldCount = record.fieldCount;
  for (const auto& [name, field] : record.fields) {
    row.cells[name] = {field->value.get(), record.getValue(name, true), field->type()};
  }
  return row;
}

void AddText(const char* key, const char* text, Answer* answer) {
  if (text != nullptr) answer->error[key] = text;
}

Answer Parsed(const std::string& bytes) {
  std::vector<char> text(bytes.c_str(), bytes.c_str() + std::string(bytes.c_str()).size() + 1);
  tzregister::RecordSet records;
  Answer answer;
  answer.result = tzregister::ParseAnswer(text.data(), &records);
  for (const auto& definition : records.definitions) {
    answer.columns.emplace_back(definition->name.get(), definition->type);
  }
  while (const tzregister::Record* record = records.next()) answer.rows.push_back(RowOf(*record));
  if (records.error == nullptr) return answer;
  answer.error["number"] = std::to_string(records.error->errorNumber);
  AddText("severity", records.error->severity.get(), &answer);
  AddText("server", records.error->server.get(), &answer);
  AddText("source", records.error->source.get(), &answer);
  AddText("description", records.error->description.get(), &answer);
  return answer;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes = TextOf(data, size);
  Answer expected = ModelAnswer(bytes);
  // Nothing relies on the count; the parser looks at its first digits alone.
  expected.declaredCount = 0;
  Expect(Parsed(bytes) == expected, "the parser sees what the model sees");
  return 0;
}
