#include "support/server_trust.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/testing/allocation_limit.h"
#include "tests/testing/scoped_environment.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::support {
namespace {

using storage::testing::ScopedEnvironment;
using storage::testing::TempDirectory;

constexpr char kVerify[] = "QUORVEX_SSL_VERIFY";
constexpr char kPluginPath[] = "QUORVEX_PLUGIN_PATH";
constexpr std::size_t kPathBytes = 4096;

TEST(SupportTWLXSSLVerify, IsOnUnlessTheVariableIsZero) {
  for (const char* value : {static_cast<const char*>(nullptr), "", "1", "00", " 0", "0 ", "no"}) {
    const ScopedEnvironment variable(kVerify, value);
    EXPECT_NE(supportTWLXSSLVerify(), 0) << (value == nullptr ? "(not set)" : value);
  }
  const ScopedEnvironment variable(kVerify, "0");
  EXPECT_EQ(supportTWLXSSLVerify(), 0);
}

/// The plugin directory while the variable is `value`; "(none)" on failure.
std::string PluginPath(const char* value) {
  const ScopedEnvironment variable(kPluginPath, value);
  char path[kPathBytes] = "garbage";
  return getPluginPath(path, sizeof(path)) != 0 ? path : "(none)";
}

TEST(GetPluginPath, HasADefault) {
  EXPECT_EQ(PluginPath(nullptr), "/etc/quorvex/certs/");
  EXPECT_EQ(PluginPath(""), "/etc/quorvex/certs/");
}

TEST(GetPluginPath, AlwaysEndsInASlash) {
  EXPECT_EQ(PluginPath("/x/certs"), "/x/certs/");
  EXPECT_EQ(PluginPath("/x/certs/"), "/x/certs/");
  EXPECT_EQ(PluginPath("/"), "/");
  EXPECT_EQ(PluginPath("relative"), "relative/");
}

TEST(GetPluginPath, FailsWhenThePathDoesNotFit) {
  const ScopedEnvironment variable(kPluginPath, "/abc");
  std::vector<char> path(6, '#');
  EXPECT_NE(getPluginPath(path.data(), 6), 0);
  EXPECT_STREQ(path.data(), "/abc/");
  EXPECT_EQ(getPluginPath(path.data(), 5), 0);
  EXPECT_EQ(getPluginPath(path.data(), 0), 0);
}

TEST(GetPluginPath, IsBoundedWhateverTheVariableHolds) {
  EXPECT_EQ(PluginPath(std::string(4094, 'a').c_str()), std::string(4094, 'a') + "/");
  EXPECT_EQ(PluginPath(std::string(4095, 'a').c_str()), "(none)");
  EXPECT_EQ(PluginPath(std::string(100000, 'a').c_str()), "(none)");
}

/// The host of `url`; "(none)" when there is none to be had.
std::string Host(const std::string& url) {
  char host[256] = "garbage";
  return getHostFromUrl(url.c_str(), host, sizeof(host)) != 0 ? host : "(none)";
}

TEST(GetHostFromUrl, IsTheNameBetweenSchemeAndPath) {
  const struct {
    const char* url;
    const char* host;
  } kRows[] = {
      {"https://spa.example.org/path", "spa.example.org"},
      {"http://spa:8080", "spa"},
      {"https://user:pw@spa/x?host=other#frag", "spa"},
      {"vrmo://spa.example.org:10082/x", "spa.example.org"},
      {"vrmo://spa", "spa"},
      {"https://127.0.0.1:1/", "127.0.0.1"},
      {"https://[::1]:443/", "[::1]"},
      {"spa.example.org/ws", "spa.example.org"},
      {"https://a..b/", "a..b"},
      {"https://-a_b.c/", "-a_b.c"},
  };
  for (const auto& row : kRows) EXPECT_EQ(Host(row.url), row.host) << row.url;
}

TEST(GetHostFromUrl, RefusesWhatIsNoPlainFileName) {
  for (const char* url : {"https://../x", "https://./x", "https://.hidden/", "https://...",
                          "vrmo://../", "https://%2e%2e/", "https://a%2fb/",
                          "https://..%2f..%2fetc%2fpasswd/", "https://%2fetc/"}) {
    EXPECT_EQ(Host(url), "(none)") << url;
  }
}

TEST(GetHostFromUrl, RefusesAddressesWithoutAHost) {
  for (const char* url : {"", "https://", "vrmo://", "http://a b/", "https://h:99999/",
                          "https://[::1/", "file:///etc/passwd"}) {
    EXPECT_EQ(Host(url), "(none)") << url;
  }
}

TEST(GetHostFromUrl, FailsWhenTheNameDoesNotFit) {
  std::vector<char> host(4, '#');
  EXPECT_NE(getHostFromUrl("https://spa/", host.data(), 4), 0);
  EXPECT_STREQ(host.data(), "spa");
  EXPECT_EQ(getHostFromUrl("https://spa/", host.data(), 3), 0);
  EXPECT_EQ(getHostFromUrl("https://spa/", host.data(), 0), 0);
  EXPECT_EQ(Host("https://" + std::string(255, 'a')), std::string(255, 'a'));
  EXPECT_EQ(Host("https://" + std::string(256, 'a')), "(none)");
}

/// A plugin directory of the test's own.
class ServerCertificateFileTest : public ::testing::Test {
 protected:
  TempDirectory directory;
  ScopedEnvironment pluginPath{kPluginPath, directory.path().c_str()};
};

TEST_F(ServerCertificateFileTest, IsTheFileNamedForTheHost) {
  const std::string path = directory.Write("spa.example.org.pem", "");
  EXPECT_EQ(ServerCertificateFile("https://spa.example.org:8443/ws"), path);
  EXPECT_EQ(ServerCertificateFile("vrmo://spa.example.org"), path);
}

TEST_F(ServerCertificateFileTest, IsNoneWhenThereIsNoSuchFile) {
  directory.Write("spa", "");
  directory.Write("spa.crt", "");
  directory.Write("other.pem", "");
  directory.Write(".pem", "");
  for (const char* url : {"https://spa/", "https://spa.pem/", "", "https://", "https://../"}) {
    EXPECT_EQ(ServerCertificateFile(url), "") << url;
  }
}

TEST_F(ServerCertificateFileTest, IsFoundHoweverTheNameIsWritten) {
  const std::string path = directory.Write("spa.example.org.pem", "");
  for (const char* url : {"https://SPA.example.ORG/", "https://spa.example.org./",
                          "vrmo://Spa.Example.Org.:1/", "https://SPA.EXAMPLE.ORG.:8443/ws"}) {
    EXPECT_EQ(ServerCertificateFile(url), path) << url;
  }
  EXPECT_EQ(ServerCertificateFile("https://spa.example.org../"), "");
}

TEST_F(ServerCertificateFileTest, IsFirstLookedForAsTheNameWasTyped) {
  directory.Write("spa.pem", "");
  const std::string capitals = directory.Write("SPA.pem", "");
  const std::string dotted = directory.Write("spa..pem", "");
  EXPECT_EQ(ServerCertificateFile("https://SPA/"), capitals);
  EXPECT_EQ(ServerCertificateFile("https://spa./"), dotted);
  EXPECT_EQ(ServerCertificateFile("https://SPA./"), directory.File("spa.pem"));
}

TEST_F(ServerCertificateFileTest, HasAnAddressInBrackets) {
  const std::string path = directory.Write("[fe80::a].pem", "");
  EXPECT_EQ(ServerCertificateFile("https://[fe80::a]:443/"), path);
  EXPECT_EQ(ServerCertificateFile("https://[FE80::A]/"), path);
}

TEST_F(ServerCertificateFileTest, TakesWhateverStandsUnderTheName) {
  directory.Write("spa.pem/in-a-directory", "");
  EXPECT_EQ(ServerCertificateFile("https://spa/"), directory.File("spa.pem"));
}

TEST_F(ServerCertificateFileTest, IsNoneWhenTheNameIsTooLong) {
  const std::string longName = std::string(256, 'a');
  EXPECT_EQ(ServerCertificateFile("https://" + longName + "/"), "");
  const std::string name = std::string(251, 'a');
  EXPECT_EQ(ServerCertificateFile("https://" + name + "/"), "");
  const std::string path = directory.Write(name + ".pem", "");
  EXPECT_EQ(ServerCertificateFile("https://" + name + "/"), path);
}

TEST(ServerCertificateFile, IsNoneWhenThePathIsTooLong) {
  const TempDirectory directory;
  directory.Write("spa.pem", "");
  const auto withLength = [&](std::size_t length) {
    std::string path = directory.path();
    while (path.size() < length) path += '/';
    return path;
  };
  // What is left of the 4095 bytes once "spa.pem" stands behind.
  const std::string longest = withLength(4088);
  const ScopedEnvironment outer(kPluginPath, longest.c_str());
  EXPECT_EQ(ServerCertificateFile("https://spa/"), longest + "spa.pem");
  const ScopedEnvironment inner(kPluginPath, withLength(4089).c_str());
  EXPECT_EQ(ServerCertificateFile("https://spa/"), "");
}

TEST(VerificationOf, NeverDoesWithoutTrustForWantOfMemory) {
  const TempDirectory plugins;
  const std::string file = plugins.Write("spa.example.pem", "");
  const ScopedEnvironment variable(kPluginPath, plugins.path().c_str());
  Verification found = {ServerTrust::kFile, file};
  const std::size_t failed = storage::testing::ForEachFailedAllocation(
      [&] { found = VerificationOf("https://SPA.example./x"); },
      [&](bool) {
        EXPECT_EQ(found.trust, ServerTrust::kFile);
        EXPECT_EQ(found.caFile, file);
      });
  EXPECT_GT(failed, 5U);
}

}  // namespace
}  // namespace corvel::storage::support
