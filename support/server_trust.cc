#include "support/server_trust.h"

#include <cstring>
#include <string>

#include "support/bounded_text.h"
#include "support/curl_handle.h"
#include "support/environment.h"
#include "support/file_system.h"

using corvel::storage::support::BoundedCopy;
using corvel::storage::support::CurlTextPtr;
using corvel::storage::support::CurlUrlPtr;
using corvel::storage::support::EnvironmentText;

namespace {

constexpr char kDefaultPluginPath[] = "/etc/quorvex/certs/";
constexpr char kCertificateSuffix[] = ".pem";
constexpr std::size_t kPathBytes = 4096;
constexpr std::size_t kHostBytes = 256;

bool IsPlainFileName(const char* name) {
  return *name != '\0' && *name != '.' && std::strchr(name, '/') == nullptr;
}

}  // namespace

int supportTWLXSSLVerify() {
  return EnvironmentText(corvel::storage::support::kSslVerifyVariable, "1") != "0";
}

int getPluginPath(char* path, std::size_t pathSize) {
  std::string directory =
      EnvironmentText(corvel::storage::support::kPluginPathVariable, kDefaultPluginPath);
  if (directory.back() != '/') directory += '/';
  return BoundedCopy(path, pathSize, directory.c_str());
}

int getHostFromUrl(const char* url, char* host, std::size_t hostSize) {
  // The channel's scheme is not libcurl's own, and an address without a scheme
  // is one that libcurl would complete.
  constexpr unsigned kFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME;
  const CurlUrlPtr handle(curl_url());
  char* part = nullptr;
  if (handle == nullptr || curl_url_set(handle.get(), CURLUPART_URL, url, kFlags) != CURLUE_OK ||
      curl_url_get(handle.get(), CURLUPART_HOST, &part, 0) != CURLUE_OK) {
    return 0;
  }
  const CurlTextPtr name(part);
  return IsPlainFileName(name.get()) && BoundedCopy(host, hostSize, name.get());
}

std::string corvel::storage::support::ServerCertificateFile(const std::string& url) {
  char path[kPathBytes];
  char host[kHostBytes];
  const bool found = getPluginPath(path, sizeof(path)) != 0 &&
                     getHostFromUrl(url.c_str(), host, sizeof(host)) != 0 &&
                     BoundedAppend(path, sizeof(path), host) &&
                     BoundedAppend(path, sizeof(path), kCertificateSuffix) && PathExists(path);
  return found ? path : "";
}
