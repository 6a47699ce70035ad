#include "support/file_system.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/exception.hpp>
#include <cerrno>
#include <string>

#include "tests/testing/file_size_limit.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::support {
namespace {

using storage::testing::Exists;
using storage::testing::FileMode;
using storage::testing::FileSizeLimit;
using storage::testing::ReadFile;
using storage::testing::TempDirectory;

constexpr FilePrivacy kBoth[] = {FilePrivacy::kPublic, FilePrivacy::kSecret};
constexpr mode_t kMasks[] = {0000, 0002, 0022, 0027, 0077, 0177, 0277, 0777};

/// Sets the umask for the length of a scope.
class UmaskFor {
 public:
  explicit UmaskFor(mode_t mask) : previous_(umask(mask)) {}
  ~UmaskFor() { umask(previous_); }
  UmaskFor(const UmaskFor&) = delete;
  UmaskFor& operator=(const UmaskFor&) = delete;

  /// The umask that is set now.
  static mode_t Current() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
  }

 private:
  mode_t previous_;
};

TEST(PathExists, IsTrueForWhateverIsThere) {
  const TempDirectory directory;
  EXPECT_TRUE(PathExists(directory.path()));
  EXPECT_TRUE(PathExists(directory.Write("file", "")));
  EXPECT_EQ(chmod(directory.File("file").c_str(), 0), 0);
  EXPECT_TRUE(PathExists(directory.File("file")));
  EXPECT_TRUE(PathExists("/dev/full"));
}

TEST(PathExists, IsFalseForWhatIsNotThere) {
  const TempDirectory directory;
  ASSERT_EQ(symlink("nowhere", directory.File("link").c_str()), 0);
  for (const std::string& path :
       {std::string(), directory.File("missing"), directory.File("missing/file"),
        directory.Write("file", "") + "/x", directory.File("link")}) {
    EXPECT_FALSE(PathExists(path)) << path;
  }
}

TEST(OutputFile, IsCreatedAsTheUmaskAllows) {
  for (const mode_t mask : kMasks) {
    SCOPED_TRACE(mask);
    const TempDirectory directory;
    const UmaskFor umask_(mask);
    EXPECT_TRUE(OutputFile(directory.File("public"), FilePrivacy::kPublic).isOpen());
    EXPECT_TRUE(OutputFile(directory.File("secret"), FilePrivacy::kSecret).isOpen());
    EXPECT_EQ(FileMode(directory.File("public")), 0666U & ~mask);
    EXPECT_EQ(FileMode(directory.File("secret")), 0600U & ~mask);
    EXPECT_EQ(UmaskFor::Current(), mask);
  }
}

TEST(OutputFile, KeepsWhatAnExistingFileHoldsUntilItIsEmptied) {
  const TempDirectory directory;
  for (const FilePrivacy privacy : kBoth) {
    const std::string path = directory.Write("f", "old content");
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    OutputFile file(path, privacy);
    ASSERT_TRUE(file.isOpen());
    EXPECT_EQ(ReadFile(path), "old content");
    EXPECT_TRUE(file.Empty());
    EXPECT_EQ(ReadFile(path), "");
    EXPECT_EQ(FileMode(path), 0644U);
  }
}

TEST(OutputFile, SaysWhyItCannotBeOpened) {
  const TempDirectory directory;
  const struct {
    std::string path;
    int reason;
  } kRows[] = {{"", ENOENT},
               {directory.File("missing/f"), ENOENT},
               {directory.path(), EISDIR},
               {directory.Write("file", "") + "/f", ENOTDIR},
               {directory.File(std::string(300, 'a')), ENAMETOOLONG}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.path);
    for (const FilePrivacy privacy : kBoth) {
      EXPECT_FALSE(OutputFile(row.path, privacy).isOpen());
      EXPECT_EQ(errno, row.reason);
    }
  }
  EXPECT_FALSE(Exists(directory.File("missing")));
}

/// The descriptor that is given out next.
int NextDescriptor() {
  const int next = dup(STDERR_FILENO);
  close(next);
  return next;
}

TEST(OutputFile, KeepsTheDescriptorFromChildProcesses) {
  const TempDirectory directory;
  const int descriptor = NextDescriptor();
  const OutputFile file(directory.File("f"), FilePrivacy::kPublic);
  ASSERT_TRUE(file.isOpen());
  EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
}

TEST(OutputFile, IsClosedOnceByWhicheverComesFirst) {
  const TempDirectory directory;
  const int descriptor = NextDescriptor();
  { const OutputFile file(directory.File("f"), FilePrivacy::kPublic); }
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
  {
    OutputFile file(directory.File("f"), FilePrivacy::kPublic);
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(dup(STDERR_FILENO), descriptor);
  }
  EXPECT_EQ(close(descriptor), 0);
}

TEST(OutputFile, WritesEveryByte) {
  const TempDirectory directory;
  const std::string text = std::string("a\0\r\n\xff", 5) + std::string(100000, 'x');
  OutputFile file(directory.Write("f", std::string(200000, 'o')), FilePrivacy::kSecret);
  EXPECT_TRUE(file.Empty());
  EXPECT_TRUE(file.Write(""));
  EXPECT_TRUE(file.Write(text));
  EXPECT_EQ(ReadFile(directory.File("f")), text);
  EXPECT_TRUE(file.Close());
}

