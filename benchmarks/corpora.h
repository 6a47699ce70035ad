#ifndef BENCHMARKS_CORPORA_H_
#define BENCHMARKS_CORPORA_H_

#include <cstddef>
#include <string>

namespace corvel::storage::benchmarks {

// Texts to read, the same at every call. Sizes are in bytes and met to within
// one line.

/// A configuration file as components have them: of 100 lines one is a header
/// and ten are comments, the rest options of some 40 bytes.
std::string ConfigFile(std::size_t size);

/// `lines` options of one section behind one comment line of `commentSize`.
std::string OptionsBehindComment(std::size_t commentSize, std::size_t lines);

/// `count` options, all of one section.
std::string OneSection(std::size_t count);

/// `count` sections of one option each.
std::string ManySections(std::size_t count);

/// One option with a value of `size`.
std::string OneLargeOption(std::size_t size);

/// A table of `records` records of six columns.
std::string Records(std::size_t records);

/// A table of ten records of `columns` columns.
std::string WideRecords(std::size_t columns);

/// A table of one value of `size`.
std::string OneLargeValue(std::size_t size);

}  // namespace corvel::storage::benchmarks

#endif  // BENCHMARKS_CORPORA_H_
