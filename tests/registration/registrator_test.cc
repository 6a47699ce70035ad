#include "registration/registrator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/registration/scripted_registrator.h"
#include "tests/testing/authority_answers.h"
#include "tests/testing/outcome.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;

struct TypeActions {
  std::string type;
  std::vector<std::string> actions;
};

const TypeActions kAllowed[] = {
    {"Agent", {"register", "configfile", "routingtables", "certificate", "createds"}},
    {"StoragePoolAuthority", {"configfile"}},
    {"storagepool", {"discover"}},
    {"ContentRouter", {"configfile"}},
    {"", {"createds", "routingtables", "discover"}},
    {"MetabaseEngine", {}},
    {"MetabaseServer", {}},
    {"Controller", {}},
    {"qxwfe", {}},
    {"agent", {}},
    {"Agent ", {}},
    {"Foo", {}},
};

const char* const kActions[] = {"register",    "configfile", "routingtables",
                                "certificate", "createds",   "discover",
                                "createDS",    "registry",   "",
                                "Register",    " discover",  "configfile ",
                                "routingtable"};

std::string Refusal(const std::string& action, const TypeActions& row) {
  std::string text =
      "Action " + action + " is not a valid action for type " + row.type + ".\nValid actions are: ";
  for (const std::string& valid : row.actions) text += valid + " ";
  return text + "\n";
}

TEST(ValidateAction, AcceptsWhatTheTypeAllowsAndRefusesTheRest) {
  const ScriptedRegistrator test(Words{});
  for (const TypeActions& row : kAllowed) {
    for (const std::string action : kActions) {
      SCOPED_TRACE(row.type + "/" + action);
      const bool allowed =
          std::find(row.actions.begin(), row.actions.end(), action) != row.actions.end();
      const Thrown refused{6, 5, "Registrator", Refusal(action, row)};
      EXPECT_EQ(OutcomeOf([&] { test.registrator.ValidateAction(action, row.type); }).failure,
                allowed ? kNothingThrown : refused);
    }
  }
}

TEST(ValidateAction, ListsWhatIsAllowedInItsOrder) {
  const ScriptedRegistrator test(Words{});
  ExpectFailure(OutcomeOf([&] { test.registrator.ValidateAction("discover", "Agent"); }),
                {6, 5, "Registrator",
                 "Action discover is not a valid action for type Agent.\n"
                 "Valid actions are: register configfile routingtables certificate createds \n"});
  ExpectFailure(OutcomeOf([&] { test.registrator.ValidateAction("configfile", "Controller"); }),
                {6, 5, "Registrator",
                 "Action configfile is not a valid action for type Controller.\n"
                 "Valid actions are: \n"});
  ExpectFailure(OutcomeOf([&] { test.registrator.ValidateAction("register", ""); }),
                {6, 5, "Registrator",
                 "Action register is not a valid action for type .\n"
                 "Valid actions are: createds routingtables discover \n"});
}

TEST(ValidateAction, PrintsNothing) {
  const ScriptedRegistrator test(Words{});
  const Outcome outcome = OutcomeOf([&] { test.registrator.ValidateAction("x", "y"); });
  EXPECT_EQ(outcome.out + outcome.err, "");
}

TEST(SetConfigFile, SaysFromWhereCredentialsAreRead) {
  const TempDirectory directory;
  ScriptedRegistrator test(Words{});
  for (const char* name : {"one", "two"}) {
    directory.Write(name, CredentialFile(std::string("http://") + name, directory.path()));
    test.registrator.SetConfigFile(directory.File(name));
    test.network.http.Answer(NoRecords());
    test.registrator.CreateDataSelection("n", "r", "1");
    EXPECT_EQ(test.requests().back().url, std::string("http://") + name + "/ws_dataselection.php");
  }
}

}  // namespace
}  // namespace corvel::storage::tzregister
