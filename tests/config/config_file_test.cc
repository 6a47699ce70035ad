#include "config/config_file.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "tests/testing/outcome.h"
#include "tests/testing/temp_directory.h"

namespace {

/// True while there is no memory to open a file with.
bool memoryIsShort = false;

}  // namespace

// Takes the place of the function that file streams open their files by.
extern "C" std::FILE* fopen64(const char* path, const char* mode) {
  if (memoryIsShort) {
    errno = ENOMEM;
    return nullptr;
  }
  return reinterpret_cast<decltype(fopen64)*>(dlsym(RTLD_NEXT, "fopen64"))(path, mode);
}

namespace corvel::storage::tzconfig {
namespace {

using namespace storage::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const TZConfigFile kFile("in.cfg", "out.cfg");

// What the operations return, by its number: callers know it so.
constexpr int kRefused = -1;
constexpr int kBrokenLine = -2;
constexpr int kNoStream = -4;

std::int32_t Load(const std::string& text, TZConfig* config) {
  std::istringstream stream(text);
  return kFile.LoadConfig(&stream, config);
}

/// The text that `config` is written as.
std::string Dump(TZConfig* config) {
  std::ostringstream stream;
  EXPECT_EQ(kFile.DumpConfig(&stream, config), 0);
  return stream.str();
}

/// What reading `text`, which must be valid, and writing it again gives.
std::string Rewritten(const std::string& text) {
  TZConfig config;
  EXPECT_EQ(Load(text, &config), 0);
  return Dump(&config);
}

/// The only option of section "s".
const std::pair<const std::string, OptionValue>& OnlyOption(TZConfig* config) {
  EXPECT_EQ(config->GetOptionMap("s")->options.size(), 1U);
  return *config->GetOptionMap("s")->options.begin();
}

/// A stream's buffer that gives `text`, then fails.
class BreakingBuffer : public std::streambuf {
 public:
  explicit BreakingBuffer(std::string text) : text_(std::move(text)) {
    setg(text_.data(), text_.data(), text_.data() + text_.size());
  }

 protected:
  int_type underflow() override { throw std::runtime_error("broken off"); }

