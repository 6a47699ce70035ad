#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "config/config_file.h"
#include "tests/config/config_model.h"
#include "tests/testing/output_capture.h"

namespace corvel::storage::tzconfig {
namespace {

using storage::testing::ConfigModel;
using storage::testing::Folded;
using storage::testing::ModelOption;
using storage::testing::ModelSection;

constexpr int kInputs = 20000;

/// Makes configuration texts, mostly valid ones, from a fixed seed. Names come
/// from a small set so that they meet again, in other letter cases too.
class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  std::string Text() {
    // Most texts hold no broken line: the reader would not get behind it.
    brokenPercent_ = Chance(30) ? 15 : 0;
    std::string text = Chance(90) ? Header() + LineEnd() : "";
    const unsigned lines = Below(20);
    for (unsigned line = 0; line < lines; ++line) text += Line() + LineEnd();
    if (!text.empty() && Chance(40)) text.pop_back();
    return text;
  }

 private:
  unsigned Below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
  bool Chance(unsigned percent) { return Below(100) < percent; }
  std::string LineEnd() { return Chance(15) ? "\r\n" : "\n"; }

  std::string Characters(const std::string& alphabet, unsigned limit) {
    std::string text;
    for (unsigned length = Below(limit); length > 0; --length) {
      text += alphabet[Below(static_cast<unsigned>(alphabet.size()))];
    }
    return text;
  }

  std::string Blanks() { return Chance(60) ? "" : Characters(" \t\r", 4); }

  std::string Junk(unsigned limit) {
    using namespace std::string_literals;
    return Characters("aB1_ \t\r\v=[]#;\0\xe9\xc4"s, limit);
  }

  std::string Name() {
    static const std::vector<std::string> kNames = {
        "a", "A", "b", "B", "paths", "Paths", "key_", "KEYz", "my key", "\xe4", "\xc4"};
    std::string name = kNames[Below(static_cast<unsigned>(kNames.size()))];
    if (Chance(10)) name += '\0' + Characters("ab", 3);
    if (Chance(10)) name += Characters(" \t\r#;[", 3) + "n";
    return name;
  }

  std::string Header() {
    const std::string padding = Chance(20) ? " " : "";
    return Blanks() + "[" + padding + Name() + padding + "]" + Blanks();
  }

  std::string Option() {
    return Blanks() + Name() + Blanks() + "=" + Blanks() + (Chance(20) ? "" : Junk(12)) + Blanks();
  }

  std::string Comment() { return Blanks() + (Chance(50) ? "#" : ";") + Junk(10); }

  std::string Broken() {
    switch (Below(6)) {
      case 0:
        return Blanks() + "[]" + Blanks();
      case 1:
        return "[" + Name();
      case 2:
        return Header() + "x" + Blanks();
      case 3:
        return Blanks() + Name();
      case 4:
        return Blanks() + "=" + Junk(5);
      default:
        return Junk(15);
    }
  }

  std::string Line() {
    if (Chance(brokenPercent_)) return Broken();
    const unsigned kind = Below(10);
    if (kind < 5) return Option();
    if (kind < 7) return Comment();
    return kind < 9 ? Header() : Blanks();
  }

