#include "support/environment.h"

#include <gtest/gtest.h>

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

TEST(EnvironmentVariables, HaveTheNamesThatTheManualGives) {
  EXPECT_STREQ(kSslVerifyVariable, "QUORVEX_SSL_VERIFY");
  EXPECT_STREQ(kPluginPathVariable, "QUORVEX_PLUGIN_PATH");
  EXPECT_STREQ(kSslServerNameVariable, "QUORVEX_SSL_SERVER_NAME");
}

}  // namespace
}  // namespace corvel::storage::support
