#ifndef TESTS_TESTING_CURL_DOUBLE_H_
#define TESTS_TESTING_CURL_DOUBLE_H_

#include <curl/curl.h>

#include <map>
#include <string>
#include <vector>

namespace corvel::storage::testing {

/// Stands between the code under test and libcurl while it lives: records the
/// options that a transfer is given, which libcurl still judges, and carries
/// transfers out by a script. No transfer of this program ever reaches a
/// network. One at a time.
class CurlDouble {
 public:
  CurlDouble();
  ~CurlDouble();
  CurlDouble(const CurlDouble&) = delete;
  CurlDouble& operator=(const CurlDouble&) = delete;

  // What was asked.

  /// Every option in the order of setting, e.g. "TIMEOUT=120", "CAINFO=/a.pem",
  /// "CAPATH=(null)", "HTTPHEADER=a: b|c: d". Pointers that are no texts and no
  /// lists read "(set)".
  std::vector<std::string> options;
  /// The values of pointer options by name, as they were given.
  std::map<std::string, void*> pointers;
  /// The request body at each performance.
  std::vector<std::string> bodies;

  /// The value of option `name` ("URL"), "(unset)" when it was not set.
  std::string Option(const std::string& name) const;

  // What is answered.

  /// An option that libcurl is to refuse, "" for none, and how.
  std::string refusedOption;
  CURLcode refusal = CURLE_UNKNOWN_OPTION;
  /// How the library's start ends.
  CURLcode startResult = CURLE_OK;
  /// False: no handle can be made.
  bool hasHandles = true;
  CURLcode performResult = CURLE_OK;
  CURLcode infoResult = CURLE_OK;
  long httpStatus = 200;
  /// Values of every "X-Quorvex-Status" header of the reply.
  std::vector<std::string> statusHeaders = {"0"};
  /// Parts of the reply's text, delivered one by one.
  std::vector<std::string> parts;
};

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_CURL_DOUBLE_H_
