#include "registration/certificate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/registration/openssl_fault.h"
#include "tests/testing/outcome.h"
#include "tests/testing/scoped_environment.h"

namespace {

/// While it lives, every look at the clock is a second later than the one before.
/// One at a time.
class TickingClock {
 public:
  TickingClock() { ticking = true; }
  ~TickingClock() { ticking = false; }
  TickingClock(const TickingClock&) = delete;
  TickingClock& operator=(const TickingClock&) = delete;

  static bool ticking;
};

bool TickingClock::ticking = false;

}  // namespace

// Takes the place of the system's own function in this program, libraries
// included.
extern "C" std::time_t time(std::time_t* out) noexcept {
  static std::time_t ticks = 0;
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::time_t seconds = now.tv_sec + (TickingClock::ticking ? ++ticks : 0);
  if (out != nullptr) *out = seconds;
  return seconds;
}

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using namespace std::string_literals;
using ::testing::ElementsAre;

constexpr char kServerNameVariable[] = "QUORVEX_SSL_SERVER_NAME";

// Tags of the encoded certificate.
constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kInteger = 0x02;
constexpr unsigned char kVersionTag = 0xa0;

/// One element of a DER encoding.
struct Element {
  unsigned char tag = 0;
  std::string content;
};

/// Cuts the first element off `*bytes`.
Element TakeElement(std::string* bytes) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(bytes->at(at)); };
  Element element;
  element.tag = byte(0);
  std::size_t start = 2;
  std::size_t length = byte(1);
  if (length >= 0x80) {
    const std::size_t count = length - 0x80;
    length = 0;
    for (; start < 2 + count; ++start) length = length * 256 + byte(start);
  }
  element.content = bytes->substr(start, length);
  *bytes = bytes->substr(start + length);
  return element;
}

std::string Encoded(X509* certificate) {
  unsigned char* bytes = nullptr;
  const int length = i2d_X509(certificate, &bytes);
  std::string encoded(bytes, bytes + length);
  OPENSSL_free(bytes);
  return encoded;
}

support::X509Ptr Decoded(const std::string& encoded) {
  const auto* next = reinterpret_cast<const unsigned char*>(encoded.data());
  return support::X509Ptr(d2i_X509(nullptr, &next, static_cast<long>(encoded.size())));
}

/// A certificate as a peer gets it: encoded and read back.
class OpenSSLCertificateTest : public ::testing::Test {
 protected:
  OpenSSLCertificateTest() {
    EXPECT_EQ(pair.open(), 0);
    encoded = Encoded(pair.certificate());
    certificate = Decoded(encoded);
  }

  /// The signed part's content.
  std::string SignedPart() const {
    std::string bytes = encoded;
    std::string body = TakeElement(&bytes).content;
    const Element part = TakeElement(&body);
    EXPECT_EQ(part.tag, kSequence);
    return part.content;
  }

  OpenSSLCertificate pair;
  std::string encoded;
  support::X509Ptr certificate;
};

TEST_F(OpenSSLCertificateTest, EncodesVersionThreeAndSerialNumberZero) {
  std::string part = SignedPart();
  Element version = TakeElement(&part);
  EXPECT_EQ(version.tag, kVersionTag);
  const Element number = TakeElement(&version.content);
  EXPECT_EQ(number.tag, kInteger);
  EXPECT_EQ(number.content, "\x03");
  EXPECT_EQ(version.content, "");
  const Element serial = TakeElement(&part);
  EXPECT_EQ(serial.tag, kInteger);
  EXPECT_EQ(serial.content, "\0"s);
}

TEST_F(OpenSSLCertificateTest, IsSignedByItsOwnKeyWithMd5) {
  EXPECT_EQ(X509_get_signature_nid(certificate.get()), NID_md5WithRSAEncryption);
  EXPECT_EQ(X509_verify(certificate.get(), pair.key()), 1);
  const X509_ALGOR* const inner = X509_get0_tbs_sigalg(certificate.get());
  const X509_ALGOR* outer = nullptr;
  const ASN1_BIT_STRING* signature = nullptr;
  X509_get0_signature(&signature, &outer, certificate.get());
  EXPECT_EQ(X509_ALGOR_cmp(inner, outer), 0);
  EXPECT_EQ(signature->length, 1024 / 8);
}

