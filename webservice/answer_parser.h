#ifndef WEBSERVICE_ANSWER_PARSER_H_
#define WEBSERVICE_ANSWER_PARSER_H_

#include <cstddef>

#include "webservice/record_set.h"

namespace corvel::storage::tzregister {

/// How much of a table is accepted. An answer of bars alone would take a hundred
/// times its own size in memory; no real answer comes near these limits.
struct AnswerLimits {
  std::size_t columns = 1u << 20;
  std::size_t values = 1u << 23;  ///< records and kept values together
};

/// Reads one answer of the authority from memory into `*records`, which is
/// expected to be empty. `text` is zero-terminated and is cut up in place; it
/// must outlive the call only. docs/answer-format.md describes the format.
///
/// Returns 0 for a table of records (also an empty one) and for an error block,
/// which is then in `records->error`; -1 for anything else, also for a table
/// beyond `limits`. After -1 the set may hold columns and records read so far,
/// but never an error block. Throws nothing but std::bad_alloc.
int ParseAnswer(char* text, RecordSet* records, const AnswerLimits& limits = AnswerLimits());

}  // namespace corvel::storage::tzregister

#endif  // WEBSERVICE_ANSWER_PARSER_H_
