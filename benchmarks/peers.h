#ifndef BENCHMARKS_PEERS_H_
#define BENCHMARKS_PEERS_H_

#include <cstddef>
#include <string>

namespace corvel::storage::benchmarks {

// What others take for the same texts. Each returns something that depends on
// the whole work, so that none of it is left out.

/// Reads a configuration file with SimpleIni.
std::size_t ReadWithSimpleIni(const std::string& text);

/// Reads a configuration file with inih, which hands each option to a callback;
/// what it is handed is kept nowhere.
std::size_t ReadWithInih(const std::string& text);

/// Reads a configuration file with iniparser, which takes time by the square of
/// the options.
std::size_t ReadWithIniparser(const std::string& text);

/// Reads a configuration file with SimpleIni and writes it again.
std::size_t RewriteWithSimpleIni(const std::string& text);

/// Reads a configuration file with Boost.PropertyTree and writes it again.
std::size_t RewriteWithPropertyTree(const std::string& text);

/// Reads a configuration file line by line into a map of maps and writes it
/// again; comments are passed over.
std::size_t RewriteWithPlainMap(const std::string& text);

/// Reads a table line by line into a map of texts per record.
std::size_t ReadRecordsIntoMaps(const std::string& text);

/// As above, tuned: views of the text, the names shared, nothing copied twice.
std::size_t ReadRecordsIntoTunedMaps(const std::string& text);

/// Copies each value of a table to the heap, and does nothing else.
std::size_t CopyEachValue(const std::string& text);

}  // namespace corvel::storage::benchmarks

#endif  // BENCHMARKS_PEERS_H_
