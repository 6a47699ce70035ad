#include "benchmarks/peers.h"

#include <SimpleIni.h>
#include <ini.h>
#include <iniparser/iniparser.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string_view>
#include <vector>

#include "support/handle.h"

namespace corvel::storage::benchmarks {
namespace {

constexpr std::size_t kHeaderLines = 4;  ///< of a table: mark, count, names, types

using PlainMap = std::map<std::string, std::map<std::string, std::string>>;

PlainMap ReadPlainMap(const std::string& text) {
  PlainMap sections;
  std::istringstream lines(text);
  std::string line;
  std::string section;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '[') {
      section = line.substr(1, line.find(']') - 1);
      continue;
    }
    const std::size_t equals = line.find('=');
    sections[section][line.substr(0, equals)] = line.substr(equals + 1);
  }
  return sections;
}

/// The next line of `*text`, which then begins behind it.
std::string_view TakeUpTo(char end, std::string_view* text) {
  const std::size_t length = std::min(text->find(end), text->size());
  const std::string_view piece = text->substr(0, length);
  text->remove_prefix(std::min(length + 1, text->size()));
  return piece;
}

/// What stands behind the header lines of a table; its names in `*names`.
std::string_view Body(const std::string& text, std::vector<std::string>* names) {
  std::string_view rest = text;
  for (std::size_t line = 0; line < kHeaderLines; ++line) {
    std::string_view header = TakeUpTo('\n', &rest);
    while (line == 2 && !header.empty()) names->emplace_back(TakeUpTo('|', &header));
  }
  return rest;
}

/// inih's callback: adds up the bytes of an option.
int CountBytes(void* bytes, const char* /*section*/, const char* name, const char* value) {
  *static_cast<std::size_t*>(bytes) += std::strlen(name) + std::strlen(value);
  return 1;
}

}  // namespace

std::size_t ReadWithSimpleIni(const std::string& text) {
  CSimpleIniA file;
  file.LoadData(text);
  return static_cast<std::size_t>(file.GetSectionSize("Section0"));
}

std::size_t ReadWithInih(const std::string& text) {
  std::size_t bytes = 0;
  ini_parse_string(text.c_str(), CountBytes, &bytes);
  return bytes;
}

std::size_t ReadWithIniparser(const std::string& text) {
  // It reads files alone; this one is in memory.
  char name[] = "/dev/shm/tzregister-benchmark-XXXXXX";
  const int descriptor = mkstemp(name);
  FILE* const file = descriptor < 0 ? nullptr : fdopen(descriptor, "w");
  if (file == nullptr) return 0;
  std::fwrite(text.data(), 1, text.size(), file);
  std::fclose(file);
  dictionary* const options = iniparser_load(name);
  std::remove(name);
  const int sections = iniparser_getnsec(options);
  iniparser_freedict(options);
  return static_cast<std::size_t>(sections);
}

std::size_t RewriteWithSimpleIni(const std::string& text) {
  CSimpleIniA file;
  file.SetSpaces(false);
  file.LoadData(text);
  std::string written;
  file.Save(written);
  return written.size();
}

std::size_t RewriteWithPropertyTree(const std::string& text) {
  boost::property_tree::ptree tree;
  std::istringstream in(text);
  boost::property_tree::read_ini(in, tree);
  std::ostringstream out;
  boost::property_tree::write_ini(out, tree);
  return out.str().size();
}

std::size_t RewriteWithPlainMap(const std::string& text) {
  std::ostringstream out;
  for (const auto& [section, options] : ReadPlainMap(text)) {
    out << '[' << section << "]\n";
    for (const auto& [name, value] : options) out << name << '=' << value << '\n';
  }
  return out.str().size();
}

std::size_t ReadRecordsIntoMaps(const std::string& text) {
  std::vector<std::string> names;
  std::istringstream lines{std::string(Body(text, &names))};
  std::vector<std::map<std::string, std::string>> records;
  std::string line;
  while (std::getline(lines, line) && line != "***DONE***") {
    std::istringstream values(line);
    std::map<std::string, std::string> record;
    std::string value;
    for (std::size_t index = 0; std::getline(values, value, '|'); ++index) {
      record[names[index]] = value;
    }
    records.push_back(record);
  }
  return records.size();
}

std::size_t ReadRecordsIntoTunedMaps(const std::string& text) {
  std::vector<std::string> names;
  std::string_view rest = Body(text, &names);
  std::vector<std::map<std::string_view, std::string>> records;
  for (std::string_view line = TakeUpTo('\n', &rest); line != "***DONE***";
       line = TakeUpTo('\n', &rest)) {
    auto& record = records.emplace_back();
    for (const std::string& name : names) record.try_emplace(name, TakeUpTo('|', &line));
  }
  return records.size();
}

std::size_t CopyEachValue(const std::string& text) {
  std::vector<std::string> names;
  std::string_view rest = Body(text, &names);
  std::vector<support::HeapText> values;
  for (std::string_view line = TakeUpTo('\n', &rest); line != "***DONE***";
       line = TakeUpTo('\n', &rest)) {
    while (!line.empty()) {
      const std::string_view value = TakeUpTo('|', &line);
      values.emplace_back(strndup(value.data(), value.size()));
    }
  }
  return values.size();
}

}  // namespace corvel::storage::benchmarks
