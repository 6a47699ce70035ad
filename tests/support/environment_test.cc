#include "support/environment.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/testing/scoped_environment.h"

namespace corvel::storage::support {
namespace {

using storage::testing::ScopedEnvironment;

constexpr char kName[] = "TZREGISTER_TEST_VARIABLE";

TEST(EnvironmentText, IsTheVariablesValue) {
  const ScopedEnvironment variable(kName, " a value ");
  EXPECT_EQ(EnvironmentText(kName, "fallback"), " a value ");
}

TEST(EnvironmentText, FallsBackForAVariableThatIsNotSet) {
  const ScopedEnvironment variable(kName, nullptr);
  EXPECT_EQ(EnvironmentText(kName, "fallback"), "fallback");
  EXPECT_EQ(EnvironmentText(kName, ""), "");
}

TEST(EnvironmentText, FallsBackForAnEmptyVariable) {
  const ScopedEnvironment variable(kName, "");
  EXPECT_EQ(EnvironmentText(kName, "fallback"), "fallback");
}

TEST(EnvironmentText, FollowsChanges) {
  const ScopedEnvironment outer(kName, "outer");
  {
    const ScopedEnvironment inner(kName, "inner");
    EXPECT_EQ(EnvironmentText(kName, ""), "inner");
  }
  EXPECT_EQ(EnvironmentText(kName, ""), "outer");
}

// Every case of every test program is run with these set.
TEST(EnvironmentOfTheTests, HoldsNothingOfTheCallers) {
  for (const char* name : {"QUORVEX_SSL_VERIFY", "QUORVEX_PLUGIN_PATH", "QUORVEX_SSL_SERVER_NAME",
                           "http_proxy", "ALL_PROXY", "OPENSSL_CONF", "LANG", "TZ", "PATH"}) {
    EXPECT_EQ(std::getenv(name), nullptr) << name;
  }
}

}  // namespace
}  // namespace corvel::storage::support
