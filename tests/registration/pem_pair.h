#ifndef TESTS_REGISTRATION_PEM_PAIR_H_
#define TESTS_REGISTRATION_PEM_PAIR_H_

#include <openssl/pem.h>

#include <string>

#include "support/openssl_handle.h"

namespace corvel::storage::testing {

inline support::BioPtr MemoryBio(const std::string& text) {
  return support::BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

/// The private key that PEM text `text` holds; null when it holds none.
inline support::EvpPkeyPtr KeyFromPem(const std::string& text) {
  const support::BioPtr bio = MemoryBio(text);
  return support::EvpPkeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
}

/// The certificate that PEM text `text` holds; null when it holds none.
inline support::X509Ptr CertificateFromPem(const std::string& text) {
  const support::BioPtr bio = MemoryBio(text);
  return support::X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

}  // namespace corvel::storage::testing

#endif  // TESTS_REGISTRATION_PEM_PAIR_H_
