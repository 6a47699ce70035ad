#include "tests/registration/openssl_fault.h"

#include <dlfcn.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

namespace corvel::storage::testing {
namespace {

std::string& FailingFunction() {
  static std::string name;
  return name;
}

/// The library's own function, or null when `name` is to fail.
template <typename Function>
Function* Working(const char* name) {
  if (FailingFunction() == name) return nullptr;
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

OpenSslFault::OpenSslFault(const std::string& function) { FailingFunction() = function; }

OpenSslFault::~OpenSslFault() { FailingFunction().clear(); }

}  // namespace corvel::storage::testing

// These take the place of the library's functions for the code that is linked
// into this program.

using corvel::storage::testing::Working;

int EVP_PKEY_keygen(EVP_PKEY_CTX* context, EVP_PKEY** key) {
  auto* const real = Working<decltype(EVP_PKEY_keygen)>("EVP_PKEY_keygen");
  return real == nullptr ? 0 : real(context, key);
}

X509* X509_new() {
  auto* const real = Working<decltype(X509_new)>("X509_new");
  return real == nullptr ? nullptr : real();
}

int X509_sign(X509* certificate, EVP_PKEY* key, const EVP_MD* digest) {
  auto* const real = Working<decltype(X509_sign)>("X509_sign");
  return real == nullptr ? 0 : real(certificate, key, digest);
}

int EVP_DigestSign(EVP_MD_CTX* context, unsigned char* signature, std::size_t* length,
                   const unsigned char* bytes, std::size_t size) {
  auto* const real = Working<decltype(EVP_DigestSign)>("EVP_DigestSign");
  return real == nullptr ? 0 : real(context, signature, length, bytes, size);
}
