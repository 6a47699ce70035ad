#ifndef TESTS_REGISTRATION_OPENSSL_FAULT_H_
#define TESTS_REGISTRATION_OPENSSL_FAULT_H_

#include <string>

namespace corvel::storage::testing {

/// While it lives, one function of the crypto library fails, of those that
/// openssl_fault.cc has. One at a time.
class OpenSslFault {
 public:
  explicit OpenSslFault(const std::string& function);
  ~OpenSslFault();
  OpenSslFault(const OpenSslFault&) = delete;
  OpenSslFault& operator=(const OpenSslFault&) = delete;
};

}  // namespace corvel::storage::testing

#endif  // TESTS_REGISTRATION_OPENSSL_FAULT_H_
