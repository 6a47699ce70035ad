#include "tests/testing/disguised_secret.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <utility>

namespace corvel::storage::testing {
namespace {

constexpr unsigned char kDisguise = 0x95;
constexpr std::uint64_t kDisguiseWord = 0x9595959595959595;

/// Reserved address space of the sanitizers' own is larger; what a program
/// stores its data in is not.
constexpr std::uintptr_t kLargestMapping = std::uintptr_t{4} << 30;

constexpr std::size_t kSparedStackBytes = std::size_t{64} << 10;

/// Where the process can write.
struct Mapping {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

/// The mapping that a line of /proc/self/maps tells of; an empty one for memory
/// that cannot be read and written.
Mapping WritableMapping(const std::string& line) {
  std::istringstream words(line);
  Mapping mapping;
  char dash = '\0';
  std::string access;
  words >> std::hex >> mapping.begin >> dash >> mapping.end >> access;
  const bool writable = access.rfind("rw", 0) == 0;
  return writable && mapping.end - mapping.begin <= kLargestMapping ? mapping : Mapping();
}

std::vector<Mapping> WritableMappings() {
  std::ifstream maps("/proc/self/maps");
  EXPECT_TRUE(maps.is_open());
  std::vector<Mapping> mappings;
  for (std::string line; std::getline(maps, line);) mappings.push_back(WritableMapping(line));
  return mappings;
}

/// Eight bytes wherever they lie.
struct __attribute__((packed, may_alias)) Word {
  std::uint64_t value;
};

/// Counts the places at which each of some disguised pieces stands in clear.
class PieceCounter {
 public:
  explicit PieceCounter(std::vector<std::uint64_t> pieces)
      : pieces_(std::move(pieces)), counts_(pieces_.size()) {
    for (const std::uint64_t piece : pieces_) isFirstByte_[piece & 0xff] = true;
  }

  void Search(const Mapping& mapping);

  /// How often the most frequent piece was found.
  std::size_t most() const { return *std::max_element(counts_.begin(), counts_.end()); }

 private:
  std::vector<std::uint64_t> pieces_;
  std::vector<std::size_t> counts_;
  bool isFirstByte_[256] = {};
};

// Memory that no object owns any more is read here, which the sanitizer would
// report. What is read is disguised before it is stored: the search comes across
// its own frames as well.
__attribute__((no_sanitize("address"))) void PieceCounter::Search(const Mapping& mapping) {
  const std::size_t count = pieces_.size();
  const std::uint64_t* const pieces = pieces_.data();
  for (std::uintptr_t place = mapping.begin; place + sizeof(Word) <= mapping.end; ++place) {
    const std::uint64_t word = reinterpret_cast<const Word*>(place)->value ^ kDisguiseWord;
    if (!isFirstByte_[word & 0xff]) continue;
    for (std::size_t index = 0; index < count; ++index) {
      if (word == pieces[index]) ++counts_[index];
    }
  }
}

void Overwrite(volatile unsigned char* bytes, std::size_t size) {
  for (std::size_t index = 0; index < size; ++index) bytes[index] = 0;
}

}  // namespace

DisguisedSecret::DisguisedSecret(std::size_t length) : disguised_(length) {
  EXPECT_GE(length, sizeof(std::uint64_t));
  std::random_device random;
  std::uniform_int_distribution<int> letter('a', 'z');
  for (unsigned char& byte : disguised_) {
    byte = static_cast<unsigned char>(letter(random) ^ kDisguise);
  }
}

DisguisedSecret::DisguisedSecret(unsigned char* plain, std::size_t size) : disguised_(size) {
  for (std::size_t index = 0; index < size; ++index) disguised_[index] = plain[index] ^ kDisguise;
  Overwrite(plain, size);
}

bool DisguisedSecret::Is(std::string_view text) const {
  return std::equal(text.begin(), text.end(), disguised_.begin(), disguised_.end(),
                    [](char plain, unsigned char disguised) {
                      return (static_cast<unsigned char>(plain) ^ kDisguise) == disguised;
                    });
}

std::vector<std::uint64_t> DisguisedSecret::Pieces() const {
  constexpr std::size_t kMostPieces = 16;
  const std::size_t last = size() - sizeof(std::uint64_t);
  const std::size_t count = std::min(kMostPieces, last + 1);
  std::vector<std::uint64_t> pieces(count);
  for (std::size_t index = 0; index < count; ++index) {
    const std::size_t offset = count == 1 ? 0 : last * index / (count - 1);
    std::memcpy(&pieces[index], disguised_.data() + offset, sizeof(std::uint64_t));
  }
  return pieces;
}

// The frames of the search would overwrite what calls that are over left on the
// stack: it begins further down, behind a block that nobody writes to.
std::size_t DisguisedSecret::Copies() const {
  unsigned char spared[kSparedStackBytes];
  asm volatile("" : : "r"(spared) : "memory");
  const std::size_t copies = CopiesInWritableMemory();
  asm volatile("" : : "r"(spared) : "memory");
  return copies;
}

__attribute__((noinline)) std::size_t DisguisedSecret::CopiesInWritableMemory() const {
  PieceCounter counter(Pieces());
  for (const Mapping& mapping : WritableMappings()) counter.Search(mapping);
  return counter.most();
}

DisguisedSecret::Plain::Plain(const DisguisedSecret& secret)
    : size_(secret.size()), text_(new char[size_ + 1]) {
  std::transform(secret.disguised_.begin(), secret.disguised_.end(), text_,
                 [](unsigned char byte) { return static_cast<char>(byte ^ kDisguise); });
  text_[size_] = '\0';
}

DisguisedSecret::Plain::~Plain() {
  Overwrite(reinterpret_cast<unsigned char*>(text_), size_);
  delete[] text_;
}

void WriteSecretFile(const std::string& path, const std::string& before,
                     const DisguisedSecret& secret, const std::string& after) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  ASSERT_GE(file, 0) << path;
  const auto put = [file](const char* text, std::size_t size) {
    EXPECT_EQ(write(file, text, size), static_cast<ssize_t>(size));
  };
  put(before.data(), before.size());
  secret.Reveal([&](const char* text) { put(text, secret.size()); });
  put(after.data(), after.size());
  close(file);
}

}  // namespace corvel::storage::testing