  std::mt19937 random_;
  unsigned brokenPercent_ = 0;
};

std::string Dump(TZConfig* config) {
  std::ostringstream stream;
  return TZConfigFile("", "").DumpConfig(&stream, config) == kSuccess ? stream.str() : "refused";
}

std::int32_t Load(const std::string& text, TZConfig* config) {
  std::istringstream stream(text);
  return TZConfigFile("", "").LoadConfig(&stream, config);
}

/// A store in the model's form, options in the store's own order.
std::vector<ModelSection> Contents(TZConfig* config) {
  std::vector<ModelSection> contents;
  for (const std::string_view section : config->SectionOrder()) {
    const std::string name(section);
    const SectionOptionMap* const map = config->GetOptionMap(name);
    contents.push_back({name, map->comment, {}});
    for (const auto& [option, entry] : map->options) {
      contents.back().options.push_back({option, entry.value, entry.comment});
    }
  }
  return contents;
}

bool NamedBefore(const ModelOption& a, const ModelOption& b) {
  return Folded(a.name) < Folded(b.name);
}

std::vector<ModelSection> WithSortedOptions(std::vector<ModelSection> sections) {
  for (ModelSection& section : sections) {
    std::sort(section.options.begin(), section.options.end(), NamedBefore);
  }
  return sections;
}

/// What went wrong with `text`, printable; nothing when all is well.
std::string Complaint(const char* broken, const std::string& text) {
  return std::string(broken) + ": " + ::testing::PrintToString(text);
}

/// Calls `check`, which returns a complaint or nothing, for generated texts
/// until one complains. Standard error is captured meanwhile.
template <typename Check>
std::string FirstComplaint(unsigned seed, const Check& check, std::string* printed) {
  Generator generator(seed);
  storage::testing::OutputCapture output;
  std::string complaint;
  for (int input = 0; input < kInputs && complaint.empty(); ++input) {
    complaint = check(generator.Text());
  }
  *printed = output.Stderr();
  return complaint;
}

std::string CheckFixedPoint(const std::string& text) {
  TZConfig first;
  Load(text, &first);
  const std::string written = Dump(&first);
  TZConfig second;
  if (Load(written, &second) != kSuccess) return Complaint("cannot be read again", text);
  if (!(Contents(&first) == Contents(&second))) return Complaint("reads differently", text);
  return Dump(&second) == written ? "" : Complaint("writes differently", text);
}

std::string CheckAgainstModel(const ConfigModel& model, const std::string& text) {
  TZConfig config;
  if (Load(text, &config) != model.result) return Complaint("result", text);
  const std::vector<ModelSection> expected = WithSortedOptions(model.sections);
  if (!(Contents(&config) == expected)) return Complaint("contents", text);
  return Dump(&config) == model.Text() ? "" : Complaint("text", text);
}

TEST(TZConfigFileProperty, WritingWhatWasReadIsAFixedPoint) {
  std::string printed;
  EXPECT_EQ(FirstComplaint(1, CheckFixedPoint, &printed), "");
}

TEST(TZConfigFileProperty, ReaderAndWriterAgreeWithAnIndependentModel) {
  std::string messages;
  std::string printed;
  const auto check = [&](const std::string& text) {
    const ConfigModel model(text);
    messages += model.messages;
    return CheckAgainstModel(model, text);
  };
  EXPECT_EQ(FirstComplaint(2, check, &printed), "");
  EXPECT_EQ(printed, messages);
}

/// How often something happened in the generated texts.
class Tally {
 public:
  void Count(const ConfigModel& model) {
    ++seen_[model.result == kSuccess ? "valid" : "invalid"];
    for (const char* kind : {"invalid line: ", "an invalid line: ", "an invalid key: "}) {
      if (model.messages.rfind("Found " + std::string(kind), 0) == 0) ++seen_[kind];
    }
    if (model.result != kSuccess && model.messages.empty()) ++seen_["silent"];
    for (const ModelSection& section : model.sections) Count(section);
  }

  const std::map<std::string, int>& seen() const { return seen_; }

 private:
  void Count(const ModelSection& section) {
    if (!section.comment.empty()) ++seen_["commented section"];
    for (const ModelOption& option : section.options) {
      if (!option.comment.empty()) ++seen_["commented option"];
      if (option.value.find_first_not_of(" \t") == std::string::npos) ++seen_["blank value"];
      if (option.name.find('\0') != std::string::npos) ++seen_["zero byte"];
    }
  }

  std::map<std::string, int> seen_;
};

TEST(TZConfigFileProperty, InputsReachEveryRuleOfTheFormat) {
  Generator generator(2);
  Tally tally;
  for (int input = 0; input < kInputs; ++input) tally.Count(ConfigModel(generator.Text()));
  EXPECT_EQ(tally.seen().size(), 10U) << ::testing::PrintToString(tally.seen());
  for (const auto& [what, times] : tally.seen()) EXPECT_GE(times, 100) << what;
}

}  // namespace
}  // namespace corvel::storage::tzconfig
