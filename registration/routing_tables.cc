#include <iostream>
#include <string_view>

#include "registration/failures.h"
#include "registration/registrator.h"
#include "support/file_system.h"
#include "support/text_stream.h"

namespace corvel::storage::tzregister {
namespace {

using support::FilePrivacy;
using support::OutputFile;

void RequireOpen(const OutputFile& file, const std::string& path) {
  if (!file.isOpen()) failures::kTableNotWritten.Throw(path);
}

/// Writes one table and closes its file. The table was delivered once the file
/// could be opened; what the disk makes of it is not examined.
void WriteTable(std::string_view table, OutputFile* file) {
  file->Write(table);
  file->Close();
}

/// Opens both files before it judges either, so that both are emptied or
/// created whenever they can be; but one file cannot hold both tables.
void WriteTables(std::string_view recommended, const std::string& recommendedFile,
                 std::string_view current, const std::string& currentFile) {
  OutputFile first(recommendedFile, FilePrivacy::kPublic);
  OutputFile second(currentFile, FilePrivacy::kPublic);
  if (first.isOpen() && second.isOpen() && first.IsSameAs(second)) {
    failures::kTableNotWritten.Throw(currentFile);
  }
  for (OutputFile* file : {&first, &second}) {
    if (file->isOpen()) file->Empty();
  }
  RequireOpen(first, recommendedFile);
  RequireOpen(second, currentFile);
  WriteTable(recommended, &first);
  WriteTable(current, &second);
}

/// Unlike a file, standard output is looked at when it has taken the tables:
/// nobody would see otherwise that a pipe or a full disk swallowed them.
void PrintTables(std::string_view recommended, std::string_view current) {
  std::cout << recommended << current << std::flush;
  if (!std::cout) failures::kTableNotWritten.Throw();
}

}  // namespace

void Registrator::GetRoutingTables(std::int64_t storagePoolId, const std::string& recommendedFile,
                                   const std::string& currentFile) {
  if (!options_.Has("agentid") || configFile_.empty()) failures::kNoAgentId.Throw();
  UseStoredCredentials();
  support::TextWriter recommended;
  support::TextWriter current;
  proxy_->GetRoutingTables(storagePoolId, &recommended, &current);
  if (recommendedFile.empty() || currentFile.empty()) {
    PrintTables(recommended.text(), current.text());
  } else {
    WriteTables(recommended.text(), recommendedFile, current.text(), currentFile);
  }
}

}  // namespace corvel::storage::tzregister