 private:
  std::string text_;
};

/// A stream's buffer that takes nothing.
class FullBuffer : public std::streambuf {};

struct LineCase {
  const char* text;
  const char* message;  ///< on standard error
};

TEST(TZConfigFileReader, RefusesLinesThatAreNotOfTheFormat) {
  const LineCase kCases[] = {
      {"[]", ""},
      {"[] x", ""},
      {"[", ""},
      {"[a", ""},
      {"[a] x", "Found invalid line: [a] x\n"},
      {"[a]]", "Found invalid line: [a]]\n"},
      {"[a][b]", "Found invalid line: [a][b]\n"},
      {"[a] # note", "Found invalid line: [a] # note\n"},
      {"[a]\v", "Found invalid line: [a]\v\n"},
      {" \t[a] x\r", "Found invalid line: [a] x\r\n"},
      {"key=value", "Found an invalid line: key=value\n"},
      {"  key = value ", "Found an invalid line: key = value \n"},
      {"novalue", "Found an invalid line: novalue\n"},
      {"=value", "Found an invalid line: =value\n"},
      {"]", "Found an invalid line: ]\n"},
      {"[s]\nnovalue", ""},
      {"[s]\n  novalue", ""},
      {"[s]\n\v", ""},
      {"[s]\n=value", "Found an invalid key: =value\n"},
      {"[s]\n \t=value", "Found an invalid key: =value\n"},
      {"[s]\n=", "Found an invalid key: =\n"},
      {"[s]\n[]", ""},
  };
  for (const LineCase& line : kCases) {
    SCOPED_TRACE(line.text);
    TZConfig config;
    ExpectResult(OutcomeOf([&] { return Load(line.text, &config); }), kBrokenLine, "",
                 line.message);
  }
}

TEST(TZConfigFileReader, StopsAtTheFirstInvalidLineAndKeepsWhatCameBefore) {
  TZConfig config;
  EXPECT_EQ(Load("[s]\na=1\nbroken\nb=2\n[t]\n", &config), kBrokenLine);
  EXPECT_EQ(Dump(&config), "[s]\na=1\n");
}

TEST(TZConfigFileReader, TakesASectionsNameAsItStands) {
  const struct {
    const char* line;
    const char* name;
  } kCases[] = {
      {"[a]", "a"},       {"[a]   ", "a"}, {"[a]\r", "a"},   {"[a] \t\r", "a"},  {"  [a]", "a"},
      {"\t[a]", "a"},     {"\r[a]", "a"},  {"[ a ]", " a "}, {"[ ]", " "},       {"[[a]", "[a"},
      {"[a\rb]", "a\rb"}, {"[#a]", "#a"},  {"[a=b]", "a=b"}, {" \r\t [a]", "a"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.line);
    TZConfig config;
    EXPECT_EQ(Load(row.line, &config), 0);
    EXPECT_THAT(config.SectionOrder(), ElementsAre(row.name));
  }
}

TEST(TZConfigFileReader, TrimsSpacesAndTabsOfKeyAndValue) {
  const struct {
    const char* line;
    const char* key;
    const char* value;
  } kCases[] = {
      {"key=value", "key", "value"},
      {"  key =  a=b  ", "key", "a=b"},
      {"\tkey\t=\tv\t", "key", "v"},
      {"\rkey=v", "key", "v"},
      {"my key=my value", "my key", "my value"},
      {"key=", "key", ""},
      {"key=   ", "key", "   "},
      {"key=\t ", "key", "\t "},
      {"key==", "key", "="},
      {"key=v\r", "key", "v\r"},
      {"key= v \r", "key", "v \r"},
      {"key=\r", "key", "\r"},
      {"key= \r ", "key", "\r"},
      {"key \r =v", "key \r", "v"},
      {"key=#v", "key", "#v"},
      {"key=[v]", "key", "[v]"},
      {"a[b]=v", "a[b]", "v"},
      {"\vkey\v=\vv\v", "\vkey\v", "\vv\v"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.line);
    TZConfig config;
    EXPECT_EQ(Load(std::string("[s]\n") + row.line, &config), 0);
    EXPECT_EQ(OnlyOption(&config).first, row.key);
    EXPECT_EQ(OnlyOption(&config).second.value, row.value);
    EXPECT_EQ(OnlyOption(&config).second.comment, "");
  }
}

TEST(TZConfigFileReader, KeepsZeroBytes) {
  using namespace std::string_literals;
  TZConfig config;
  EXPECT_EQ(Load("[s]\na\0b=\0c\0"s, &config), 0);
  EXPECT_EQ(OnlyOption(&config).first, "a\0b"s);
  EXPECT_EQ(OnlyOption(&config).second.value, "\0c\0"s);
}

TEST(TZConfigFileReader, LeavesOutLinesMadeOfBlanks) {
  EXPECT_EQ(Rewritten("\n\t\n[s]\n\n \r \na=1\n\r\n   \nb=2"), "[s]\na=1\nb=2\n");
}

TEST(TZConfigFileReader, GivesACommentBlockToTheSectionBelowIt) {
  TZConfig config;
  EXPECT_EQ(Load("#c1\n\n#c2\n[S]\nk=v\n", &config), 0);
  EXPECT_EQ(config.GetOptionMap("S")->comment, "\n#c1\n#c2");
  EXPECT_EQ(config.GetOptionMap("S")->options["k"].comment, "");
  EXPECT_EQ(Dump(&config), "\n#c1\n#c2\n[S]\nk=v\n");
}

TEST(TZConfigFileReader, GivesACommentBlockToTheOptionBelowItAlone) {
  TZConfig config;
  EXPECT_EQ(Load("[s]\n;c1\n#c2\na=1\nb=2\n", &config), 0);
  EXPECT_EQ(config.GetOptionMap("s")->comment, "");
  EXPECT_EQ(config.GetOptionMap("s")->options["a"].comment, "\n;c1\n#c2");
  EXPECT_EQ(config.GetOptionMap("s")->options["b"].comment, "");
}

TEST(TZConfigFileReader, TakesACommentLineWholeButForLeadingBlanks) {
  const struct {
    const char* line;
    const char* comment;
  } kCases[] = {{"   # note ", "\n# note "}, {"\r;note", "\n;note"},
                {"#note\r", "\n#note\r"},    {"\t#", "\n#"},
                {"#[x]", "\n#[x]"},          {";k=v", "\n;k=v"}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.line);
    TZConfig config;
    EXPECT_EQ(Load(std::string("[s]\n") + row.line + "\nk=v", &config), 0);
    EXPECT_EQ(OnlyOption(&config).second.comment, row.comment);
  }
}

TEST(TZConfigFileReader, DropsACommentBlockAtTheEnd) {
  EXPECT_EQ(Rewritten("[s]\nk=v\n#last\n"), "[s]\nk=v\n");
}

TEST(TZConfigFileReader, ContinuesARepeatedSectionUnderItsLatestComment) {
  TZConfig config;
  EXPECT_EQ(Load("#old\n[S]\na=1\n[T]\n#new\n[s]\nb=2\n", &config), 0);
  EXPECT_EQ(Dump(&config), "\n#new\n[S]\na=1\nb=2\n[T]\n");
}

TEST(TZConfigFileReader, ClearsTheCommentOfASectionThatIsRepeatedWithoutOne) {
  EXPECT_EQ(Rewritten("#old\n[S]\n[s]\n"), "[S]\n");
}

TEST(TZConfigFileReader, OverwritesARepeatedOptionAndKeepsItsComment) {
  EXPECT_EQ(Rewritten("[s]\n#c\nKey=1\nkey=2\n"), "[s]\n\n#c\nKey=2\n");
  EXPECT_EQ(Rewritten("[s]\n#c\nKey=1\n;d\nKEY=2\n"), "[s]\n\n;d\nKey=2\n");
}

TEST(TZConfigFileReader, KeepsCarriageReturnsOfValues) {
  EXPECT_EQ(Rewritten("#c\r\n[s]\r\n\r\nk=v\r\n"), "\n#c\r\n[s]\nk=v\r\n");
}

TEST(TZConfigFileReader, AcceptsAnEmptyInput) {
  TZConfig config;
  config.SetOptionValue("old", "o", "v");
  EXPECT_EQ(Load("", &config), 0);
  EXPECT_THAT(config.SectionOrder(), IsEmpty());
}

TEST(TZConfigFileReader, RefusesAnEmptyFileNameAndLeavesTheStoreAlone) {
  TZConfig config;
  config.SetOptionValue("old", "o", "v");
  ExpectResult(OutcomeOf([&] { return TZConfigFile("", "out.cfg").LoadConfig(&config); }), kRefused,
               "", "");
  EXPECT_EQ(Dump(&config), "[old]\no=v\n");
}

TEST(TZConfigFileReader, RefusesAMissingStreamOrStore) {
  TZConfig config;
  config.SetOptionValue("old", "o", "v");
  std::istringstream stream("[new]\n");
  ExpectResult(OutcomeOf([&] { return kFile.LoadConfig(nullptr, &config); }), kRefused, "", "");
  ExpectResult(OutcomeOf([&] { return kFile.LoadConfig(&stream, nullptr); }), kRefused, "", "");
  ExpectResult(OutcomeOf([&] { return kFile.LoadConfig(nullptr); }), kRefused, "", "");
  EXPECT_EQ(Dump(&config), "[old]\no=v\n");
  EXPECT_EQ(stream.tellg(), std::streampos(0));
}

TEST(TZConfigFileReader, EmptiesTheStoreAndNamesTheFileWhenItCannotBeOpened) {
  const TempDirectory directory;
  const std::string path = directory.File("missing.cfg");
  TZConfig config;
  config.SetOptionValue("old", "o", "v");
  ExpectResult(OutcomeOf([&] { return TZConfigFile(path, "out.cfg").LoadConfig(&config); }),
               kNoStream, "", "Failed to open input file:" + path + "\n");
  EXPECT_THAT(config.SectionOrder(), IsEmpty());
}

TEST(TZConfigFileReader, TakesNoFileForMissingThatItHasNoMemoryToOpen) {
  const TempDirectory directory;
  const TZConfigFile file(directory.Write("in.cfg", "[a]\nb=c\n"), "");
  TZConfig config;
  EXPECT_EQ(file.LoadConfig(&config), 0);
  memoryIsShort = true;
  EXPECT_THROW(file.LoadConfig(&config), std::bad_alloc);
  memoryIsShort = false;
}

TEST(TZConfigFileReader, EmptiesTheStoreWhenTheStreamIsBad) {
  TZConfig config;
  config.SetOptionValue("old", "o", "v");
  std::istringstream stream("[new]\n");
  stream.setstate(std::ios::failbit);
  ExpectResult(OutcomeOf([&] { return kFile.LoadConfig(&stream, &config); }), kNoStream, "",
               "Failed to open input file:in.cfg\n");
  EXPECT_THAT(config.SectionOrder(), IsEmpty());
}

TEST(TZConfigFileReader, FailsWhenTheInputBreaksOff) {
  BreakingBuffer buffer("[s]\na=1\nb=");
  std::istream stream(&buffer);
  TZConfig config;
  ExpectResult(OutcomeOf([&] { return kFile.LoadConfig(&stream, &config); }), kNoStream, "", "");
  EXPECT_EQ(Dump(&config), "[s]\na=1\n");
}

TEST(TZConfigFileReader, ReportsAnInvalidLineBeforeTheInputBreaksOff) {
  BreakingBuffer buffer("broken\n");
  std::istream stream(&buffer);
  TZConfig config;
  ExpectResult(OutcomeOf([&] { return kFile.LoadConfig(&stream, &config); }), kBrokenLine, "",
               "Found an invalid line: broken\n");
}

TEST(TZConfigFileReader, FailsOnADirectory) {
  const TempDirectory directory;
  TZConfig config;
  ExpectResult(OutcomeOf([&] { return TZConfigFile(directory.path(), "").LoadConfig(&config); }),
               kNoStream, "", "");
}

TEST(TZConfigFileReader, ReadsTheInputFile) {
  const TempDirectory directory;
  const TZConfigFile file(directory.Write("in.cfg", "[s]\nk=v"), "");
  TZConfig config;
  config.SetOptionValue("old", "o", "v");
  ExpectResult(OutcomeOf([&] { return file.LoadConfig(&config); }), 0, "", "");
  EXPECT_EQ(Dump(&config), "[s]\nk=v\n");
}

TEST(TZConfigFileWriter, WritesSectionsInOrderAndOptionsSorted) {
  TZConfig config;
  for (const char* section : {"z", "A"}) {
    for (const char* option : {"b", "A", "c"}) config.SetOptionValue(section, option, " v ");
  }
  config.GetOptionMap("empty");
  EXPECT_EQ(Dump(&config), "[z]\nA= v \nb= v \nc= v \n[A]\nA= v \nb= v \nc= v \n[empty]\n");
}

TEST(TZConfigFileWriter, MarksACommentThatIsNotMarked) {
  const struct {
    const char* comment;
    const char* written;
  } kCases[] = {
      {"note", "#note\n"},
      {"#note", "#note\n"},
      {";note", ";note\n"},
      {" note", "# note\n"},
      {"\t;note", "\t;note\n"},
      {"\n#a\nb", "\n#a\nb\n"},
      {"\n \r\tb", "#\n \r\tb\n"},
      {"a\nb", "#a\nb\n"},
      {" \n\r\t", " \n\r\t\n"},
      {"\v#", "#\v#\n"},
      {"", ""},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.comment);
    TZConfig config;
    config.SetOptionValue("s", "k", "v", row.comment);
    config.GetOptionMap("s")->comment = row.comment;
    const std::string written = row.written;
    EXPECT_EQ(Dump(&config), written + "[s]\n" + written + "k=v\n");
  }
}

