#include "frontend/argument_guard.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "frontend/options.h"
#include "support/parsed_options.h"
#include "tests/testing/disguised_secret.h"
#include "tests/testing/words.h"

namespace corvel::storage::tzregister {
namespace {
using namespace storage::testing;

/// A process's own arguments.
class Arguments {
 public:
  explicit Arguments(Words words) : words_(std::move(words)) {
    for (std::string& word : words_) pointers_.push_back(word.data());
    pointers_.push_back(nullptr);
  }

  int argc() const { return static_cast<int>(words_.size()); }
  char** argv() { return pointers_.data(); }
  const Words& words() const { return words_; }

 private:
  Words words_;
  std::vector<char*> pointers_;
};

/// The texts of `argv` up to the null behind them.
Words Texts(char** argv) {
  Words words;
  while (*argv != nullptr) words.push_back(*argv++);
  return words;
}

TEST(ArgumentGuard, MasksThePasswordAndLetsAStandInTakeItsPlace) {
  const struct {
    Words given;
    Words shown;
    Words parsed;
  } kCases[] = {
      {{"tzregister"}, {"tzregister"}, {"tzregister"}},
      {{"t", "--passwd", "pw"}, {"t", "--passwd", "**"}, {"t", "--passwd", "0"}},
      {{"t", "--passwd=secret", "x"}, {"t", "--passwd=******", "x"}, {"t", "--passwd=0", "x"}},
      {{"t", "--passwd="}, {"t", "--passwd="}, {"t", "--passwd="}},
      {{"t", "--passwd"}, {"t", "--passwd"}, {"t", "--passwd"}},
      {{"t", "--passwd", ""}, {"t", "--passwd", ""}, {"t", "--passwd", ""}},
      {{"t", "--passwd", "-x"}, {"t", "--passwd", "**"}, {"t", "--passwd", "-x"}},
      {{"t", "--passwdfile", "f"}, {"t", "--passwdfile", "f"}, {"t", "--passwdfile", "f"}},
      {{"t", "--passwdfile=f"}, {"t", "--passwdfile=f"}, {"t", "--passwdfile=f"}},
      {{"t", "--login", "passwd"}, {"t", "--login", "passwd"}, {"t", "--login", "passwd"}},
      {{"t", "--passwd", "--passwd", "x"},
       {"t", "--passwd", "********", "*"},
       {"t", "--passwd", "--passwd", "0"}},
      {{"t", "--passwd", "--passwd=x"},
       {"t", "--passwd", "**********"},
       {"t", "--passwd", "--passwd=0"}},
      {{"t", "--passwd=--passwd=x"}, {"t", "--passwd=**********"}, {"t", "--passwd=--passwd=0"}},
      {{"t", "--passwd", "a", "--passwd", "bc"},
       {"t", "--passwd", "*", "--passwd", "**"},
       {"t", "--passwd", "0", "--passwd", "1"}},
      {{"--passwd", "x"}, {"--passwd", "x"}, {"--passwd", "x"}},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(::testing::PrintToString(row.given));
    Arguments arguments(row.given);
    ArgumentGuard guard(arguments.argc(), arguments.argv());
    EXPECT_EQ(arguments.words(), row.shown);
    EXPECT_EQ(Texts(guard.argv()), row.parsed);
  }
}

/// The password that the option library finds in `words` behind a guard;
/// "(none)" when it finds none.
std::string GuardedPassword(const Words& words) {
  Arguments arguments(words);
  ArgumentGuard guard(arguments.argc(), arguments.argv());
  boost::program_options::variables_map options;
  ParseOptions(arguments.argc(), guard.argv(), DescribeOptions(), &options);
  guard.RestorePassword(&options);
  const support::ParsedOptions parsed(options);
  return parsed.Has("passwd") ? parsed.SecretText("passwd").text() : "(none)";
}

TEST(ArgumentGuard, RestoresThePasswordThatTheOptionLibraryFinds) {
  EXPECT_EQ(GuardedPassword({"t", "--passwd", "pw"}), "pw");
  EXPECT_EQ(GuardedPassword({"t", "--passwd=p=w"}), "p=w");
  EXPECT_EQ(GuardedPassword({"t", "--passwd", "1"}), "1");
  EXPECT_EQ(GuardedPassword({"t", "--passwd", "-1"}), "-1");
  EXPECT_EQ(GuardedPassword({"t", "--passwd", ""}), "");
  EXPECT_EQ(GuardedPassword({"t", "--todisk"}), "(none)");
}

// The option library takes what follows an option for its value, whatever it
// looks like.
TEST(ArgumentGuard, RestoresTheRightOneOfSeveral) {
  EXPECT_EQ(GuardedPassword({"t", "--passwd", "y", "--login", "--passwd", "x"}), "y");
  EXPECT_EQ(GuardedPassword({"t", "--login", "--passwd", "x", "--passwd", "y"}), "y");
  EXPECT_EQ(GuardedPassword({"t", "--login", "--passwd", "x"}), "(none)");
  EXPECT_EQ(GuardedPassword({"t", "--passwd", "y", "--", "--passwd", "x"}), "y");
}

TEST(ArgumentGuard, RestoresAPasswordThatLooksLikeTheOption) {
  EXPECT_EQ(GuardedPassword({"t", "--passwd", "--passwd"}), "--passwd");
  EXPECT_EQ(GuardedPassword({"t", "--passwd", "--passwd=x"}), "--passwd=x");
  EXPECT_EQ(GuardedPassword({"t", "--passwd=--passwd=x"}), "--passwd=x");
  EXPECT_EQ(GuardedPassword({"t", "--passwd=--passwd=-x"}), "--passwd=-x");
  EXPECT_EQ(GuardedPassword({"t", "--login", "--passwd", "--passwd=x"}), "x");
  EXPECT_EQ(GuardedPassword({"t", "--login", "--passwd", "--passwd", "x"}), "x");
}

/// Runs `words`, whose last one ends in as many "?" as `password` is long, with
/// the password in their place, through guard and option library.
void ExpectOneCopyWhileItIsKept(const Words& words, const DisguisedSecret& password) {
  Arguments arguments(words);
  password.Reveal([&](const char* text) {
    std::memcpy(std::strchr(arguments.argv()[words.size() - 1], '?'), text, password.size());
  });
  ArgumentGuard guard(arguments.argc(), arguments.argv());
  EXPECT_EQ(password.Copies(), 1U);
  boost::program_options::variables_map options;
  ParseOptions(arguments.argc(), guard.argv(), DescribeOptions(), &options);
  guard.RestorePassword(&options);
  const support::ParsedOptions parsed(options);
  EXPECT_TRUE(password.Is(parsed.SecretText("passwd").text()));
  EXPECT_EQ(password.Copies(), 1U);
}

TEST(ArgumentGuard, LeavesNoPasswordBehindOnceEveryOwnerIsGone) {
  for (const std::size_t length : {12U, 60U}) {
    const DisguisedSecret password(length);
    const std::string place(length, '?');
    ExpectOneCopyWhileItIsKept({"tzregister", "--passwd", place}, password);
    EXPECT_EQ(password.Copies(), 0U);
    ExpectOneCopyWhileItIsKept({"tzregister", "--passwd=" + place}, password);
    EXPECT_EQ(password.Copies(), 0U);
  }
}

}  // namespace
}  // namespace corvel::storage::tzregister
