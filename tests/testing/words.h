#ifndef TESTS_TESTING_WORDS_H_
#define TESTS_TESTING_WORDS_H_

#include <string>
#include <vector>

namespace corvel::storage::testing {

/// The words of a command line, or a part of them.
using Words = std::vector<std::string>;

/// `words` with `more` behind them.
inline Words With(Words words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

/// An account on the command line, with which any request can be sent, and
/// `more` behind it.
inline Words AccountWith(const Words& more) {
  return With({"--url", "http://spa", "--login", "me", "--passwd", "pw"}, more);
}

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_WORDS_H_
