#include "tests/registration/openssl_fault.h"

#include <dlfcn.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
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

int EVP_PKEY_keygen_init(EVP_PKEY_CTX* context) {
  auto* const real = Working<decltype(EVP_PKEY_keygen_init)>("EVP_PKEY_keygen_init");
  return real == nullptr ? 0 : real(context);
}

int BN_set_word(BIGNUM* number, BN_ULONG word) {
  auto* const real = Working<decltype(BN_set_word)>("BN_set_word");
  return real == nullptr ? 0 : real(number, word);
}

int EVP_PKEY_CTX_set_rsa_keygen_bits(EVP_PKEY_CTX* context, int bits) {
  auto* const real =
      Working<decltype(EVP_PKEY_CTX_set_rsa_keygen_bits)>("EVP_PKEY_CTX_set_rsa_keygen_bits");
  return real == nullptr ? 0 : real(context, bits);
}

int EVP_PKEY_CTX_set1_rsa_keygen_pubexp(EVP_PKEY_CTX* context, BIGNUM* exponent) {
  auto* const real =
      Working<decltype(EVP_PKEY_CTX_set1_rsa_keygen_pubexp)>("EVP_PKEY_CTX_set1_rsa_keygen_pubexp");
  return real == nullptr ? 0 : real(context, exponent);
}

int EVP_PKEY_keygen(EVP_PKEY_CTX* context, EVP_PKEY** key) {
  auto* const real = Working<decltype(EVP_PKEY_keygen)>("EVP_PKEY_keygen");
  return real == nullptr ? 0 : real(context, key);
}

X509* X509_new() {
  auto* const real = Working<decltype(X509_new)>("X509_new");
  return real == nullptr ? nullptr : real();
}

int X509_ALGOR_set0(X509_ALGOR* algorithm, ASN1_OBJECT* object, int type, void* value) {
  auto* const real = Working<decltype(X509_ALGOR_set0)>("X509_ALGOR_set0");
  return real == nullptr ? 0 : real(algorithm, object, type, value);
}

int X509_set_version(X509* certificate, long version) {
  auto* const real = Working<decltype(X509_set_version)>("X509_set_version");
  return real == nullptr ? 0 : real(certificate, version);
}

int EVP_DigestSignInit(EVP_MD_CTX* context, EVP_PKEY_CTX** keyContext, const EVP_MD* digest,
                       ENGINE* engine, EVP_PKEY* key) {
  auto* const real = Working<decltype(EVP_DigestSignInit)>("EVP_DigestSignInit");
  return real == nullptr ? 0 : real(context, keyContext, digest, engine, key);
}

int PEM_write_bio_X509(BIO* out, const X509* certificate) {
  auto* const real = Working<decltype(PEM_write_bio_X509)>("PEM_write_bio_X509");
  return real == nullptr ? 0 : real(out, certificate);
}

int EVP_DigestSign(EVP_MD_CTX* context, unsigned char* signature, std::size_t* length,
                   const unsigned char* bytes, std::size_t size) {
  auto* const real = Working<decltype(EVP_DigestSign)>("EVP_DigestSign");
  return real == nullptr ? 0 : real(context, signature, length, bytes, size);
}
