// The host of an address, which becomes part of a file's name.

#include <cstring>
#include <memory>

#include "fuzz/fuzzing.h"
#include "support/server_trust.h"

namespace {

using namespace corvel::storage::fuzzing;

constexpr std::size_t kHostBytes = 256;
constexpr char kPlainCharacters[] = "abcdefghijklmnopqrstuvwxyz-";

/// The host of `url` in a buffer of just `room` bytes; "" when there is none.
std::string HostOf(const std::string& url, std::size_t room) {
  const std::unique_ptr<char[]> host(new char[room]);
  if (getHostFromUrl(url.c_str(), host.get(), room) == 0) return "";
  Expect(std::memchr(host.get(), '\0', room) != nullptr, "the host is terminated");
  return host.get();
}

/// A name of letters means the same wherever it stands as the host.
void ExpectPlainName(const std::string& name) {
  if (name.empty() || name.size() > 63 || name.front() == '-' || name.back() == '-' ||
      name.find("--") != std::string::npos ||
      name.find_first_not_of(kPlainCharacters) != std::string::npos) {
    return;
  }
  for (const char* form : {"http://%", "https://%/", "https://%:443/path", "vrmo://%:1/x?y=/..",
                           "https://user:word@%/", "https://%?q", "https://%#f"}) {
    std::string url = form;
    url.replace(url.find('%'), 1, name);
    Expect(HostOf(url, kHostBytes) == name, "a plain name is found");
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string url = TextOf(data + 1, size - 1);
  const std::string host = HostOf(url, kHostBytes);
  Expect(host.find('/') == std::string::npos, "the host names no directory");
  Expect(host.empty() || host.front() != '.', "the host is no hidden file");
  const std::size_t room = data[0];
  Expect(HostOf(url, room) == (host.size() < room ? host : ""), "a host that does not fit is none");
  ExpectPlainName(url);
  return 0;
}
