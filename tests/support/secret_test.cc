#include "support/secret.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tests/testing/disguised_secret.h"

namespace corvel::storage::support {
namespace {

using storage::testing::DisguisedSecret;

const std::string kLong = "a secret that is too long for the text object itself";

/// A text that lies inside the object and one that lies in a block of its own.
constexpr std::size_t kLengths[] = {12, 60};

Secret SecretOf(const DisguisedSecret& text) {
  Secret secret;
  text.Reveal([&](const char* plain) { secret = Secret(plain); });
  return secret;
}

TEST(Secret, HoldsACopyOfAText) {
  std::string original = kLong;
  const Secret secret(original);
  original.assign(original.size(), 'x');
  EXPECT_EQ(secret.text(), kLong);
  EXPECT_EQ(secret.size(), kLong.size());
  EXPECT_FALSE(secret.empty());
}

TEST(Secret, IsEmptyWhenNew) {
  const Secret secret;
  EXPECT_TRUE(secret.empty());
  EXPECT_EQ(secret.text(), "");
}

TEST(Secret, CannotBeCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<Secret>);
  EXPECT_FALSE(std::is_copy_assignable_v<Secret>);
  EXPECT_TRUE(std::is_nothrow_move_constructible_v<Secret>);
}

TEST(Secret, LeavesNothingBehindWhenItGoes) {
  for (const std::size_t length : kLengths) {
    const DisguisedSecret text(length);
    {
      const Secret secret = SecretOf(text);
      EXPECT_TRUE(text.Is(secret.text()));
      EXPECT_EQ(text.Copies(), 1U);
    }
    EXPECT_EQ(text.Copies(), 0U);
  }
}

TEST(Secret, LeavesNothingBehindWhenItMoves) {
  for (const std::size_t length : kLengths) {
    const DisguisedSecret text(length);
    Secret source = SecretOf(text);
    const Secret target(std::move(source));
    EXPECT_TRUE(text.Is(target.text()));
    EXPECT_EQ(text.Copies(), 1U);
  }
}

TEST(Secret, LeavesNeitherTextBehindWhenItIsAssignedTo) {
  for (const std::size_t length : kLengths) {
    for (const std::size_t oldLength : kLengths) {
      SCOPED_TRACE(std::to_string(length) + " over " + std::to_string(oldLength));
      const DisguisedSecret text(length);
      const DisguisedSecret old(oldLength);
      Secret source = SecretOf(text);
      Secret target = SecretOf(old);
      EXPECT_EQ(old.Copies(), 1U);
      target = std::move(source);
      EXPECT_TRUE(text.Is(target.text()));
      EXPECT_TRUE(source.empty());
      EXPECT_EQ(text.Copies(), 1U);
      EXPECT_EQ(old.Copies(), 0U);
    }
  }
}

TEST(Secret, SurvivesAnAssignmentToItself) {
  Secret secret(kLong);
  Secret& same = secret;
  secret = std::move(same);
  EXPECT_EQ(secret.text(), kLong);
}

TEST(Secret, LeavesNothingBehindWhenItGrows) {
  for (const std::size_t length : kLengths) {
    const DisguisedSecret text(length);
    {
      Secret secret = SecretOf(text);
      for (int count = 0; count < 1000; ++count) secret.Append("x");
      EXPECT_EQ(secret.size(), length + 1000);
      EXPECT_TRUE(text.Is(std::string_view(secret.text()).substr(0, length)));
      secret.Resize(100000);
      EXPECT_EQ(secret.size(), 100000U);
      EXPECT_EQ(text.Copies(), 1U);
    }
    EXPECT_EQ(text.Copies(), 0U);
  }
}

TEST(Secret, LeavesNothingBehindItsEndWhenItShrinks) {
  for (const std::size_t length : kLengths) {
    const DisguisedSecret text(length);
    Secret secret("ab");
    text.Reveal([&](const char* plain) { secret.Append(plain); });
    EXPECT_EQ(text.Copies(), 1U);
    secret.Resize(2);
    EXPECT_EQ(secret.text(), "ab");
    EXPECT_EQ(text.Copies(), 0U);
  }
}

TEST(Secret, FillsUpWithZeroBytes) {
  Secret secret("a");
  secret.Resize(3);
  EXPECT_EQ(secret.text(), std::string("a\0\0", 3));
}

TEST(Secret, CanBeWrittenTo) {
  Secret secret;
  secret.Resize(2);
  secret.data()[0] = 'o';
  secret.bytes()[1] = 'k';
  EXPECT_EQ(secret.text(), "ok");
  EXPECT_EQ(std::as_const(secret).bytes()[0], 'o');
}

TEST(Secret, ReceivesATextInThePlaceOfItsOwn) {
  for (const std::size_t length : kLengths) {
    const DisguisedSecret old(length);
    Secret secret = SecretOf(old);
    std::string* const text = secret.Receive();
    EXPECT_EQ(*text, "");
    EXPECT_EQ(old.Copies(), 0U);
    *text = "another";
    EXPECT_EQ(secret.text(), "another");
  }
}

}  // namespace
}  // namespace corvel::storage::support
