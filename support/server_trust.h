#ifndef SUPPORT_SERVER_TRUST_H_
#define SUPPORT_SERVER_TRUST_H_

#include <cstddef>
#include <string>

/// Non-zero when the certificates of HTTPS servers are to be verified: always,
/// unless the environment variable QUORVEX_SSL_VERIFY is "0".
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
int getHostFromUrl(const char* url, char* host, std::size_t hostSize);

namespace corvel::storage::support {

/// Path of the certificate file that the plugin directory holds for the server
/// of `url`: the directory, the host name and ".pem". Empty when the URL has no
/// usable host, the path is longer than 4095 bytes, or no such file exists.
std::string ServerCertificateFile(const std::string& url);

}  // namespace corvel::storage::support

#endif  // SUPPORT_SERVER_TRUST_H_
