#include "tests/testing/disguised_secret.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>

namespace corvel::storage::testing {
namespace {

constexpr unsigned char kDisguise = 0x95;
constexpr std::uint64_t kDisguiseWord = 0x9595959595959595;

/// Reserved address space of the sanitizers' own is larger; what a program
/// stores its data in is not.
constexpr std::uintptr_t kLargestMapping = std::uintptr_t{4} << 30;

constexpr std::size_t kPageBytes = 4096;
constexpr std::size_t kMostPieces = 16;
constexpr std::size_t kSparedStackBytes = std::size_t{64} << 10;

/// Where the process can write.
struct Mapping {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

/// The list of mappings, read without a block from the heap: it could be the very
/// one that a copy was left in.
class MappingList {
 public:
  MappingList() {
    const int file = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    std::size_t used = 0;
    ssize_t count = 0;
    do {
      used += static_cast<std::size_t>(count);
      count = read(file, text_ + used, sizeof(text_) - 1 - used);
    } while (count > 0);
    close(file);
    text_[used] = '\0';
    EXPECT_GT(used, 0U);
    EXPECT_LT(used, sizeof(text_) - 1);
  }

  /// Takes the next mapping off the list that can be read and written.
  bool Next(Mapping* mapping) {
    while (*next_ != '\0') {
      char* text = next_;
      mapping->begin = std::strtoull(text, &text, 16);
      mapping->end = std::strtoull(text + 1, &text, 16);
      next_ = std::strchr(text, '\n') + 1;
      if (std::strncmp(text, " rw", 3) == 0 && mapping->end - mapping->begin <= kLargestMapping) {
        return true;
      }
    }
    return false;
  }

 private:
  static char text_[std::size_t{1} << 18];
  char* next_ = text_;
};

char MappingList::text_[std::size_t{1} << 18];

/// Eight bytes wherever they lie.
struct __attribute__((packed, may_alias)) Word {
  std::uint64_t value;
};

/// Counts the places at which each of some disguised pieces stands in clear.
class PieceCounter {
 public:
  explicit PieceCounter(const std::vector<std::uint64_t>& pieces) : pieces_(pieces) {
    for (const std::uint64_t piece : pieces_) isBegin_[piece & 0xffff] = true;
  }

  /// Searches the pages of `mapping` that were ever touched: the sanitizers set a
  /// multiple of them aside.
  void Search(const Mapping& mapping) {
    Mapping run = {mapping.begin, mapping.begin};
    for (std::uintptr_t page = mapping.begin; page < mapping.end; page += kPageBytes) {
      if (IsTouched(page)) {
        run.end = page + kPageBytes;
      } else {
        SearchRun(run);
        run = {page + kPageBytes, page + kPageBytes};
      }
    }
    SearchRun(run);
  }

  /// How often the most frequent piece was found.
  std::size_t most() const { return *std::max_element(std::begin(counts_), std::end(counts_)); }

 private:
  static bool IsTouched(std::uintptr_t page) {
    unsigned char resident = 0;
    const int result = mincore(reinterpret_cast<void*>(page), kPageBytes, &resident);
    return result != 0 || (resident & 1) != 0;
  }

  void SearchRun(const Mapping& run);

  const std::vector<std::uint64_t>& pieces_;
  std::size_t counts_[kMostPieces] = {};
  bool isBegin_[1 << 16] = {};  ///< by the first two bytes of a piece
};

// Memory that no object owns any more is read here, which the sanitizer would
// report. What is read is disguised before it is stored: the search comes across
// its own frames as well.
__attribute__((no_sanitize("address", "undefined"))) void PieceCounter::SearchRun(
    const Mapping& run) {
  const std::size_t count = pieces_.size();
  const std::uint64_t* const pieces = pieces_.data();
  for (std::uintptr_t place = run.begin; place + sizeof(Word) <= run.end; ++place) {
    const std::uint64_t word = reinterpret_cast<const Word*>(place)->value ^ kDisguiseWord;
    if (!isBegin_[word & 0xffff]) continue;
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
  CutIntoPieces();
}

DisguisedSecret::DisguisedSecret(unsigned char* plain, std::size_t size) : disguised_(size) {
  for (std::size_t index = 0; index < size; ++index) disguised_[index] = plain[index] ^ kDisguise;
  Overwrite(plain, size);
  CutIntoPieces();
}

bool DisguisedSecret::Is(std::string_view text) const {
  return std::equal(text.begin(), text.end(), disguised_.begin(), disguised_.end(),
                    [](char plain, unsigned char disguised) {
                      return (static_cast<unsigned char>(plain) ^ kDisguise) == disguised;
                    });
}

void DisguisedSecret::CutIntoPieces() {
  const std::size_t last = size() - sizeof(std::uint64_t);
  pieces_.resize(std::min(kMostPieces, last + 1));
  for (std::size_t index = 0; index < pieces_.size(); ++index) {
    const std::size_t offset = last == 0 ? 0 : last * index / (pieces_.size() - 1);
    std::memcpy(&pieces_[index], disguised_.data() + offset, sizeof(std::uint64_t));
  }
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
  PieceCounter counter(pieces_);
  MappingList mappings;
  for (Mapping mapping; mappings.Next(&mapping);) counter.Search(mapping);
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