TEST(OpenSSLCertificate, CarriesASignatureOfWholeBytes) {
  // Every other signature ends with a bit that an encoder could take for unused.
  for (int made = 0; made < 20; ++made) {
    OpenSSLCertificate pair;
    ASSERT_EQ(pair.open(), 0);
    const support::X509Ptr certificate = Decoded(Encoded(pair.certificate()));
    EXPECT_EQ(X509_verify(certificate.get(), pair.key()), 1);
  }
}

TEST_F(OpenSSLCertificateTest, HoldsTheKeyItCameWith) {
  EXPECT_EQ(X509_check_private_key(certificate.get(), pair.key()), 1);
  EXPECT_EQ(EVP_PKEY_get_base_id(pair.key()), EVP_PKEY_RSA);
  EXPECT_EQ(EVP_PKEY_get_bits(pair.key()), 1024);
  BIGNUM* exponent = nullptr;
  ASSERT_EQ(EVP_PKEY_get_bn_param(pair.key(), "e", &exponent), 1);
  const support::BignumPtr owned(exponent);
  EXPECT_EQ(BN_get_word(exponent), 65537U);
}

/// Seconds from the epoch to `time`.
std::time_t Seconds(const ASN1_TIME* time) {
  std::tm parts = {};
  EXPECT_EQ(ASN1_TIME_to_tm(time, &parts), 1);
  return timegm(&parts);
}

TEST_F(OpenSSLCertificateTest, IsValidFromItsMakingFor1825Days) {
  const std::time_t before = std::time(nullptr);
  OpenSSLCertificate fresh;
  ASSERT_EQ(fresh.open(), 0);
  const std::time_t start = Seconds(X509_get0_notBefore(fresh.certificate()));
  EXPECT_GE(start, before);
  EXPECT_LE(start, std::time(nullptr));
  EXPECT_EQ(Seconds(X509_get0_notAfter(fresh.certificate())) - start, 157680000);
}

TEST_F(OpenSSLCertificateTest, IsValidAsLongWhenASecondBeginsDuringItsMaking) {
  const TickingClock clock;
  OpenSSLCertificate fresh;
  ASSERT_EQ(fresh.open(), 0);
  EXPECT_EQ(Seconds(X509_get0_notAfter(fresh.certificate())) -
                Seconds(X509_get0_notBefore(fresh.certificate())),
            157680000);
}

/// "field=text" of each entry of `name`, in order.
std::vector<std::string> Entries(const X509_NAME* name) {
  std::vector<std::string> entries;
  for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
    const X509_NAME_ENTRY* const entry = X509_NAME_get_entry(name, i);
    const ASN1_STRING* const text = X509_NAME_ENTRY_get_data(entry);
    const auto* const bytes = ASN1_STRING_get0_data(text);
    entries.push_back(OBJ_nid2sn(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry))) + "="s +
                      std::string(bytes, bytes + ASN1_STRING_length(text)));
  }
  return entries;
}

TEST_F(OpenSSLCertificateTest, NamesCountryAndThenCommonNameAsSubjectAndIssuer) {
  EXPECT_THAT(Entries(X509_get_subject_name(certificate.get())),
              ElementsAre("C=US", "CN=Veltrane"));
  EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(certificate.get()),
                          X509_get_issuer_name(certificate.get())),
            0);
}

/// Short name, criticality and encoded value of each extension, in order.
std::vector<std::string> Extensions(const X509* certificate) {
  std::vector<std::string> extensions;
  for (int i = 0; i < X509_get_ext_count(certificate); ++i) {
    X509_EXTENSION* const extension = X509_get_ext(certificate, i);
    const ASN1_OCTET_STRING* const value = X509_EXTENSION_get_data(extension);
    const auto* const bytes = ASN1_STRING_get0_data(value);
    extensions.push_back(OBJ_nid2sn(OBJ_obj2nid(X509_EXTENSION_get_object(extension))) +
                         (X509_EXTENSION_get_critical(extension) == 0 ? " "s : " critical "s) +
                         std::string(bytes, bytes + ASN1_STRING_length(value)));
  }
  return extensions;
}

TEST(OpenSSLCertificate, CarriesThreeExtensionsInOrderNoneOfThemCritical) {
  const ScopedEnvironment name(kServerNameVariable, "pool.example");
  OpenSSLCertificate pair;
  ASSERT_EQ(pair.open(), 0);
  EXPECT_THAT(Extensions(pair.certificate()),
              ElementsAre("nsCertType \x03\x02\x06\x40", "nsComment \x16\x08veltrane",
                          "nsSslServerName \x16\x0cpool.example"));
}

