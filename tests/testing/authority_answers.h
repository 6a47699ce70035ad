#ifndef TESTS_TESTING_AUTHORITY_ANSWERS_H_
#define TESTS_TESTING_AUTHORITY_ANSWERS_H_

#include <string>

#include "tests/testing/fake_network.h"
#include "tests/testing/outcome.h"

namespace corvel::storage::testing {

/// The failure of every call that the authority did not answer with a table.
inline const Thrown kCallFailed{6, 7, "WSCataProxy", "WebService call failed"};

/// What stands on standard error when an answer was neither table nor error block.
inline constexpr char kNotParsed[] =
    "The data returned by the webservice could not be parsed.\n"
    "Server's HTTP response code was 0\n";

/// An answer with one record: column names, types and escaped values, each with
/// bars between.
inline std::string OneRecord(const std::string& names, const std::string& types,
                             const std::string& values) {
  return "***BEGIN***\n1\n" + names + "\n" + types + "\n" + values + "\n***DONE***\n";
}

/// The answer of an authority that has nothing to say but that all is well.
inline std::string NoRecords() { return "***BEGIN***\n0\nresult\nS\n***DONE***\n"; }

inline std::string AgentAnswer(const std::string& id, const std::string& login,
                               const std::string& password) {
  return OneRecord("agentid|login|password", "I|S|S", id + "|" + login + "|" + password);
}

/// A configuration-file template, its line ends escaped.
inline std::string TemplateAnswer(const std::string& escapedText) {
  return OneRecord("returnvalue", "S", escapedText);
}

inline std::string RoutingTablesAnswer(const std::string& recommended, const std::string& current) {
  return OneRecord("cr_recommendedrt|cr_currentrt", "S|S", recommended + "|" + current);
}

/// A component's configuration file with an account whose password is plain
/// because the key directory holds no key file.
inline std::string CredentialFile(const std::string& url, const std::string& keydir) {
  return "[spa]\nurl=" + url +
         "\n[systemaccount]\nlogin=stored\npasswd=storedpw\n[paths]\nkeydir=" + keydir +
         "\n[main]\nagentid=7\n";
}

/// The value of form field `name` in `request`; "(none)" when it has no such
/// field.
inline std::string FormValue(const SentRequest& request, const std::string& name) {
  for (const auto& field : request.form) {
    if (field.first == name) return field.second;
  }
  return "(none)";
}

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_AUTHORITY_ANSWERS_H_
