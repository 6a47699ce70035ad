#ifndef REGISTRATION_CERTIFICATE_H_
#define REGISTRATION_CERTIFICATE_H_

#include <string>

#include "support/openssl_handle.h"

namespace corvel::storage::tzregister {

/// A fresh RSA key pair and the self-signed server certificate for it, made by
/// `open` and owned by the object. Key: 1024 bits, exponent 65537. Certificate:
/// serial number 0, valid for 1825 days from the moment of its making, signed
/// with MD5; its encoded version number is 3, which the product's peers expect.
class OpenSSLCertificate {
 public:
  OpenSSLCertificate();
  virtual ~OpenSSLCertificate();
  OpenSSLCertificate(const OpenSSLCertificate&) = delete;
  OpenSSLCertificate& operator=(const OpenSSLCertificate&) = delete;

  /// Makes key and certificate. Returns 0, also when they are there already (it
  /// then does nothing), and -1 when the cryptography fails. Prints nothing.
  int open();

  /// Borrowed; null before a successful `open`.
  X509* certificate() const { return certificate_.get(); }
  EVP_PKEY* key() const { return key_.get(); }
  bool opened() const { return opened_; }

 private:
  support::X509Ptr certificate_;
  support::EvpPkeyPtr key_;
  bool opened_ = false;
};

/// The host name that certificates carry in nsSslServerName: the environment
/// variable QUORVEX_SSL_SERVER_NAME as it stands, or the one chosen when the tool
/// was built. The latter also holds when the variable begins with what OpenSSL
/// would take for an instruction: "critical,", "DER:" or "ASN1:".
std::string SslServerName();

}  // namespace corvel::storage::tzregister

#endif  // REGISTRATION_CERTIFICATE_H_
