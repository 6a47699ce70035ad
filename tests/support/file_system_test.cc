#include "support/file_system.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

TEST(OpenForWriting, CreatesAPublicFileAsTheUmaskAllows) {
  for (const mode_t mask : kMasks) {
    SCOPED_TRACE(mask);
    const TempDirectory directory;
    const UmaskFor umask_(mask);
    ASSERT_TRUE(OpenForWriting(directory.File("f"), FilePrivacy::kPublic));
    EXPECT_EQ(FileMode(directory.File("f")), 0666 & ~mask);
  }
}

TEST(OpenForWriting, CreatesASecretFileForItsOwnerAlone) {
  for (const mode_t mask : kMasks) {
    SCOPED_TRACE(mask);
    const TempDirectory directory;
    const UmaskFor umask_(mask);
    ASSERT_TRUE(OpenForWriting(directory.File("f"), FilePrivacy::kSecret));
    EXPECT_EQ(FileMode(directory.File("f")), 0600U & ~mask);
  }
}

TEST(OpenForWriting, LeavesTheUmaskAsItWas) {
  const TempDirectory directory;
  const UmaskFor umask_(0137);
  for (const FilePrivacy privacy : kBoth) {
    ASSERT_TRUE(OpenForWriting(directory.File("f"), privacy));
    ASSERT_FALSE(OpenForWriting(directory.path(), privacy));
    EXPECT_EQ(UmaskFor::Current(), 0137U);
  }
}

TEST(OpenForWriting, KeepsTheModeOfAnExistingFileAndEmptiesIt) {
  const TempDirectory directory;
  const std::string path = directory.Write("f", "old content");
  for (const FilePrivacy privacy : kBoth) {
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    const FilePtr file = OpenForWriting(path, privacy);
    ASSERT_TRUE(file);
    EXPECT_EQ(ReadFile(path), "");
    EXPECT_EQ(FileMode(path), 0644U);
  }
}

TEST(OpenForWriting, SaysWhyAFileCannotBeOpened) {
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
      EXPECT_FALSE(OpenForWriting(row.path, privacy));
      EXPECT_EQ(errno, row.reason);
    }
  }
  EXPECT_FALSE(Exists(directory.File("missing")));
}

TEST(OpenForWriting, KeepsTheDescriptorFromChildProcesses) {
  const TempDirectory directory;
  for (const FilePrivacy privacy : kBoth) {
    const FilePtr file = OpenForWriting(directory.File("f"), privacy);
    ASSERT_TRUE(file);
    EXPECT_EQ(fcntl(fileno(file.get()), F_GETFD), FD_CLOEXEC);
  }
}

TEST(OpenForWriting, ClosesTheFileWithTheHandle) {
  const TempDirectory directory;
  int descriptor = -1;
  {
    const FilePtr file = OpenForWriting(directory.File("f"), FilePrivacy::kPublic);
    ASSERT_TRUE(file);
    descriptor = fileno(file.get());
  }
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST(WriteText, WritesEveryByte) {
  const TempDirectory directory;
  const std::string text = std::string("a\0\r\n\xff", 5) + std::string(100000, 'x');
  for (const FilePrivacy privacy : kBoth) {
    FilePtr file = OpenForWriting(directory.File("f"), privacy);
    ASSERT_TRUE(file);
    EXPECT_TRUE(WriteText("", file.get()));
    EXPECT_TRUE(WriteText(text, file.get()));
    EXPECT_TRUE(CloseFile(std::move(file)));
    EXPECT_EQ(ReadFile(directory.File("f")), text);
  }
}

TEST(WriteText, KeepsNoCopyOfASecretInABuffer) {
  const TempDirectory directory;
  const FilePtr file = OpenForWriting(directory.File("f"), FilePrivacy::kSecret);
  ASSERT_TRUE(file);
  ASSERT_TRUE(WriteText("secret", file.get()));
  EXPECT_EQ(ReadFile(directory.File("f")), "secret");
}

TEST(WriteText, FailsWhenTheDiskTakesNothing) {
  const FilePtr file = OpenForWriting("/dev/full", FilePrivacy::kSecret);
  ASSERT_TRUE(file);
  EXPECT_FALSE(WriteText("x", file.get()));
}

TEST(CloseFile, FailsWhenTheDiskDoesNotTakeWhatWasBuffered) {
  FilePtr file = OpenForWriting("/dev/full", FilePrivacy::kPublic);
  ASSERT_TRUE(file);
  EXPECT_TRUE(WriteText("x", file.get()));
  EXPECT_FALSE(CloseFile(std::move(file)));
}

/// Writes "first" and "second" to a new file of which the disk takes `room`
/// bytes; false when either part or the closing fails.
bool WriteInParts(const std::string& path, FilePrivacy privacy, rlim_t room) {
  FilePtr file = OpenForWriting(path, privacy);
  const FileSizeLimit limit(room);
  const bool first = WriteText("first", file.get());
  const bool second = WriteText("second", file.get());
  const bool closed = CloseFile(std::move(file));
  return first && second && closed;
}

TEST(WriteText, OrTheClosingFailsWhenTheDiskTakesTheFirstPartAlone) {
  const TempDirectory directory;
  const std::string path = directory.File("f");
  for (const FilePrivacy privacy : kBoth) {
    EXPECT_FALSE(WriteInParts(path, privacy, 5));
    EXPECT_EQ(ReadFile(path), "first");
    EXPECT_FALSE(WriteInParts(path, privacy, 10));
    EXPECT_EQ(ReadFile(path), "firstsecon");
    EXPECT_TRUE(WriteInParts(path, privacy, 11));
    EXPECT_EQ(ReadFile(path), "firstsecond");
  }
}

TEST(WriteText, FailsAtOnceForTheSecondPartOfASecret) {
  const TempDirectory directory;
  const FilePtr file = OpenForWriting(directory.File("f"), FilePrivacy::kSecret);
  const FileSizeLimit limit(5);
  EXPECT_TRUE(WriteText("first", file.get()));
  EXPECT_FALSE(WriteText("second", file.get()));
}

}  // namespace
}  // namespace corvel::storage::support
