#ifndef TESTS_CONFIG_CONFIG_MODEL_H_
#define TESTS_CONFIG_CONFIG_MODEL_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "config/config.h"

// A second reading of the format of configuration files, for the reader and the
// writer to be held against.

namespace corvel::storage::testing {

struct ModelOption {
  std::string name;
  std::string value;
  std::string comment;
};

struct ModelSection {
  std::string name;
  std::string comment;
  std::vector<ModelOption> options;  ///< in the order of their first appearance
};

inline bool operator==(const ModelOption& a, const ModelOption& b) {
  return a.name == b.name && a.value == b.value && a.comment == b.comment;
}

inline bool operator==(const ModelSection& a, const ModelSection& b) {
  return a.name == b.name && a.comment == b.comment && a.options == b.options;
}

/// What names are compared by: lower case, up to a zero byte.
inline std::string Folded(const std::string& name) {
  std::string folded = name.c_str();
  for (char& c : folded) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return folded;
}

template <typename Named>
Named* FindOrAdd(const std::string& name, std::vector<Named>* all) {
  for (Named& one : *all) {
    if (Folded(one.name) == Folded(name)) return &one;
  }
  all->emplace_back();
  all->back().name = name;
  return &all->back();
}

/// The format once more: an automaton that eats a text byte by byte.
class ConfigModel {
 public:
  explicit ConfigModel(const std::string& text) {
    for (const char c : text) Feed(c);
    Feed('\n');
  }

  std::int32_t result = 0;
  std::string messages;
  std::vector<ModelSection> sections;

  std::string Text() const {
    std::string text;
    for (const ModelSection& section : sections) {
      text += Block(section.comment) + "[" + section.name + "]\n";
      std::map<std::string, ModelOption> sorted;
      for (const ModelOption& option : section.options) sorted[Folded(option.name)] = option;
      for (const auto& [folded, option] : sorted) {
        text += Block(option.comment) + option.name + "=" + option.value + "\n";
      }
    }
    return text;
  }

 private:
  enum class State {
    kStart,
    kComment,
    kName,
    kBehindHeader,
    kBadHeader,
    kKey,
    kNoKey,
    kBlankValue,
    kValue,
    kStopped
  };

  static std::string Block(const std::string& comment) {
    return comment.empty() ? "" : comment + "\n";
  }

  void Feed(char c) {
    if (state_ == State::kStopped) return;
    if (c == '\n') return EndLine();
    if (state_ == State::kStart && (c == ' ' || c == '\t' || c == '\r')) return;
    line_ += c;
    state_ = After(c);
  }

  State After(char c) {
    switch (state_) {
      case State::kStart:
        return First(c);
      case State::kName:
        if (c == ']') return State::kBehindHeader;
        name_ += c;
        return state_;
      case State::kBehindHeader:
        return c == ' ' || c == '\t' || c == '\r' ? state_ : State::kBadHeader;
      case State::kKey:
        if (c == '=') return pending_.clear(), State::kBlankValue;
        Extend(c, &name_);
        return state_;
      case State::kBlankValue:
      case State::kValue:
        return Extend(c, &value_) ? State::kValue : state_;
      default:
        return state_;
    }
  }

  State First(char c) {
    if (c == '#' || c == ';') return State::kComment;
    if (c == '[') return State::kName;
    if (c == '=') return State::kNoKey;
    name_ = c;
    return State::kKey;
  }

  /// Takes a byte of a trimmed text: a blank counts only once more text follows
  /// it, and not at all in front of the text. True when `c` is none.
  bool Extend(char c, std::string* text) {
    if (c == ' ' || c == '\t') return pending_ += c, false;
    if (!text->empty()) *text += pending_;
    pending_.clear();
    *text += c;
    return true;
  }

  void EndLine() {
    const State ended = state_;
    state_ = State::kStart;
    if (ended == State::kComment) block_ += "\n" + line_;
    if (ended == State::kName) Stop("");
    if (ended == State::kBehindHeader || ended == State::kBadHeader) EndHeader(ended);
    if (ended == State::kKey || ended == State::kNoKey || ended == State::kBlankValue ||
        ended == State::kValue) {
      EndOption(ended);
    }
    for (std::string* text : {&line_, &name_, &value_, &pending_}) text->clear();
  }

  void EndHeader(State ended) {
    if (name_.empty()) return Stop("");
    if (ended == State::kBadHeader) return Stop("Found invalid line: ");
    FindOrAdd(name_, &sections)->comment = block_;
    current_ = name_;
    block_.clear();
  }

  void EndOption(State ended) {
    if (current_.empty()) return Stop("Found an invalid line: ");
    if (ended == State::kNoKey) return Stop("Found an invalid key: ");
    if (ended == State::kKey) return Stop("");
    ModelOption* const option = FindOrAdd(name_, &FindOrAdd(current_, &sections)->options);
    option->value = ended == State::kBlankValue ? pending_ : value_;
    if (!block_.empty()) option->comment = block_;
    block_.clear();
  }

  void Stop(const std::string& message) {
    state_ = State::kStopped;
    result = tzconfig::kInvalidLine;
    if (!message.empty()) messages += message + line_ + "\n";
  }

  State state_ = State::kStart;
  std::string line_;     ///< without its leading blanks
  std::string name_;     ///< of the header or option that the line holds
  std::string value_;    ///< of the option that the line holds
  std::string pending_;  ///< blanks that may turn out to be trailing ones
  std::string block_;
  std::string current_;
};

}  // namespace corvel::storage::testing

#endif  // TESTS_CONFIG_CONFIG_MODEL_H_
