#ifndef TESTS_TESTING_DISGUISED_SECRET_H_
#define TESTS_TESTING_DISGUISED_SECRET_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvel::storage::testing {

/// A secret that a test itself holds only in disguise, so that every plain copy
/// in the process's memory is one that the code under test made and keeps, or
/// left behind.
class DisguisedSecret {
 public:
  /// `length` random letters, at least 8, so that no copy is one by chance.
  explicit DisguisedSecret(std::size_t length);

  /// Takes over `size` bytes at `plain`, which are overwritten.
  DisguisedSecret(unsigned char* plain, std::size_t size);

  /// Calls `use` with the plain text and a terminator in a block that is
  /// overwritten afterwards; `use` may write to it, but not behind the terminator.
  template <typename Use>
  void Reveal(const Use& use) const {
    const Plain plain(*this);
    use(plain.text());
  }

  /// True when `text` is the secret; makes no copy.
  bool Is(std::string_view text) const;

  /// The number of plain copies in the memory that the process can write to:
  /// blocks in use and given back, stacks, static objects. A copy of which eight
  /// bytes in a row are left counts as one: whoever gives memory back without
  /// overwriting it still loses the block's first bytes to the allocator.
  std::size_t Copies() const;

  std::size_t size() const { return disguised_.size(); }

 private:
  /// The text in clear, for as long as the object lives.
  class Plain {
   public:
    explicit Plain(const DisguisedSecret& secret);
    ~Plain();
    Plain(const Plain&) = delete;
    Plain& operator=(const Plain&) = delete;

    char* text() const { return text_; }

   private:
    std::size_t size_;
    char* text_;
  };

  std::size_t CopiesInWritableMemory() const;
  void CutIntoPieces();

  std::vector<unsigned char> disguised_;
  std::vector<std::uint64_t> pieces_;  ///< runs of eight bytes all over it, disguised
};

/// Writes a file of `before`, the secret and `after` to `path`, which must not
/// exist, without a copy in any buffer.
void WriteSecretFile(const std::string& path, const std::string& before,
                     const DisguisedSecret& secret, const std::string& after);

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_DISGUISED_SECRET_H_
