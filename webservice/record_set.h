#ifndef WEBSERVICE_RECORD_SET_H_
#define WEBSERVICE_RECORD_SET_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/handle.h"

namespace corvel::storage::tzregister {

using support::HeapText;

/// A zero-terminated heap copy of `text`. Throws std::bad_alloc.
HeapText CopyText(std::string_view text);

/// One column of an answer: its name and the first character of its type.
struct FieldDefinition {
  HeapText name;
  char type = '\0';
};

/// One cell of a record: its column's name and its raw value, escapes and all.
/// Owns both texts.
class Field {
 public:
  Field(HeapText fieldName, HeapText fieldValue);
  virtual ~Field();

  /// 1 for an integer column, 2 for a string column.
  virtual int type() const = 0;

  HeapText name;
  HeapText value;  ///< null when the answer held none
};

/// A cell of an "I" column. Its value stays text.
class IntegerField : public Field {
 public:
  using Field::Field;
  int type() const override;
};

/// A cell of an "S" or "C" column.
class StringField : public Field {
 public:
  using Field::Field;
  int type() const override;
};

/// Orders column names byte by byte.
struct Compare {
  bool operator()(const char* a, const char* b) const;
};

/// One line of an answer. The map's keys are borrowed from the fields it owns.
struct Record {
  std::map<const char*, std::unique_ptr<Field>, Compare> fields;
  std::int32_t fieldCount = 0;  ///< fields created, repeated names included

  /// The value of column `name` with its escapes undone. `required` is accepted
  /// and not consulted: a missing column always throws RegisterException
  /// (ERR_WEBSERVICE, severity 5, source "Record"), and so does a missing value.
  std::string getValue(const std::string& name, bool required) const;
};

/// The error block of an answer. A text that the block did not hold is null.
struct ServiceError {
  std::int32_t errorNumber = 0;
  HeapText severity;
  HeapText server;
  HeapText source;
  HeapText description;
};

/// One parsed answer: a table of records, or an error block. Owns everything
/// in it; records handed out are borrowed.
class RecordSet {
 public:
  /// Adds one record from `line` (zero-terminated), which is cut up in place.
  /// Values beyond the last column are ignored, columns beyond the last value
  /// get no field.
  void insert(char* line);

  /// The record at the cursor, which then moves on; null at the end.
  Record* next();

  std::size_t cursor = 0;
  std::vector<std::unique_ptr<Record>> records;
  std::vector<std::unique_ptr<FieldDefinition>> definitions;  ///< in column order
  std::int32_t recordCount = 0;                               ///< records inserted
  std::int32_t declaredCount = 0;       ///< what the answer says; nothing relies on it
  std::unique_ptr<ServiceError> error;  ///< null unless the answer was an error block
};

}  // namespace corvel::storage::tzregister

#endif  // WEBSERVICE_RECORD_SET_H_
