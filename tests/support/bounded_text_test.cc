#include "support/bounded_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace corvel::storage::support {
namespace {

/// A buffer of `size` bytes that begins as `text`; every byte behind is "#".
std::vector<char> Buffer(std::size_t size, const std::string& text) {
  std::vector<char> buffer(size, '#');
  std::copy_n(text.c_str(), text.size() + 1, buffer.begin());
  return buffer;
}

TEST(BoundedCopy, CopiesATextThatFitsExactly) {
  std::vector<char> out = Buffer(4, "");
  EXPECT_TRUE(BoundedCopy(out.data(), out.size(), "abc"));
  EXPECT_STREQ(out.data(), "abc");
}

TEST(BoundedCopy, CopiesTheEmptyText) {
  std::vector<char> out = Buffer(1, "");
  EXPECT_TRUE(BoundedCopy(out.data(), out.size(), ""));
  EXPECT_STREQ(out.data(), "");
}

TEST(BoundedCopy, ReplacesWhatWasThere) {
  std::vector<char> out = Buffer(8, "before");
  EXPECT_TRUE(BoundedCopy(out.data(), out.size(), "x"));
  EXPECT_STREQ(out.data(), "x");
}

TEST(BoundedCopy, CutsATextThatDoesNotFit) {
  std::vector<char> out = Buffer(4, "old");
  EXPECT_FALSE(BoundedCopy(out.data(), out.size(), "abcd"));
  EXPECT_STREQ(out.data(), "abc");
  EXPECT_FALSE(BoundedCopy(out.data(), 1, "x"));
  EXPECT_STREQ(out.data(), "");
}

TEST(BoundedCopy, LeavesABufferWithoutRoomAlone) {
  char out = '#';
  EXPECT_FALSE(BoundedCopy(&out, 0, ""));
  EXPECT_EQ(out, '#');
}

TEST(BoundedAppend, AppendsATextThatFitsExactly) {
  std::vector<char> out = Buffer(6, "ab");
  EXPECT_TRUE(BoundedAppend(out.data(), out.size(), "cde"));
  EXPECT_STREQ(out.data(), "abcde");
}

TEST(BoundedAppend, AppendsTheEmptyTextToAFullBuffer) {
  std::vector<char> out = Buffer(3, "ab");
  EXPECT_TRUE(BoundedAppend(out.data(), out.size(), ""));
  EXPECT_STREQ(out.data(), "ab");
}

TEST(BoundedAppend, LeavesTheBufferAsItWasWhenTheTextDoesNotFit) {
  std::vector<char> out = Buffer(6, "ab");
  EXPECT_FALSE(BoundedAppend(out.data(), out.size(), "cdef"));
  EXPECT_EQ(std::string(out.data(), out.size()), std::string("ab\0###", 6));
}

TEST(BoundedAppend, RefusesABufferWithoutATerminator) {
  std::vector<char> out(3, '#');
  EXPECT_FALSE(BoundedAppend(out.data(), out.size(), ""));
  EXPECT_EQ(std::string(out.data(), out.size()), "###");
}

}  // namespace
}  // namespace corvel::storage::support
