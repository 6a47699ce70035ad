#include "frontend/argument_guard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/testing/heap_watch.h"

namespace corvel::storage::tzregister {
namespace {

using Words = std::vector<std::string>;
using storage::testing::FreedTextWatch;

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

TEST(ArgumentGuard, MasksThePasswordAndKeepsACopyOfIt) {
  const struct {
    Words given;
    Words shown;
  } kCases[] = {
      {{"tzregister"}, {"tzregister"}},
      {{"tzregister", "--passwd", "pw"}, {"tzregister", "--passwd", "**"}},
      {{"tzregister", "--passwd=secret", "x"}, {"tzregister", "--passwd=******", "x"}},
      {{"tzregister", "--passwd="}, {"tzregister", "--passwd="}},
      {{"tzregister", "--passwd"}, {"tzregister", "--passwd"}},
      {{"tzregister", "--passwd", ""}, {"tzregister", "--passwd", ""}},
      {{"tzregister", "--passwdfile", "f"}, {"tzregister", "--passwdfile", "f"}},
      {{"tzregister", "--passwdfile=f"}, {"tzregister", "--passwdfile=f"}},
      {{"tzregister", "--login", "passwd"}, {"tzregister", "--login", "passwd"}},
      {{"tzregister", "--passwd", "--passwd", "x"}, {"tzregister", "--passwd", "********", "x"}},
      {{"t", "--passwd", "a", "--passwd", "bc"}, {"t", "--passwd", "*", "--passwd", "**"}},
      {{"--passwd", "x"}, {"--passwd", "x"}},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(::testing::PrintToString(row.given));
    Arguments arguments(row.given);
    ArgumentGuard guard(arguments.argc(), arguments.argv());
    EXPECT_EQ(arguments.words(), row.shown);
    EXPECT_EQ(Texts(guard.argv()), row.given);
  }
}

TEST(ArgumentGuard, WipesItsCopyWhenItGoes) {
  const std::string secret = "a secret too long to lie inside an object";
  Arguments arguments({"tzregister", "--passwd", secret, "--passwd=" + secret});
  const FreedTextWatch watch(secret);
  std::make_unique<ArgumentGuard>(arguments.argc(), arguments.argv()).reset();
  EXPECT_FALSE(watch.seen());
}

}  // namespace
}  // namespace corvel::storage::tzregister
