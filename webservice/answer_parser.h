#ifndef WEBSERVICE_ANSWER_PARSER_H_
#define WEBSERVICE_ANSWER_PARSER_H_

#include "webservice/record_set.h"

namespace corvel::storage::tzregister {

/// Reads one answer of the authority from memory into `*records`, which is
/// expected to be empty. `text` is zero-terminated and is cut up in place; it
/// must outlive the call only. docs/answer-format.md describes the format.
///
/// Returns 0 for a table of records (also an empty one) and for an error block,
/// which is then in `records->error`; -1 for anything else, also for a table
/// that would take more memory than the text's length and 160 MiB. After -1 the
/// set may hold columns and records read so far, but never an error block.
/// Throws nothing but std::bad_alloc.
int ParseAnswer(char* text, RecordSet* records);

}  // namespace corvel::storage::tzregister

#endif  // WEBSERVICE_ANSWER_PARSER_H_
