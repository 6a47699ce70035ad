#include "support/secret.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/testing/cleanse_watch.h"

namespace corvel::storage::support {
namespace {

using storage::testing::CleanseWatch;

const std::string kShort = "secret";
const std::string kLong = "a secret that is too long for the text object itself";

TEST(WipeText, OverwritesAndEmptiesTheText) {
  for (const std::string& secret : {kShort, kLong}) {
    std::string text = secret;
    CleanseWatch watch;
    WipeText(&text);
    EXPECT_EQ(text, "");
    EXPECT_TRUE(watch.Saw(secret));
  }
}

TEST(WipeText, OverwritesTheWholeCapacityInPlace) {
  std::string text = kLong;
  text.resize(3);
  const std::size_t capacity = text.capacity();
  const char* const place = text.data();
  CleanseWatch watch;
  WipeText(&text);
  ASSERT_EQ(watch.blocks().size(), 1U);
  EXPECT_EQ(watch.blocks()[0].size(), capacity);
  EXPECT_EQ(text.data(), place);
}

TEST(WipeText, TakesAnEmptyText) {
  std::string text;
  WipeText(&text);
  EXPECT_EQ(text, "");
}

TEST(ScopedWipe, WipesItsTextAtTheEndOfTheScope) {
  std::string text = kLong;
  CleanseWatch watch;
  {
    const ScopedWipe wipe(&text);
    EXPECT_EQ(text, kLong);
  }
  EXPECT_EQ(text, "");
  EXPECT_TRUE(watch.Saw(kLong));
}

TEST(ScopedWipe, WipesItsTextWhenAnExceptionPasses) {
  std::string text = kLong;
  try {
    const ScopedWipe wipe(&text);
    throw std::runtime_error("passing");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(text, "");
}

TEST(HeapText, IsWipedBeforeItIsFreed) {
  CleanseWatch watch;
  HeapText text = CopyHeapText(kLong.c_str());
  EXPECT_STREQ(text.get(), kLong.c_str());
  text.reset();
  EXPECT_TRUE(watch.Saw(kLong));
}

TEST(CopyHeapText, MakesACopyOfItsOwn) {
  std::string original = "text";
  const HeapText copy = CopyHeapText(original.c_str());
  original = "else";
  EXPECT_STREQ(copy.get(), "text");
  EXPECT_STREQ(CopyHeapText("").get(), "");
}

TEST(SecretBytes, LeaveNoCopyBehindWhenTheyGrow) {
  SecretBytes bytes(kLong.begin(), kLong.end());
  CleanseWatch watch;
  bytes.resize(bytes.capacity() + 1);
  EXPECT_TRUE(watch.Saw(kLong));
}

TEST(SecretBytes, AreWipedWhenTheyGo) {
  CleanseWatch watch;
  { const SecretBytes bytes(kLong.begin(), kLong.end()); }
  EXPECT_TRUE(watch.Saw(kLong));
}

TEST(WipingAllocator, WipesWholeElements) {
  CleanseWatch watch;
  { const std::vector<int, WipingAllocator<int>> numbers(3, 7); }
  ASSERT_FALSE(watch.blocks().empty());
  EXPECT_EQ(watch.blocks().back().size(), 3 * sizeof(int));
}

TEST(WipingAllocator, IsTheSameForEveryType) {
  EXPECT_TRUE(WipingAllocator<char>() == WipingAllocator<int>());
  EXPECT_FALSE(WipingAllocator<char>() != WipingAllocator<int>());
}

}  // namespace
}  // namespace corvel::storage::support