TEST(TZConfigFileWriter, NormalisesAFileThatItWritesAgain) {
  const std::string text =
      "# the host\n\n[paths]\nvar = /var \n\n# keys\n# of the host\nKeydir=/keys\n\n[main]\n# end";
  const std::string normal =
      "\n# the host\n[paths]\n\n# keys\n# of the host\nKeydir=/keys\nvar=/var\n[main]\n";
  EXPECT_EQ(Rewritten(text), normal);
  EXPECT_EQ(Rewritten(normal), normal);
}

TEST(TZConfigFileWriter, StopsAtASectionWithoutAName) {
  TZConfig config;
  for (const char* section : {"a", "", "b"}) config.GetOptionMap(section);
  config.GetOptionMap("")->comment = "never shown";
  std::ostringstream stream;
  ExpectResult(OutcomeOf([&] { return kFile.DumpConfig(&stream, &config); }), kRefused, "",
               "Failed to get option list for section: \n");
  EXPECT_EQ(stream.str(), "[a]\n");
}

TEST(TZConfigFileWriter, LeavesOutTheRestOfASectionFromAnOptionThatCannotBeRead) {
  TZConfig config;
  config.SetOptionValue("a", "k", "v");
  config.GetOptionMap("a")->options[""].value = "nameless";
  config.SetOptionValue("b", "k", "v");
  std::ostringstream stream;
  ExpectResult(OutcomeOf([&] { return kFile.DumpConfig(&stream, &config); }), 0, "",
               "Failed to get value for option: \n");
  EXPECT_EQ(stream.str(), "[a]\n[b]\nk=v\n");
}

