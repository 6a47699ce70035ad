#include "config/registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/testing/fake_registry_host.h"
#include "tests/testing/outcome.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kDefaultInstallation[] = "/usr/zenta/vrmo/qxag";
constexpr char kDefaultFile[] = "/etc/quorvex/Agent.cfg";

Outcome Open(Registry* registry, const char* section) {
  return OutcomeOf([&] { return registry->Open(section, "ignored"); });
}

/// What the reader and the registry say when there is no registry file.
std::string MissingFileNotice(const FakeRegistryHost& host) {
  return "Failed to open input file:" + host.registryFile + "\n" + host.registryFile +
         " doesn't exist, use the default values\n";
}

/// A registry file of a test's own, and the host that has it.
struct RegistryFile {
  explicit RegistryFile(const std::string& text) : host(directory.Write("qxregistry.cfg", text)) {}

  TempDirectory directory;
  FakeRegistryHost host;
};

constexpr char kTwoComponents[] =
    "[Agent]\nconfigfilepath=/etc/a.cfg\npath=/opt/a\n"
    "[Other]\nconfigfilepath=/etc/o.cfg\npath=/opt/o\n";

TEST(RegistryHost, ReadsTheRegistryOfTheHost) {
  EXPECT_EQ(RegistryHost::System().RegistryFile(), "/etc/qxregistry.cfg");
}

TEST(RegistryHost, TellsWhatExistsFromWhatDoesNot) {
  const TempDirectory directory;
  EXPECT_TRUE(RegistryHost::System().Exists(directory.path()));
  EXPECT_FALSE(RegistryHost::System().Exists(directory.File("missing")));
}

TEST(RegistryHost, ReadsThePathOfTheRunningExecutable) {
  const std::string executable = std::filesystem::read_symlink("/proc/self/exe").string();
  std::string buffer(executable.size() + 1, '?');
  const ssize_t length = RegistryHost::System().ReadExecutableLink(buffer.data(), buffer.size());
  EXPECT_EQ(length, static_cast<ssize_t>(executable.size()));
  EXPECT_EQ(buffer, executable + "?");
  EXPECT_EQ(RegistryHost::System().ReadExecutableLink(buffer.data(), 3), 3);
}

TEST(Registry, ReadsAComponentsEntry) {
  const RegistryFile file(kTwoComponents);
  Registry registry(file.host);
  const Outcome opened = Open(&registry, "Other");
  ExpectSuccess(opened);
  EXPECT_EQ(registry.configFilePath(), "/etc/o.cfg");
  EXPECT_EQ(registry.installPath(), "/opt/o");
  EXPECT_THAT(file.host.existenceTests, IsEmpty());
}

TEST(Registry, FindsAnEntryInAnyLetterCase) {
  const RegistryFile file("[agent]\nConfigFilePath=/etc/a.cfg\nPATH=/opt/a\n");
  Registry registry(file.host);
  EXPECT_EQ(Open(&registry, "Agent").result, 0);
  EXPECT_EQ(registry.configFilePath(), "/etc/a.cfg");
  EXPECT_EQ(registry.installPath(), "/opt/a");
}

TEST(Registry, ReadsAnotherEntryWhenItIsOpenedAgain) {
  const RegistryFile file(kTwoComponents);
  Registry registry(file.host);
  EXPECT_EQ(Open(&registry, "Agent").result, 0);
  EXPECT_EQ(Open(&registry, "Other").result, 0);
  EXPECT_EQ(registry.installPath(), "/opt/o");
}

TEST(Registry, FailsSilentlyWhenTheFileLacksTheEntryOrAPartOfIt) {
  const char* const kTexts[] = {
      "",
      "[Other]\nconfigfilepath=/etc/o.cfg\npath=/opt/o\n",
      "[Agent]\n",
      "[Agent]\nconfigfilepath=/etc/a.cfg\n",
      "[Agent]\npath=/opt/a\n",
  };
  for (const char* text : kTexts) {
    SCOPED_TRACE(text);
    const RegistryFile file(text);
    Registry registry(file.host);
    const Outcome opened = Open(&registry, "Agent");
    ExpectError(opened, "");
    EXPECT_EQ(registry.installPath(), "");
    EXPECT_THAT(file.host.existenceTests, IsEmpty());
  }
}

