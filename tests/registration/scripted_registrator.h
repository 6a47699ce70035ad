#ifndef TESTS_REGISTRATION_SCRIPTED_REGISTRATOR_H_
#define TESTS_REGISTRATION_SCRIPTED_REGISTRATOR_H_

#include <boost/program_options/variables_map.hpp>
#include <string>
#include <vector>

#include "registration/registrator.h"
#include "tests/testing/command_line.h"
#include "tests/testing/fake_network.h"
#include "webservice/ws_cata_proxy.h"

namespace corvel::storage::testing {

/// The failure of every call that the authority did not answer with a table.
inline constexpr char kCallFailed[] = "6/7 WSCataProxy: WebService call failed";

/// An account on the command line, with which any request can be sent.
inline std::vector<std::string> AccountWith(const std::vector<std::string>& more) {
  std::vector<std::string> words = {"--url", "http://spa", "--login", "me", "--passwd", "pw"};
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

/// A Registrator for the command line `arguments` whose authority answers from
/// a script.
struct ScriptedRegistrator {
  explicit ScriptedRegistrator(const std::vector<std::string>& arguments)
      : ScriptedRegistrator(Options(arguments)) {}
  explicit ScriptedRegistrator(const boost::program_options::variables_map& given)
      : options(given), proxy(options, network.network), registrator(options, &proxy) {}

  const std::vector<SentRequest>& requests() const { return network.http.requests; }

  FakeNetwork network;
  boost::program_options::variables_map options;
  tzregister::WSCataProxy proxy;
  tzregister::Registrator registrator;
};

}  // namespace corvel::storage::testing

#endif  // TESTS_REGISTRATION_SCRIPTED_REGISTRATOR_H_