TEST(TZConfigFileWriter, RefusesAMissingStreamOrStore) {
  TZConfig config;
  config.GetOptionMap("s");
  std::ostringstream stream;
  ExpectResult(OutcomeOf([&] { return kFile.DumpConfig(nullptr, &config); }), kRefused, "", "");
  ExpectResult(OutcomeOf([&] { return kFile.DumpConfig(&stream, nullptr); }), kRefused, "", "");
  EXPECT_EQ(stream.str(), "");
}

TEST(TZConfigFileWriter, NamesTheOutputWhenTheStreamIsBad) {
  TZConfig config;
  config.GetOptionMap("s");
  std::ostringstream stream;
  stream.setstate(std::ios::badbit);
  ExpectResult(OutcomeOf([&] { return kFile.DumpConfig(&stream, &config); }), kNoStream, "",
               "Failed to open file: out.cfg\n");
}

TEST(TZConfigFileWriter, LeavesItToTheCallerToExamineTheStreamAfterwards) {
  TZConfig config;
  config.SetOptionValue("s", "k", "v");
  FullBuffer buffer;
  std::ostream stream(&buffer);
  ExpectResult(OutcomeOf([&] { return kFile.DumpConfig(&stream, &config); }), 0, "", "");
  EXPECT_TRUE(stream.bad());
}

}  // namespace
}  // namespace corvel::storage::tzconfig