TEST(Registry, UsesTheDefaultsWhenThereIsNoFile) {
  const FakeRegistryHost host;
  Registry registry(host);
  const Outcome opened = Open(&registry, "Agent");
  EXPECT_EQ(opened.result, 0);
  EXPECT_EQ(opened.out, "");
  EXPECT_EQ(opened.err, MissingFileNotice(host));
  EXPECT_EQ(registry.configFilePath(), kDefaultFile);
  EXPECT_EQ(registry.installPath(), kDefaultInstallation);
  EXPECT_THAT(host.existenceTests, ElementsAre(kDefaultInstallation));
  EXPECT_THAT(host.linkBufferSizes, IsEmpty());
}

TEST(Registry, UsesTheAgentsDefaultsForEveryComponent) {
  const FakeRegistryHost host;
  Registry registry(host);
  EXPECT_EQ(Open(&registry, "ContentRouter").result, 0);
  EXPECT_EQ(registry.configFilePath(), kDefaultFile);
  EXPECT_EQ(registry.installPath(), kDefaultInstallation);
}

TEST(Registry, UsesTheDefaultsWhenTheFileIsInvalid) {
  const RegistryFile file("[Agent]\nconfigfilepath=/etc/a.cfg\npath=/opt/a\n=broken\n");
  Registry registry(file.host);
  const Outcome opened = Open(&registry, "Agent");
  EXPECT_EQ(opened.result, 0);
  EXPECT_EQ(opened.err, "Found an invalid key: =broken\n" + file.host.registryFile +
                            " doesn't exist, use the default values\n");
  EXPECT_EQ(registry.configFilePath(), kDefaultFile);
  EXPECT_EQ(registry.installPath(), kDefaultInstallation);
}

TEST(Registry, DerivesTheInstallationFromTheExecutableWhenTheDefaultIsMissing) {
  const struct {
    const char* executable;
    const char* installation;
  } kCases[] = {
      {"/opt/x/bin/tool", "/opt/x"},
      {"/opt/x/tool", "/opt/x/tool"},
      {"/opt/binaries/tool", "/opt"},
      {"/opt/bin/x/bin/tool", "/opt/bin/x"},
      {"/opt/bin/binary", "/opt/bin"},
      {"/bin/tool", ""},
      {"/opt/x/sbin/tool", "/opt/x/sbin/tool"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.executable);
    FakeRegistryHost host;
    host.installed = false;
    host.executable = row.executable;
    Registry registry(host);
    const Outcome opened = Open(&registry, "Agent");
    EXPECT_EQ(opened.result, 0);
    EXPECT_EQ(registry.installPath(), row.installation);
    EXPECT_EQ(registry.configFilePath(), kDefaultFile);
    EXPECT_EQ(opened.err, MissingFileNotice(host));
    EXPECT_EQ(opened.out,
              "can't acccess /usr/zenta/vrmo/qxag, use the path of current executable app " +
                  std::string(row.installation) + "\n");
  }
}

/// Opens a registry on `host`, whose executable cannot be told.
void ExpectDefaultsAndNotice(FakeRegistryHost host) {
  host.installed = false;
  Registry registry(host);
  const Outcome opened = Open(&registry, "Agent");
  EXPECT_EQ(opened.result, 0);
  EXPECT_EQ(opened.out, "");
  EXPECT_EQ(opened.err,
            MissingFileNotice(host) + "Failed to get current exe path, readlink failed\n");
  EXPECT_EQ(registry.configFilePath(), kDefaultFile);
  EXPECT_EQ(registry.installPath(), kDefaultInstallation);
  EXPECT_THAT(host.linkBufferSizes, ElementsAre(4096U));
}

