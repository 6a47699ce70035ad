// The command line: whatever stands on it is parsed or refused, and the password
// that the program works with no longer stands in the process's own arguments.

#include "frontend/options.h"

#include <algorithm>
#include <exception>
#include <vector>

#include "frontend/argument_guard.h"
#include "fuzz/fuzzing.h"
#include "support/parsed_options.h"

namespace {

using namespace corvel::storage::fuzzing;
namespace tzregister = corvel::storage::tzregister;
namespace po = boost::program_options;

constexpr std::size_t kMostWords = 40;

/// The words of a command line, one per line of the input.
std::vector<std::string> WordsOf(std::string text) {
  std::vector<std::string> words = {"tzregister"};
  while (!text.empty() && words.size() < kMostWords) {
    words.emplace_back(TakeUntil('\n', &text).c_str());
  }
  return words;
}

std::vector<char*> PointersTo(std::vector<std::string>* words) {
  std::vector<char*> pointers;
  for (std::string& word : *words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// True when the word that holds `password` was overwritten.
bool IsMasked(const std::string& password, const std::vector<std::string>& before,
              const std::vector<std::string>& after) {
  for (std::size_t index = 0; index < before.size(); ++index) {
    const bool held = before[index] == password || before[index] == "--passwd=" + password;
    if (held && after[index] != before[index]) return true;
  }
  return password.find_first_not_of('*') == std::string::npos;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::string> before = WordsOf(TextOf(data, size));
  std::vector<std::string> words = before;
  const std::vector<char*> pointers = PointersTo(&words);
  const int count = static_cast<int>(words.size());
  tzregister::ArgumentGuard guard(count, const_cast<char**>(pointers.data()));
  const po::options_description description = tzregister::DescribeOptions();
  po::variables_map options;
  try {
    tzregister::ParseOptions(count, guard.argv(), description, &options);
  } catch (const std::exception&) {
    return 0;
  }
  for (const auto& option : options) {
    Expect(description.find_nothrow(option.first, false) != nullptr, "an option is a known one");
  }
  guard.RestorePassword(&options);
  const corvel::storage::support::ParsedOptions parsed(options);
  if (parsed.Has("passwd")) {
    Expect(IsMasked(parsed.SecretText("passwd").text(), before, words), "the password is masked");
  }
  return 0;
}
