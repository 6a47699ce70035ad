#include "benchmarks/corpora.h"

#include <random>

namespace corvel::storage::benchmarks {
namespace {

constexpr unsigned kSeed = 20;

/// Lower-case words of a fixed sequence.
class Words {
 public:
  std::string Next(std::size_t shortest, std::size_t longest) {
    const std::size_t length = shortest + random_() % (longest - shortest + 1);
    std::string word;
    for (std::size_t index = 0; index < length; ++index) {
      word += static_cast<char>('a' + random_() % 26);
    }
    return word;
  }

 private:
  std::mt19937 random_{kSeed};
};

std::string Numbered(const char* stem, std::size_t number) { return stem + std::to_string(number); }

std::string Table(const std::string& names, const std::string& types, const std::string& records) {
  return "***BEGIN***\n0\n" + names + "\n" + types + "\n" + records + "***DONE***\n";
}

/// `first`, then `count` - 1 times "|" and `next`.
std::string Columns(const std::string& first, const std::string& next, std::size_t count) {
  std::string line = first;
  for (std::size_t column = 1; column < count; ++column) line.append("|").append(next);
  return line;
}

}  // namespace

std::string ConfigFile(std::size_t size) {
  Words words;
  std::string text;
  for (std::size_t line = 0; text.size() < size; ++line) {
    if (line % 100 == 0) {
      text += "[" + Numbered("Section", line / 100) + "]\n";
    } else if (line % 10 == 5) {
      text += "# " + words.Next(20, 60) + "\n";
    } else {
      text += words.Next(6, 18) + "=/" + words.Next(10, 40) + "\n";
    }
  }
  return text;
}

std::string OptionsBehindComment(std::size_t commentSize, std::size_t lines) {
  return "[section]\n#" + std::string(commentSize, 'c') + "\n" + OneSection(lines).substr(10);
}

std::string OneSection(std::size_t count) {
  std::string text = "[section]\n";
  for (std::size_t index = 0; index < count; ++index) {
    text += Numbered("option", index) + "=value\n";
  }
  return text;
}

std::string ManySections(std::size_t count) {
  std::string text;
  for (std::size_t index = 0; index < count; ++index) {
    text += "[" + Numbered("Section", index) + "]\noption=value\n";
  }
  return text;
}

std::string OneLargeOption(std::size_t size) {
  return "[section]\noption=" + std::string(size, 'v') + "\n";
}

std::string Records(std::size_t records) {
  Words words;
  std::string lines;
  for (std::size_t index = 0; index < records; ++index) {
    lines += std::to_string(index) + "|agent" + std::to_string(index) + "|" + words.Next(8, 24) +
             "|" + words.Next(4, 12) + "|20|" + words.Next(2, 30) + "\n";
  }
  return Table("agentid|login|hostName|version|osType|description", "I|S|S|S|I|S", lines);
}

std::string WideRecords(std::size_t columns) {
  std::string lines;
  for (int record = 0; record < 10; ++record) lines += Columns("1", "value", columns) + "\n";
  std::string names = "column0";
  for (std::size_t column = 1; column < columns; ++column) names += Numbered("|column", column);
  return Table(names, Columns("I", "S", columns), lines);
}

std::string OneLargeValue(std::size_t size) {
  return Table("returnvalue", "S", std::string(size, 'v') + "\n");
}

}  // namespace corvel::storage::benchmarks
