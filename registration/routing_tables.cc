#include <iostream>
#include <sstream>

#include "registration/failures.h"
#include "registration/registrator.h"
#include "support/file_system.h"

namespace corvel::storage::tzregister {
namespace {

void RequireOpen(const support::FilePtr& file, const std::string& path) {
  if (file == nullptr) failures::kTableNotWritten.Throw(path);
}

/// Writes one table and closes its file. The table was delivered once the file
/// could be opened; what the disk makes of it is not examined.
void WriteTable(const std::string& table, support::FilePtr file) {
  support::WriteText(table, file.get());
  support::CloseFile(std::move(file));
}

/// Opens both files before it judges either, so that both are emptied or
/// created whenever they can be.
void WriteTables(const std::string& recommended, const std::string& recommendedFile,
                 const std::string& current, const std::string& currentFile) {
  using support::FilePrivacy;
  support::FilePtr first = support::OpenForWriting(recommendedFile, FilePrivacy::kPublic);
  support::FilePtr second = support::OpenForWriting(currentFile, FilePrivacy::kPublic);
  RequireOpen(first, recommendedFile);
  RequireOpen(second, currentFile);
  WriteTable(recommended, std::move(first));
  WriteTable(current, std::move(second));
}

/// Unlike a file, standard output is looked at when it has taken the tables:
/// nobody would see otherwise that a pipe or a full disk swallowed them.
void PrintTables(const std::string& recommended, const std::string& current) {
  std::cout << recommended << current << std::flush;
  if (!std::cout) failures::kTableNotWritten.Throw();
}

}  // namespace

void Registrator::GetRoutingTables(std::int64_t storagePoolId, const std::string& recommendedFile,
                                   const std::string& currentFile) {
  if (!options_.Has("agentid") || configFile_.empty()) failures::kNoAgentId.Throw();
  UseStoredCredentials();
  std::ostringstream recommended;
  std::ostringstream current;
  proxy_->GetRoutingTables(storagePoolId, &recommended, &current);
  if (recommendedFile.empty() || currentFile.empty()) {
    PrintTables(recommended.str(), current.str());
  } else {
    WriteTables(recommended.str(), recommendedFile, current.str(), currentFile);
  }
}

}  // namespace corvel::storage::tzregister
