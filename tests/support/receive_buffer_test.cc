#include "support/receive_buffer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace corvel::storage::support {
namespace {

constexpr std::size_t kMebibyte = 1u << 20;
constexpr std::size_t kLongestAnswer = 256 * kMebibyte;

void ExpectEmpty(const ReceiveBuffer& buffer) {
  EXPECT_EQ(buffer.data, nullptr);
  EXPECT_EQ(buffer.size, 0U);
}

void Append(const std::string& bytes, ReceiveBuffer* buffer) {
  ASSERT_TRUE(buffer->Append(bytes.data(), bytes.size()));
}

TEST(ReceiveBuffer, IsEmptyWhenNew) { ExpectEmpty(ReceiveBuffer()); }

TEST(ReceiveBuffer, AddsBytesBehindTheOldEndAndTerminatesThem) {
  ReceiveBuffer buffer;
  Append("one", &buffer);
  EXPECT_STREQ(buffer.data, "one");
  Append("", &buffer);
  Append(" two", &buffer);
  EXPECT_STREQ(buffer.data, "one two");
  EXPECT_EQ(buffer.size, 7U);
}

TEST(ReceiveBuffer, KeepsZeroBytes) {
  ReceiveBuffer buffer;
  Append(std::string("a\0b", 3), &buffer);
  EXPECT_EQ(std::string(buffer.data, buffer.size + 1), std::string("a\0b\0", 4));
}

TEST(ReceiveBuffer, HasATextAfterNoBytes) {
  ReceiveBuffer buffer;
  EXPECT_TRUE(buffer.Append(nullptr, 0));
  EXPECT_EQ(buffer.size, 0U);
  EXPECT_STREQ(buffer.data, "");
}

TEST(ReceiveBuffer, KeepsItsContentWhileItGrows) {
  ReceiveBuffer buffer;
  std::string expected;
  for (const std::size_t count : {kMebibyte - 1, std::size_t{1}, std::size_t{1}, kMebibyte}) {
    const std::string part(count, static_cast<char>('a' + expected.size() % 26));
    Append(part, &buffer);
    expected += part;
    ASSERT_EQ(buffer.size, expected.size());
    ASSERT_TRUE(buffer.data == expected);
  }
}

TEST(ReceiveBuffer, TakesAnAnswerOfTheGreatestLength) {
  ReceiveBuffer buffer;
  const std::string part(16 * kMebibyte, 'x');
  for (int count = 0; count < 16; ++count) Append(part, &buffer);
  EXPECT_EQ(buffer.size, kLongestAnswer);
  EXPECT_EQ(buffer.data[kLongestAnswer], '\0');
  EXPECT_TRUE(buffer.Append("", 0));
  EXPECT_FALSE(buffer.Append("x", 1));
  ExpectEmpty(buffer);
}

TEST(ReceiveBuffer, DropsEverythingWhenAnAnswerIsTooLong) {
  const std::string text = "small";
  for (const std::size_t count : {kLongestAnswer - 4, SIZE_MAX, SIZE_MAX - 4, SIZE_MAX - 5}) {
    SCOPED_TRACE(count);
    ReceiveBuffer buffer;
    Append(text, &buffer);
    EXPECT_FALSE(buffer.Append(text.data(), count));
    ExpectEmpty(buffer);
  }
}

TEST(ReceiveBuffer, CanBeFilledAgainAfterAFailure) {
  ReceiveBuffer buffer;
  EXPECT_FALSE(buffer.Append("x", SIZE_MAX));
  Append("again", &buffer);
  EXPECT_STREQ(buffer.data, "again");
}

TEST(ReceiveBuffer, IsEmptyAfterItsRelease) {
  ReceiveBuffer buffer;
  Append("text", &buffer);
  buffer.Release();
  ExpectEmpty(buffer);
  buffer.Release();
  ExpectEmpty(buffer);
}

TEST(ReceiveBuffer, HandsItsBlockOver) {
  ReceiveBuffer buffer;
  Append("text", &buffer);
  char* const block = buffer.TakeData();
  ExpectEmpty(buffer);
  EXPECT_STREQ(block, "text");
  std::free(block);
  EXPECT_EQ(buffer.TakeData(), nullptr);
}

TEST(ReceiveBuffer, TakesNothingBehindItsDeadline) {
  ReceiveBuffer buffer;
  buffer.deadline = std::chrono::steady_clock::now() + std::chrono::hours(1);
  Append("text", &buffer);
  buffer.deadline = std::chrono::steady_clock::now() - std::chrono::seconds(1);
  EXPECT_FALSE(buffer.Append("x", 1));
  ExpectEmpty(buffer);
}

TEST(HeaderCallback, CountsWhatItDoesNotKeep) {
  ReceiveBuffer buffer;
  char line[] = "X: y\r\n";
  EXPECT_EQ(header_callback(line, 1, 6, &buffer), 6U);
  EXPECT_EQ(header_callback(line, 3, 2, &buffer), 6U);
  EXPECT_EQ(buffer.headerBytes, 12U);
  ExpectEmpty(buffer);
}

TEST(HeaderCallback, EndsTheTransferBehindAMebibyte) {
  ReceiveBuffer buffer;
  std::string lines(kMebibyte - 1, 'x');
  EXPECT_EQ(header_callback(lines.data(), 1, lines.size(), &buffer), lines.size());
  EXPECT_EQ(header_callback(lines.data(), 1, 1, &buffer), 1U);
  EXPECT_EQ(header_callback(lines.data(), 1, 1, &buffer), 0U);
}

TEST(HeaderCallback, EndsTheTransferBehindTheDeadline) {
  ReceiveBuffer buffer;
  buffer.deadline = std::chrono::steady_clock::now() - std::chrono::seconds(1);
  char line[] = "X: y\r\n";
  EXPECT_EQ(header_callback(line, 1, 6, &buffer), 0U);
}

TEST(DataCallback, AppendsAndTerminates) {
  ReceiveBuffer buffer;
  char bytes[] = {'a', 'b', '\0', 'd'};
  EXPECT_EQ(data_callback(bytes, 2, 2, &buffer), 4u);
  EXPECT_EQ(data_callback(bytes, 1, 1, &buffer), 1u);
  ASSERT_EQ(buffer.size, 5u);
  EXPECT_EQ(std::string(buffer.data, 6), std::string("ab\0da\0", 6));
}

TEST(DataCallback, MakesAnEmptyTextOfNoBytes) {
  ReceiveBuffer buffer;
  EXPECT_EQ(data_callback(nullptr, 1, 0, &buffer), 0u);
  ASSERT_NE(buffer.data, nullptr);
  EXPECT_STREQ(buffer.data, "");
}

TEST(DataCallback, TakesNothingWithoutABuffer) {
  char bytes[] = "ab";
  EXPECT_EQ(data_callback(bytes, 1, 2, nullptr), 0u);
}

TEST(DataCallback, EmptiesTheBufferWhenTheAnswerBecomesTooLong) {
  ReceiveBuffer buffer;
  char bytes[] = "ab";
  ASSERT_EQ(data_callback(bytes, 1, 2, &buffer), 2u);
  EXPECT_EQ(data_callback(bytes, 1, kLongestAnswer, &buffer), 0u);
  EXPECT_EQ(buffer.data, nullptr);
  EXPECT_EQ(buffer.size, 0u);
}

}  // namespace
}  // namespace corvel::storage::support
