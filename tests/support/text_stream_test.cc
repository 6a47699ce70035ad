#include "support/text_stream.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>

// Lets a sanitizer refuse memory as the system does, instead of ending the program.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace corvel::storage::support {
namespace {

TEST(TextWriter, HasNoTextAtFirst) {
  const TextWriter writer;
  EXPECT_TRUE(writer.good());
  EXPECT_EQ(writer.text(), "");
}

TEST(TextWriter, CollectsPiecesOfEveryKind) {
  TextWriter writer;
  writer << "a" << 'b' << 42 << std::string() << std::string("x\0y", 3) << '\n' << std::flush;
  writer.put('\xff');
  EXPECT_EQ(writer.text(), std::string("ab42x\0y\n\xff", 9));
}

TEST(TextWriter, GrowsWithoutLosingAnything) {
  TextWriter writer;
  std::string expected;
  for (const std::size_t count : {1u, 100'000u, 1u, 3'000'000u, 2u, 1'000u}) {
    const std::string piece(count, static_cast<char>('a' + expected.size() % 26));
    writer << piece;
    expected += piece;
    ASSERT_TRUE(writer.text() == expected);
  }
}

TEST(TextWriter, ThrowsWhenMemoryIsShortAndKeepsWhatThereIs) {
  TextWriter writer;
  writer << "kept";
  // Never read: no memory is to be had for it.
  constexpr auto kTooMuch = static_cast<std::streamsize>(PTRDIFF_MAX - 1);
  EXPECT_THROW(writer.write("x", kTooMuch), std::bad_alloc);
  EXPECT_EQ(writer.text(), "kept");
}

TEST(TextReader, ReadsTheTextLineByLine) {
  const std::string text("one\n\ntwo\0x\nlast", 15);
  TextReader reader(text);
  std::string line;
  std::string lines;
  while (std::getline(reader, line)) lines += "<" + line + ">";
  EXPECT_EQ(lines, std::string("<one><><two\0x><last>", 20));
  EXPECT_TRUE(reader.eof());
}

TEST(TextReader, FindsNothingInAnEmptyText) {
  TextReader reader("");
  EXPECT_TRUE(reader.good());
  EXPECT_EQ(reader.get(), std::char_traits<char>::eof());
}

}  // namespace
}  // namespace corvel::storage::support