/// The server name of a certificate made with the environment's `name`.
std::string ServerNameFor(const char* name) {
  const ScopedEnvironment environment(kServerNameVariable, name);
  OpenSSLCertificate fresh;
  EXPECT_EQ(fresh.open(), 0) << name;
  const std::string head = "nsSslServerName \x16";
  const std::string extension = Extensions(fresh.certificate()).back();
  EXPECT_EQ(extension.rfind(head, 0), 0U);
  return extension.substr(head.size() + 1);  // behind the length, one byte here
}

TEST_F(OpenSSLCertificateTest, TakesAnyServerNameAsItStands) {
  for (const char* name : {"host.example", "a b", "a:b", "a\nb", " DER:0500", "critical", "der:x",
                           "@section", "*.example"}) {
    EXPECT_EQ(ServerNameFor(name), name);
  }
}

TEST_F(OpenSSLCertificateTest, TakesNoInstructionToOpenSslForAServerName) {
  for (const char* name : {"critical,host", "critical,", "DER:0500", "DER:", "ASN1:UTF8:x"}) {
    EXPECT_EQ(ServerNameFor(name), TZREGISTER_SSL_SERVER_NAME) << name;
  }
}

TEST(OpenSSLCertificate, HoldsNothingBeforeItIsOpened) {
  const OpenSSLCertificate pair;
  EXPECT_EQ(pair.certificate(), nullptr);
  EXPECT_EQ(pair.key(), nullptr);
  EXPECT_FALSE(pair.opened());
}

TEST_F(OpenSSLCertificateTest, KeepsWhatItHasWhenItIsOpenedAgain) {
  const X509* const made = pair.certificate();
  const EVP_PKEY* const key = pair.key();
  EXPECT_TRUE(pair.opened());
  EXPECT_EQ(pair.open(), 0);
  EXPECT_EQ(pair.certificate(), made);
  EXPECT_EQ(pair.key(), key);
  EXPECT_EQ(X509_verify(pair.certificate(), pair.key()), 1);
}

TEST_F(OpenSSLCertificateTest, MakesANewKeyEveryTime) {
  OpenSSLCertificate other;
  ASSERT_EQ(other.open(), 0);
  EXPECT_EQ(EVP_PKEY_eq(pair.key(), other.key()), 0);
}

TEST(OpenSSLCertificate, FailsQuietlyWithEachStepOfTheCryptographyAndCanTryAgain) {
  for (const char* step :
       {"EVP_PKEY_keygen_init", "BN_set_word", "EVP_PKEY_CTX_set_rsa_keygen_bits",
        "EVP_PKEY_CTX_set1_rsa_keygen_pubexp", "EVP_PKEY_keygen", "X509_new", "X509_ALGOR_set0",
        "X509_set_version", "EVP_DigestSignInit", "EVP_DigestSign"}) {
    SCOPED_TRACE(step);
    OpenSSLCertificate pair;
    const Outcome failed = OutcomeOf([&] {
      const OpenSslFault fault(step);
      return pair.open();
    });
    ExpectError(failed, "");
    EXPECT_FALSE(pair.opened());
    EXPECT_EQ(pair.open(), 0);
    EXPECT_TRUE(pair.opened());
    EXPECT_EQ(X509_verify(pair.certificate(), pair.key()), 1);
  }
}

TEST(OpenSSLCertificate, CanBeDerivedFrom) {
  EXPECT_TRUE(std::has_virtual_destructor_v<OpenSSLCertificate>);
  EXPECT_FALSE(std::is_copy_constructible_v<OpenSSLCertificate>);
}

TEST(SslServerName, IsTheEnvironmentsOrTheOneOfTheBuild) {
  for (const char* value : {static_cast<const char*>(nullptr), ""}) {
    const ScopedEnvironment name(kServerNameVariable, value);
    EXPECT_EQ(SslServerName(), TZREGISTER_SSL_SERVER_NAME);
  }
  const ScopedEnvironment name(kServerNameVariable, "pool.example");
  EXPECT_EQ(SslServerName(), "pool.example");
}

}  // namespace
}  // namespace corvel::storage::tzregister