TEST(OutputFile, FailsWhenTheDiskTakesNothing) {
  OutputFile file("/dev/full", FilePrivacy::kSecret);
  ASSERT_TRUE(file.isOpen());
  EXPECT_TRUE(file.Empty());
  EXPECT_FALSE(file.Write("x"));
}

TEST(OutputFile, FailsForThePartThatTheDiskDoesNotTake) {
  const TempDirectory directory;
  OutputFile file(directory.File("f"), FilePrivacy::kSecret);
  {
    const FileSizeLimit limit(10);
    EXPECT_TRUE(file.Write("first"));
    EXPECT_FALSE(file.Write("second"));
  }
  EXPECT_EQ(ReadFile(directory.File("f")), "firstsecon");
}

TEST(OutputFile, FailsWhenItsDescriptorIsGone) {
  const TempDirectory directory;
  const int descriptor = NextDescriptor();
  OutputFile file(directory.File("f"), FilePrivacy::kPublic);
  close(descriptor);
  EXPECT_FALSE(file.Empty());
  EXPECT_FALSE(file.Write("x"));
  EXPECT_FALSE(file.Close());
}

TEST(OutputFile, KnowsItselfByAnotherName) {
  const TempDirectory directory;
  const std::string path = directory.Write("f", "");
  ASSERT_EQ(symlink("f", directory.File("symbolic").c_str()), 0);
  ASSERT_EQ(link(path.c_str(), directory.File("hard").c_str()), 0);
  const OutputFile file(path, FilePrivacy::kPublic);
  for (const std::string& name :
       {path, directory.path() + "/./f", directory.File("symbolic"), directory.File("hard")}) {
    EXPECT_TRUE(file.IsSameAs(OutputFile(name, FilePrivacy::kPublic))) << name;
  }
  EXPECT_FALSE(file.IsSameAs(OutputFile(directory.File("other"), FilePrivacy::kPublic)));
}

TEST(OutputFile, MayBeADeviceTwice) {
  const OutputFile file("/dev/null", FilePrivacy::kPublic);
  EXPECT_FALSE(file.IsSameAs(OutputFile("/dev/null", FilePrivacy::kPublic)));
}

TEST(MakeDirectories, MakesWhatIsMissingForItsOwnerOrForAll) {
  for (const mode_t mask : {0000U, 0022U, 0027U, 0077U}) {
    SCOPED_TRACE(mask);
    const TempDirectory directory;
    const UmaskFor umask_(mask);
    MakeDirectories(directory.File("a/public"), FilePrivacy::kPublic);
    MakeDirectories(directory.File("b/c/secret"), FilePrivacy::kSecret);
    for (const char* name : {"a", "a/public", "b", "b/c"}) {
      EXPECT_EQ(FileMode(directory.File(name)), 0755U & ~mask) << name;
    }
    EXPECT_EQ(FileMode(directory.File("b/c/secret")), 0700U & ~mask);
  }
}

TEST(MakeDirectories, LeavesADirectoryThatIsThereAsItIs) {
  const TempDirectory directory;
  MakeDirectories(directory.File("d"), FilePrivacy::kPublic);
  ASSERT_EQ(chmod(directory.File("d").c_str(), 0705), 0);
  ASSERT_EQ(symlink("d", directory.File("link").c_str()), 0);
  for (const char* name : {"d", "d/", "d/.", "d/../d", "link", "link/", "d//"}) {
    EXPECT_NO_THROW(MakeDirectories(directory.File(name), FilePrivacy::kSecret)) << name;
  }
  EXPECT_EQ(FileMode(directory.File("d")), 0705U);
}

/// What making `path` fails with, without the path; "" when it does not fail.
std::string ReasonAgainst(const std::string& path) {
  try {
    MakeDirectories(path, FilePrivacy::kPublic);
    return "";
  } catch (const boost::filesystem::filesystem_error& failure) {
    EXPECT_EQ(std::string(failure.what()).rfind("boost::filesystem::create_directories: ", 0), 0U);
    return failure.code().message() + " " + failure.path1().string();
  }
}

TEST(MakeDirectories, SaysWhatStandsInTheWay) {
  const TempDirectory directory;
  const std::string file = directory.Write("file", "");
  ASSERT_EQ(symlink("nowhere", directory.File("link").c_str()), 0);
  const std::string longName = directory.File(std::string(300, 'a'));
  EXPECT_EQ(ReasonAgainst(file), "File exists " + file);
  EXPECT_EQ(ReasonAgainst(file + "/a"), "Not a directory " + file + "/a");
  EXPECT_EQ(ReasonAgainst(directory.File("link")), "File exists " + directory.File("link"));
  EXPECT_EQ(ReasonAgainst(directory.File("link/a")), "File exists " + directory.File("link"));
  EXPECT_EQ(ReasonAgainst(longName), "File name too long " + longName);
  EXPECT_EQ(ReasonAgainst(""), "No such file or directory ");
}

}  // namespace
}  // namespace corvel::storage::support
