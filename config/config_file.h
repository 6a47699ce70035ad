#ifndef CONFIG_CONFIG_FILE_H_
#define CONFIG_CONFIG_FILE_H_

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>

#include "config/config.h"

namespace corvel::storage::tzconfig {

/// Reader and writer of the text format that every configuration file of the
/// system has: "[section]" headers, "key=value" options, comment lines that
/// begin with "#" or ";" and belong to the header or option below them. Results
/// are the codes of config/config.h; diagnostics go to standard error, a line
/// each. For use by one thread.
class TZConfigFile {
 public:
  /// `inputName` is the file that LoadConfig(config) opens, and the name in the
  /// reader's message; `outputName` is only the name in the writer's message.
  /// Either may be empty.
  TZConfigFile(std::string inputName, std::string outputName);

  /// Reads the input file into `*config`. kBadArgument when its name is empty;
  /// otherwise as below. Throws std::bad_alloc: a file that there is no memory to
  /// open is not missing.
  std::int32_t LoadConfig(TZConfig* config) const;

  /// Empties `*config`, then reads `*stream` to its end or to the first line
  /// that is not of the format; what was read up to there stays in the store.
  /// kBadArgument when a pointer is null (the store is untouched then),
  /// kStreamFailure when the stream is not good or breaks off, kInvalidLine, or
  /// the store's own code.
  std::int32_t LoadConfig(std::istream* stream, TZConfig* config) const;

  /// Writes `*config` to `*stream`: sections in order of creation, options
  /// sorted, every comment above what it belongs to. The stream is neither
  /// opened nor closed nor, once writing began, examined. kBadArgument when a
  /// pointer is null or a section has no name, kStreamFailure when the stream
  /// is not good to begin with, kSectionUnavailable.
  std::int32_t DumpConfig(std::ostream* stream, TZConfig* config) const;

 private:
  std::string inputName_;
  std::string outputName_;
};

}  // namespace corvel::storage::tzconfig

#endif  // CONFIG_CONFIG_FILE_H_
