#ifndef TESTS_REGISTRATION_SCRIPTED_REGISTRATOR_H_
#define TESTS_REGISTRATION_SCRIPTED_REGISTRATOR_H_

#include <boost/program_options/variables_map.hpp>
#include <string>
#include <vector>

#include "registration/registrator.h"
#include "tests/testing/command_line.h"
#include "tests/testing/fake_network.h"
#include "tests/testing/outcome.h"
#include "tests/testing/words.h"
#include "webservice/ws_cata_proxy.h"

namespace corvel::storage::testing {

/// The refusal of a component type that there is none of.
inline Thrown UnknownType(const std::string& type) {
  return {16, 5, "StringCheck",
          "Type \"" + type +
              "\" is not a valid type. Must be one of \"Agent ContentRouter StoragePoolAuthority "
              "MetabaseEngine MetabaseServer Controller qxwfe storagepool \".\n"};
}

/// A Registrator for the command line `arguments` whose authority answers from
/// a script.
struct ScriptedRegistrator {
  explicit ScriptedRegistrator(const Words& arguments) : ScriptedRegistrator(Options(arguments)) {}
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
