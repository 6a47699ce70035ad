#include <openssl/pem.h>

#include <cstdio>
#include <iostream>
#include <string_view>

#include "registration/certificate.h"
#include "registration/failures.h"
#include "registration/registrator.h"
#include "support/file_system.h"
#include "support/openssl_handle.h"

namespace corvel::storage::tzregister {
namespace {

using support::BioPtr;
using support::FilePrivacy;
using support::OutputFile;

/// Key and certificate in PEM form. The library wipes the memory when it goes.
struct PemPair {
  BioPtr key{BIO_new(BIO_s_mem())};
  BioPtr certificate{BIO_new(BIO_s_mem())};
};

PemPair Compose(const OpenSSLCertificate& pair) {
  PemPair text;
  const bool composed = text.key != nullptr && text.certificate != nullptr &&
                        PEM_write_bio_PrivateKey(text.key.get(), pair.key(), nullptr, nullptr, 0,
                                                 nullptr, nullptr) == 1 &&
                        PEM_write_bio_X509(text.certificate.get(), pair.certificate()) == 1;
  if (!composed) failures::kNoCertificate.Throw();
  return text;
}

std::string_view ContentOf(const BioPtr& memory) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(memory.get(), &bytes);
  return {bytes, static_cast<std::size_t>(length)};
}

void PrintPair(const OpenSSLCertificate& pair) {
  std::cout.flush();
  PEM_write_PrivateKey(stdout, pair.key(), nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_X509(stdout, pair.certificate());
}

/// Writes both files as far as each can be, and throws when anything failed.
void WriteFiles(const PemPair& text, OutputFile* certificate, OutputFile* key) {
  int failures = 0;
  if (!key->Empty() || !key->Write(ContentOf(text.key))) ++failures;
  if (!certificate->Empty() || !certificate->Write(ContentOf(text.certificate))) ++failures;
  if (!certificate->Close()) ++failures;
  if (!key->Close()) ++failures;
  if (failures > 0) failures::kNoCertificate.Throw();
}

/// Opens the certificate's file, then the key's. A key that has no place leaves an
/// empty certificate behind; one file for both is refused and loses nothing.
void WritePair(const PemPair& text, const std::string& certFile, const std::string& keyFile) {
  OutputFile certificate(certFile, FilePrivacy::kPublic);
  if (!certificate.isOpen()) failures::kNoCertificate.Throw();
  OutputFile key(keyFile, FilePrivacy::kSecret);
  if (!key.isOpen()) {
    certificate.Empty();
    failures::kNoCertificate.Throw();
  }
  if (key.IsSameAs(certificate)) failures::kNoCertificate.Throw();
  WriteFiles(text, &certificate, &key);
}

}  // namespace

void Registrator::GenerateSSLCertificate(const std::string& certFile, const std::string& keyFile,
                                         const std::string& /*extra*/) {
  OpenSSLCertificate pair;
  if (pair.open() != 0) failures::kNoCertificate.Throw();
  if (certFile.empty() || keyFile.empty()) {
    PrintPair(pair);
  } else {
    WritePair(Compose(pair), certFile, keyFile);
  }
}

}  // namespace corvel::storage::tzregister
