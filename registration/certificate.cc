#include "registration/certificate.h"

#include <openssl/rsa.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <vector>

#include "support/environment.h"

namespace corvel::storage::tzregister {
namespace {

using support::BignumPtr;
using support::EvpMdCtxPtr;
using support::EvpPkeyCtxPtr;
using support::EvpPkeyPtr;
using support::X509ExtensionPtr;

constexpr int kKeyBits = 1024;
constexpr BN_ULONG kPublicExponent = 65537;
constexpr long kVersion = 3;
constexpr long kSerialNumber = 0;
constexpr long kValiditySeconds = 157680000;  // 1825 days

struct NameEntry {
  const char* field;
  const char* value;
};
constexpr NameEntry kSubject[] = {{"C", "US"}, {"CN", "Veltrane"}};

EvpPkeyPtr GenerateKey() {
  const EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
  const BignumPtr exponent(BN_new());
  EVP_PKEY* key = nullptr;
  if (context == nullptr || exponent == nullptr ||
      BN_set_word(exponent.get(), kPublicExponent) == 0 ||
      EVP_PKEY_keygen_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), kKeyBits) <= 0 ||
      EVP_PKEY_CTX_set1_rsa_keygen_pubexp(context.get(), exponent.get()) <= 0 ||
      EVP_PKEY_keygen(context.get(), &key) <= 0) {
    return nullptr;
  }
  return EvpPkeyPtr(key);
}

/// Both ends are reckoned from one reading of the clock, so that the validity
/// does not grow by a second that begins in between.
void SetValidity(X509* certificate, std::time_t now) {
  X509_time_adj(X509_getm_notBefore(certificate), 0, &now);
  X509_time_adj(X509_getm_notAfter(certificate), kValiditySeconds, &now);
}

void SetNames(X509* certificate) {
  X509_NAME* const name = X509_get_subject_name(certificate);
  for (const NameEntry& entry : kSubject) {
    X509_NAME_add_entry_by_txt(name, entry.field, MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(entry.value), -1, -1, 0);
  }
  X509_set_issuer_name(certificate, name);
}

void AddExtension(X509* certificate, int nid, const std::string& value) {
  const X509ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, nullptr, nid, value.c_str()));
  if (extension != nullptr) X509_add_ext(certificate, extension.get(), -1);
}

void FillCertificate(X509* certificate, EVP_PKEY* key) {
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), kSerialNumber);
  SetValidity(certificate, std::time(nullptr));
  X509_set_pubkey(certificate, key);
  SetNames(certificate);
  AddExtension(certificate, NID_netscape_cert_type, "server");
  AddExtension(certificate, NID_netscape_comment, "veltrane");
  AddExtension(certificate, NID_netscape_ssl_server_name, SslServerName());
}

/// Beginnings of an extension's value that the library takes for instructions
/// to itself.
constexpr const char* kInstructions[] = {"critical,", "DER:", "ASN1:"};

bool IsInstruction(const std::string& value) {
  return std::any_of(std::begin(kInstructions), std::end(kInstructions),
                     [&](const char* instruction) { return value.rfind(instruction, 0) == 0; });
}

using Bytes = std::vector<unsigned char>;

/// The part of the certificate that is signed, encoded anew; empty on failure.
Bytes EncodeSignedPart(X509* certificate) {
  unsigned char* encoded = nullptr;
  const int length = i2d_re_X509_tbs(certificate, &encoded);
  if (length <= 0) return {};
  Bytes bytes(encoded, encoded + length);
  OPENSSL_free(encoded);
  return bytes;
}

/// The MD5 signature of `bytes`; empty on failure.
Bytes SignBytes(const Bytes& bytes, EVP_PKEY* key) {
  const EvpMdCtxPtr context(EVP_MD_CTX_new());
  Bytes signature(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
  std::size_t length = signature.size();
  if (bytes.empty() || context == nullptr ||
      EVP_DigestSignInit(context.get(), nullptr, EVP_md5(), nullptr, key) <= 0 ||
      EVP_DigestSign(context.get(), signature.data(), &length, bytes.data(), bytes.size()) <= 0) {
    return {};
  }
  signature.resize(length);
  return signature;
}

/// Says in `algorithm`, a part of the certificate, how it is signed. There is no
/// setter for the parts of a signature; the certificate is ours.
bool SetAlgorithm(const X509_ALGOR* algorithm) {
  return X509_ALGOR_set0(const_cast<X509_ALGOR*>(algorithm), OBJ_nid2obj(NID_md5WithRSAEncryption),
                         V_ASN1_NULL, nullptr) == 1;
}

/// Puts `bytes`, all bits of them, into `placed`, a part of the certificate.
bool SetSignature(const ASN1_BIT_STRING* placed, const Bytes& bytes) {
  auto* const signature = const_cast<ASN1_BIT_STRING*>(placed);
  signature->flags |= ASN1_STRING_FLAG_BITS_LEFT;
  return ASN1_STRING_set(signature, bytes.data(), static_cast<int>(bytes.size())) == 1;
}

/// Signs the certificate with its version number as it is meant to be: X509_sign
/// would put another one in. It would also free a part of the certificate twice
/// when memory is short.
bool Sign(X509* certificate, EVP_PKEY* key) {
  const ASN1_BIT_STRING* signature = nullptr;
  const X509_ALGOR* algorithm = nullptr;
  X509_get0_signature(&signature, &algorithm, certificate);
  if (X509_set_version(certificate, kVersion) == 0 || !SetAlgorithm(algorithm) ||
      !SetAlgorithm(X509_get0_tbs_sigalg(certificate))) {
    return false;
  }
  const Bytes bytes = SignBytes(EncodeSignedPart(certificate), key);
  return !bytes.empty() && SetSignature(signature, bytes);
}

}  // namespace

std::string SslServerName() {
  const std::string name =
      support::EnvironmentText(support::kSslServerNameVariable, TZREGISTER_SSL_SERVER_NAME);
  return IsInstruction(name) ? TZREGISTER_SSL_SERVER_NAME : name;
}

OpenSSLCertificate::OpenSSLCertificate() = default;

OpenSSLCertificate::~OpenSSLCertificate() = default;

int OpenSSLCertificate::open() {
  if (opened_) return 0;
  key_ = GenerateKey();
  if (key_ == nullptr) return -1;
  certificate_.reset(X509_new());
  if (certificate_ == nullptr) return -1;
  FillCertificate(certificate_.get(), key_.get());
  opened_ = Sign(certificate_.get(), key_.get());
  return opened_ ? 0 : -1;
}

}  // namespace corvel::storage::tzregister
