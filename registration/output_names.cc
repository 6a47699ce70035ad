#include <boost/filesystem/path.hpp>

#include "registration/failures.h"
#include "registration/registrator.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kKeyDirectoryOption[] = "keydir";

}  // namespace

void Registrator::FilenamesFromArguments(std::string* filename1, std::string* filename2,
                                         const std::string& dirargument,
                                         const std::string& basename, const std::string& extension1,
                                         const std::string& extension2) {
  if (filename1 == nullptr || filename2 == nullptr) failures::kNoNameOutput.Throw();
  if (options_.Has("todisk")) {
    const boost::filesystem::path stem =
        boost::filesystem::path(OutputDirectory(dirargument)) / basename;
    *filename2 = stem.string() + extension2;
    *filename1 = stem.string() + extension1;
    return;
  }
  if (!options_.Has("file") || !options_.Has("file2")) {
    failures::kBadCombination.Throw(dirargument);
  }
  // Both are read before either is stored: reading can fail.
  const std::string& file = options_.Text("file");
  const std::string& file2 = options_.Text("file2");
  *filename1 = file;
  *filename2 = file2;
}

std::string Registrator::OutputDirectory(const std::string& dirargument) const {
  if (options_.Has(dirargument.c_str())) return options_.Text(dirargument.c_str());
  if (dirargument != kKeyDirectoryOption) failures::kNoDirectory.Throw();
  return ReadStoredCredentials().keydir;
}

}  // namespace corvel::storage::tzregister
