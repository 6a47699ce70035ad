#ifndef SUPPORT_SERVER_TRUST_H_
#define SUPPORT_SERVER_TRUST_H_

#include <cstddef>
#include <string>

/// Non-zero when the certificates of HTTPS servers are to be verified where a
/// file for the server is at hand: always, unless the environment variable
/// QUORVEX_SSL_VERIFY is "0".
int supportTWLXSSLVerify();

/// Writes the directory that holds the per-server certificate files into
/// `path`, which holds `pathSize` bytes: the environment variable
/// QUORVEX_PLUGIN_PATH, by default "/etc/quorvex/certs/". The text always ends
/// in "/", so that a file name can be appended as it is.
/// Returns non-zero on success, 0 when it does not fit.
int getPluginPath(char* path, std::size_t pathSize);

/// Writes the host name of `url` into `host`, which holds `hostSize` bytes. The
/// name becomes part of a file name, so one that is not a plain file name (it
/// holds a "/", or begins with a ".") is refused.
/// Returns non-zero on success, 0 when there is no such host or it does not fit.
/// Throws std::bad_alloc: a shortage of memory is no reason to do without trust.
int getHostFromUrl(const char* url, char* host, std::size_t hostSize);

namespace corvel::storage::support {

/// What an HTTPS server's certificate is checked against. Where it is checked
/// at all, the chain and the host name both count.
enum class ServerTrust {
  kUnverified,  ///< nothing: the server may be anybody
  kFile,        ///< a file, beside the authorities that libcurl trusts by itself
  kFileOnly,    ///< a file alone
  kSystem,      ///< the authorities that libcurl trusts by itself
};

/// How one server is verified.
struct Verification {
  ServerTrust trust = ServerTrust::kUnverified;
  std::string caFile;  ///< PEM file, for kFile and kFileOnly
};

/// How the HTTPS server of `url` is verified: by its certificate file where it
/// has one, else not at all. When QUORVEX_SSL_VERIFY is "required": by that file
/// alone, else by the system's authorities. When it is "0": not at all.
/// Throws std::bad_alloc.
Verification VerificationOf(const std::string& url);

/// Path of the certificate file that the plugin directory holds for the server
/// of `url`: the directory, the host name and ".pem". The name is looked for as
/// it was typed, then in lower case and without a final dot; an IPv6 address has
/// its brackets. Empty when the URL has no usable host, the path is longer than
/// 4095 bytes, or no such file exists. Throws std::bad_alloc.
std::string ServerCertificateFile(const std::string& url);

}  // namespace corvel::storage::support

#endif  // SUPPORT_SERVER_TRUST_H_
