#include <openssl/pem.h>

#include <cstdio>
#include <iostream>

#include "registration/certificate.h"
#include "registration/failures.h"
#include "registration/registrator.h"
#include "support/file_system.h"
#include "support/openssl_handle.h"

namespace corvel::storage::tzregister {
namespace {

bool WriteKey(BIO* target, EVP_PKEY* key) {
  return PEM_write_bio_PrivateKey(target, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
}

bool WriteCertificate(BIO* target, X509* certificate) {
  return PEM_write_bio_X509(target, certificate) == 1;
}

/// Writes what `memory` holds to `file` in one piece; false on a short write.
bool WriteContents(BIO* memory, std::FILE* file) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(memory, &bytes);
  const auto size = static_cast<std::size_t>(length);
  return length > 0 && std::fwrite(bytes, 1, size, file) == size;
}

void PrintPair(const OpenSSLCertificate& pair) {
  std::cout.flush();
  PEM_write_PrivateKey(stdout, pair.key(), nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_X509(stdout, pair.certificate());
}

support::FilePtr OpenOrThrow(const std::string& path, support::FilePrivacy privacy) {
  support::FilePtr file = support::OpenForWriting(path, privacy);
  if (file == nullptr) failures::kNoCertificate.Throw();
  return file;
}

/// Writes both files as far as each can be, and throws when anything failed.
/// The library wipes the memory that the key passes through.
void WritePair(const OpenSSLCertificate& pair, support::FilePtr certFile,
               support::FilePtr keyFile) {
  const support::BioPtr memory(BIO_new(BIO_s_mem()));
  if (memory == nullptr) failures::kNoCertificate.Throw();
  int failures = 0;
  if (!WriteKey(memory.get(), pair.key()) || !WriteContents(memory.get(), keyFile.get())) {
    ++failures;
  }
  static_cast<void>(BIO_reset(memory.get()));
  if (!WriteCertificate(memory.get(), pair.certificate()) ||
      !WriteContents(memory.get(), certFile.get())) {
    ++failures;
  }
  if (!support::CloseFile(std::move(certFile))) ++failures;
  if (!support::CloseFile(std::move(keyFile))) ++failures;
  if (failures > 0) failures::kNoCertificate.Throw();
}

}  // namespace

void Registrator::GenerateSSLCertificate(const std::string& certFile, const std::string& keyFile,
                                         const std::string& /*extra*/) {
  OpenSSLCertificate pair;
  if (pair.open() != 0) failures::kNoCertificate.Throw();
  if (certFile.empty() || keyFile.empty()) {
    PrintPair(pair);
    return;
  }
  support::FilePtr certificate = OpenOrThrow(certFile, support::FilePrivacy::kPublic);
  support::FilePtr key = OpenOrThrow(keyFile, support::FilePrivacy::kSecret);
  WritePair(pair, std::move(certificate), std::move(key));
}

}  // namespace corvel::storage::tzregister
