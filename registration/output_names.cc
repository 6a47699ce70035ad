#include <boost/filesystem/path.hpp>

#include "frontend/register_exception.h"
#include "registration/registrator.h"

namespace corvel::storage::tzregister {
namespace {

constexpr char kKeyDirectoryOption[] = "keydir";

[[noreturn]] void ThrowBadArguments(const std::string& description) {
  throw RegisterException(ERR_INVALID_ARGUMENT, SEVERITY_ERROR, "Registrator", description);
}

std::string CombinationHelp(const std::string& dirargument) {
  return "Bad combination of arguments given. Please specify one of the following sets of "
         "arguments:\n"
         "- no arguments. result will be printed to standard output\n"
         "- \"todisk\" argument. This requires the " +
         dirargument +
         " argument (possibly from the configuration file)\n"
         "- \"file\" and \"file2\" arguments.\n";
}

}  // namespace

void Registrator::FilenamesFromArguments(std::string* filename1, std::string* filename2,
                                         const std::string& dirargument,
                                         const std::string& basename, const std::string& extension1,
                                         const std::string& extension2) {
  if (filename1 == nullptr || filename2 == nullptr) {
    ThrowBadArguments("filename1 or filename2 is missing\n");
  }
  if (Has("todisk")) {
    boost::filesystem::path stem;
    if (Has(dirargument)) {
      stem = Text(dirargument);
    } else if (dirargument == kKeyDirectoryOption) {
      stem = ReadStoredCredentials().keydir;
    } else {
      ThrowBadArguments("dirargument is missing\n");
    }
    stem /= basename;
    *filename2 = stem.string() + extension2;
    *filename1 = stem.string() + extension1;
    return;
  }
  if (!Has("file") || !Has("file2")) ThrowBadArguments(CombinationHelp(dirargument));
  *filename1 = Text("file");
  *filename2 = Text("file2");
}

}  // namespace corvel::storage::tzregister