TEST(Registry, KeepsTheDefaultInstallationWhenTheExecutableCannotBeTold) {
  FakeRegistryHost host;
  host.linkFails = true;
  ExpectDefaultsAndNotice(host);
}

TEST(Registry, KeepsTheDefaultInstallationWhenTheExecutablesPathFillsTheBuffer) {
  FakeRegistryHost host;
  host.executable = std::string(4096, 'x');
  ExpectDefaultsAndNotice(host);
}

TEST(Registry, UsesAnExecutablesPathThatJustFitsTheBuffer) {
  FakeRegistryHost host;
  host.installed = false;
  host.executable = "/opt" + std::string(4095 - 4, 'x');
  Registry registry(host);
  EXPECT_EQ(Open(&registry, "Agent").result, 0);
  EXPECT_EQ(registry.installPath(), host.executable);
}

TEST(GetPathsFromRegistry, GivesTheTwoPathsOfTheNamedComponent) {
  const RegistryFile file(kTwoComponents);
  std::string path;
  std::string configFile;
  GetPathsFromRegistry("Other", &path, &configFile, file.host);
  EXPECT_EQ(path, "/opt/o");
  EXPECT_EQ(configFile, "/etc/o.cfg");
}

TEST(GetPathsFromRegistry, TakesAnEmptyNameForTheAgent) {
  const RegistryFile file(kTwoComponents);
  std::string path;
  std::string configFile;
  GetPathsFromRegistry("", &path, &configFile, file.host);
  EXPECT_EQ(path, "/opt/a");
  EXPECT_EQ(configFile, "/etc/a.cfg");
}

TEST(GetPathsFromRegistry, GivesEitherPathAlone) {
  const RegistryFile file(kTwoComponents);
  std::string path;
  std::string configFile;
  GetPathsFromRegistry("Agent", &path, nullptr, file.host);
  GetPathsFromRegistry("Agent", nullptr, &configFile, file.host);
  GetPathsFromRegistry("Agent", nullptr, nullptr, file.host);
  EXPECT_EQ(path, "/opt/a");
  EXPECT_EQ(configFile, "/etc/a.cfg");
}

TEST(GetPathsFromRegistry, GivesTheDefaultsAndTheirNoticesWhenThereIsNoFile) {
  const FakeRegistryHost host;
  std::string path;
  std::string configFile;
  const Outcome asked = OutcomeOf([&] { GetPathsFromRegistry("Other", &path, &configFile, host); });
  EXPECT_EQ(asked.failure, kNothingThrown);
  EXPECT_EQ(asked.err, MissingFileNotice(host));
  EXPECT_EQ(path, kDefaultInstallation);
  EXPECT_EQ(configFile, kDefaultFile);
}

/// Asks for the agent's paths in a registry of `text`, which must be refused.
void ExpectRefusal(const std::string& text) {
  const RegistryFile file(text);
  std::string path = "untouched path";
  std::string configFile = "untouched file";
  const Outcome outcome =
      OutcomeOf([&] { GetPathsFromRegistry("Agent", &path, &configFile, file.host); });
  ExpectFailure(outcome, {18, 5, "TZRegister", "Could not open TZRegister"});
  EXPECT_EQ(path, "untouched path");
  EXPECT_EQ(configFile, "untouched file");
}

TEST(GetPathsFromRegistry, ThrowsWhenTheFileLacksTheComponentOrAPartOfIt) {
  for (const char* text :
       {"[Other]\npath=/o\n", "[Agent]\npath=/opt/a\n", "[Agent]\nconfigfilepath=/etc/a.cfg\n"}) {
    SCOPED_TRACE(text);
    ExpectRefusal(text);
  }
}

}  // namespace
}  // namespace corvel::storage::tzregister
