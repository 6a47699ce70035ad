#include "support/server_trust.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "support/bounded_text.h"
#include "support/curl_handle.h"
#include "support/environment.h"
#include "support/file_system.h"

namespace support = corvel::storage::support;

namespace {

using support::BoundedCopy;
using support::CurlTextPtr;
using support::CurlUrlPtr;
using support::EnvironmentText;

constexpr char kDefaultPluginPath[] = "/etc/quorvex/certs/";
constexpr char kCertificateSuffix[] = ".pem";
constexpr char kVerifyNever[] = "0";
constexpr char kVerifyAlways[] = "required";
constexpr std::size_t kPathBytes = 4096;
constexpr std::size_t kHostBytes = 256;

bool IsPlainFileName(const char* name) {
  return *name != '\0' && *name != '.' && std::strchr(name, '/') == nullptr;
}

/// True for success; throws when memory was too short for an answer.
bool Succeeded(CURLUcode result) {
  if (result == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  return result == CURLUE_OK;
}

std::string VerifyMode() { return EnvironmentText(support::kSslVerifyVariable, "1"); }

/// The name that `host` has in a certificate: in lower case, without a final dot.
std::string CanonicalName(std::string host) {
  std::transform(host.begin(), host.end(), host.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  if (!host.empty() && host.back() == '.') host.pop_back();
  return host;
}

/// The file for `host` in the plugin directory; empty when there is none.
std::string FileFor(const std::string& host) {
  char path[kPathBytes];
  const bool found = getPluginPath(path, sizeof(path)) != 0 &&
                     support::BoundedAppend(path, sizeof(path), host.c_str()) &&
                     support::BoundedAppend(path, sizeof(path), kCertificateSuffix) &&
                     support::PathExists(path);
  return found ? path : "";
}

}  // namespace

int supportTWLXSSLVerify() { return VerifyMode() != kVerifyNever; }

int getPluginPath(char* path, std::size_t pathSize) {
  std::string directory = EnvironmentText(support::kPluginPathVariable, kDefaultPluginPath);
  if (directory.back() != '/') directory += '/';
  return BoundedCopy(path, pathSize, directory.c_str());
}

int getHostFromUrl(const char* url, char* host, std::size_t hostSize) {
  // The channel's scheme is not libcurl's own, and an address without a scheme
  // is one that libcurl would complete.
  constexpr unsigned kFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME;
  const CurlUrlPtr handle(curl_url());
  if (handle == nullptr) throw std::bad_alloc();
  char* part = nullptr;
  if (!Succeeded(curl_url_set(handle.get(), CURLUPART_URL, url, kFlags)) ||
      !Succeeded(curl_url_get(handle.get(), CURLUPART_HOST, &part, 0))) {
    return 0;
  }
  const CurlTextPtr name(part);
  return IsPlainFileName(name.get()) && BoundedCopy(host, hostSize, name.get());
}

std::string support::ServerCertificateFile(const std::string& url) {
  char host[kHostBytes];
  if (getHostFromUrl(url.c_str(), host, sizeof(host)) == 0) return "";
  const std::string asTyped = FileFor(host);
  const std::string name = CanonicalName(host);
  return asTyped.empty() && name != host ? FileFor(name) : asTyped;
}

support::Verification support::VerificationOf(const std::string& url) {
  if (supportTWLXSSLVerify() == 0) return {};
  const std::string file = ServerCertificateFile(url);
  if (VerifyMode() == kVerifyAlways) {
    return {file.empty() ? ServerTrust::kSystem : ServerTrust::kFileOnly, file};
  }
  return {file.empty() ? ServerTrust::kUnverified : ServerTrust::kFile, file};
}
