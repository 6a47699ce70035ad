#include "support/secret.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "tests/testing/heap_watch.h"

namespace corvel::storage::support {
namespace {

using storage::testing::FreedTextWatch;

const std::string kShort = "secret";
const std::string kLong = "a secret that is too long for the text object itself";

/// True when `text` stands anywhere in the object at `object` itself.
template <typename Object>
bool LiesInside(const Object& object, const std::string& text) {
  return memmem(&object, sizeof(object), text.data(), text.size()) != nullptr;
}

/// Memory for a Secret that can be looked at after the object has gone.
class Place {
 public:
  template <typename... Arguments>
  Secret* Make(Arguments&&... arguments) {
    return new (bytes_) Secret(std::forward<Arguments>(arguments)...);
  }
  bool Holds(const std::string& text) const {
    return memmem(bytes_, sizeof(bytes_), text.data(), text.size()) != nullptr;
  }

 private:
  alignas(Secret) unsigned char bytes_[sizeof(Secret)] = {};
};

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
  for (const std::string& text : {kShort, kLong}) {
    Place place;
    Secret* const secret = place.Make(text);
    const FreedTextWatch watch(text);
    secret->~Secret();
    EXPECT_FALSE(watch.seen());
    EXPECT_FALSE(place.Holds(text));
  }
}

TEST(Secret, LeavesNothingBehindWhenItMoves) {
  for (const std::string& text : {kShort, kLong}) {
    const FreedTextWatch watch(text);
    Secret source(text);
    const Secret target(std::move(source));
    EXPECT_FALSE(LiesInside(source, text));
    EXPECT_EQ(target.text(), text);
    EXPECT_FALSE(watch.seen());
  }
}

TEST(Secret, LeavesNeitherTextBehindWhenItIsAssignedTo) {
  const std::string old = "an older secret, too long for the object as well";
  Secret source(kShort);
  Secret target(old);
  const FreedTextWatch watch(old);
  target = std::move(source);
  EXPECT_EQ(target.text(), kShort);
  EXPECT_TRUE(source.empty());
  EXPECT_FALSE(LiesInside(source, kShort));
  EXPECT_FALSE(watch.seen());
}

TEST(Secret, SurvivesAnAssignmentToItself) {
  Secret secret(kLong);
  Secret& same = secret;
  secret = std::move(same);
  EXPECT_EQ(secret.text(), kLong);
}

TEST(Secret, LeavesNothingBehindWhenItGrows) {
  const FreedTextWatch watch(kLong);
  {
    Secret secret(kLong);
    for (int count = 0; count < 1000; ++count) secret.Append("x");
    EXPECT_EQ(secret.size(), kLong.size() + 1000);
    EXPECT_EQ(secret.text().compare(0, kLong.size(), kLong), 0);
    secret.Resize(100000);
    EXPECT_EQ(secret.size(), 100000U);
  }
  EXPECT_FALSE(watch.seen());
}

TEST(Secret, LeavesNothingBehindItsEndWhenItShrinks) {
  Secret secret(kLong);
  secret.Resize(2);
  EXPECT_EQ(secret.text(), "a ");
  EXPECT_EQ(memmem(secret.data(), kLong.size(), "secret", 6), nullptr);
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
  for (const std::string& old : {kShort, kLong}) {
    const FreedTextWatch watch(old);
    Secret secret(old);
    std::string* const text = secret.Receive();
    EXPECT_EQ(*text, "");
    EXPECT_FALSE(LiesInside(secret, old));
    *text = "another";
    EXPECT_EQ(secret.text(), "another");
    EXPECT_FALSE(watch.seen());
  }
}

}  // namespace
}  // namespace corvel::storage::support
