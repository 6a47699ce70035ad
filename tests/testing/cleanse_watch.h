#ifndef TESTS_TESTING_CLEANSE_WATCH_H_
#define TESTS_TESTING_CLEANSE_WATCH_H_

#include <string>
#include <vector>

namespace corvel::storage::testing {

/// Records what the code under test wipes while it lives. One at a time.
class CleanseWatch {
 public:
  CleanseWatch();
  ~CleanseWatch();
  CleanseWatch(const CleanseWatch&) = delete;
  CleanseWatch& operator=(const CleanseWatch&) = delete;

  /// Content of every wiped block, as it was before.
  const std::vector<std::string>& blocks() const { return blocks_; }

  /// True when one of the wiped blocks held `text`.
  bool Saw(const std::string& text) const;

  void Record(const std::string& block) { blocks_.push_back(block); }

 private:
  std::vector<std::string> blocks_;
};

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_CLEANSE_WATCH_H_
