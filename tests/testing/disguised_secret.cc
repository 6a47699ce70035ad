#include "tests/testing/disguised_secret.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <random>
#include <sstream>

namespace corvel::storage::testing {
namespace {

constexpr unsigned char kDisguise = 0x95;

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

void Overwrite(volatile unsigned char* bytes, std::size_t size) {
  for (std::size_t index = 0; index < size; ++index) bytes[index] = 0;
}

}  // namespace

DisguisedSecret::DisguisedSecret(std::size_t length) : disguised_(length) {
  EXPECT_GE(length, 8U);
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
  return text.size() == size() && StandsAt(reinterpret_cast<const unsigned char*>(text.data()));
}

// Memory that no object owns any more is read here: the sanitizer would report it.
__attribute__((no_sanitize("address"))) bool DisguisedSecret::StandsAt(
    const unsigned char* place) const {
  const unsigned char* const disguised = disguised_.data();
  const std::size_t size = disguised_.size();
  for (std::size_t index = 0; index < size; ++index) {
    if ((place[index] ^ kDisguise) != disguised[index]) return false;
  }
  return true;
}

__attribute__((no_sanitize("address"))) std::size_t DisguisedSecret::CopiesIn(
    const unsigned char* begin, const unsigned char* end) const {
  const unsigned char first = disguised_[0];
  std::size_t copies = 0;
  for (const unsigned char* place = begin; place + disguised_.size() <= end; ++place) {
    if ((*place ^ kDisguise) == first && StandsAt(place)) ++copies;
  }
  return copies;
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
  std::size_t copies = 0;
  for (const Mapping& mapping : WritableMappings()) {
    copies += CopiesIn(reinterpret_cast<const unsigned char*>(mapping.begin),
                       reinterpret_cast<const unsigned char*>(mapping.end));
  }
  return copies;
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
