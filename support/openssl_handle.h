#ifndef SUPPORT_OPENSSL_HANDLE_H_
#define SUPPORT_OPENSSL_HANDLE_H_

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "support/handle.h"

namespace corvel::storage::support {

// Owned OpenSSL handles. Each frees its object when it goes out of scope, also
// when an exception passes; null stands for "could not be made".

using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, HandleDeleter<EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, HandleDeleter<EVP_PKEY_CTX_free>>;
using EvpCipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, HandleDeleter<EVP_CIPHER_CTX_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, HandleDeleter<EVP_MD_CTX_free>>;
using X509Ptr = std::unique_ptr<X509, HandleDeleter<X509_free>>;
using X509ExtensionPtr = std::unique_ptr<X509_EXTENSION, HandleDeleter<X509_EXTENSION_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, HandleDeleter<BN_free>>;
using BioPtr = std::unique_ptr<BIO, HandleDeleter<BIO_free_all>>;

}  // namespace corvel::storage::support

#endif  // SUPPORT_OPENSSL_HANDLE_H_
