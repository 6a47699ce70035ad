#include <gtest/gtest.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <tuple>

#include "support/password.h"
#include "tests/registration/scripted_registrator.h"
#include "tests/testing/disguised_secret.h"
#include "tests/testing/outcome.h"
#include "tests/testing/temp_directory.h"

namespace corvel::storage::tzregister {
namespace {

using namespace storage::testing;

/// What a reading of a credential file left in its outputs, and how it failed.
struct Reading {
  std::string url = "old url";
  std::string login = "old login";
  std::string passwd = "old passwd";
  std::string keydir = "old keydir";
  std::string agentid = "old agentid";
  Thrown failure = {};
};

bool operator==(const Reading& a, const Reading& b) {
  return std::tie(a.url, a.login, a.passwd, a.keydir, a.agentid, a.failure) ==
         std::tie(b.url, b.login, b.passwd, b.keydir, b.agentid, b.failure);
}

std::ostream& operator<<(std::ostream& stream, const Reading& reading) {
  return stream << reading.url << ", " << reading.login << ", " << reading.passwd << ", "
                << reading.keydir << ", " << reading.agentid << ", " << reading.failure;
}

/// Reads `file`; nothing may be printed but `err`.
Reading ReadFrom(const std::string& file, const std::string& err = "") {
  Reading reading;
  const Outcome outcome = OutcomeOf([&] {
    Registrator::GetCredentialFromFile(file, &reading.url, &reading.login, &reading.passwd,
                                       &reading.keydir, &reading.agentid);
  });
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, err);
  reading.failure = outcome.failure;
  return reading;
}

Thrown Refusal(const std::string& description) { return {16, 7, "Registrator", description}; }

Reading Refused(const std::string& description) {
  Reading reading;
  reading.failure = Refusal(description);
  return reading;
}

class CredentialFileTest : public ::testing::Test {
 protected:
  /// Writes a credential file for `login` with the stored password `passwd`.
  std::string Write(const std::string& login, const std::string& passwd) const {
    return directory.Write("agent.cfg", "[spa]\nurl=http://spa\n[systemaccount]\nlogin=" + login +
                                            "\npasswd=" + passwd + "\n[paths]\nkeydir=" +
                                            directory.path() + "\n[main]\nagentid=42\n");
  }

  std::string WriteKey() const { return directory.Write("auth.key", "the key"); }

  Reading Expected(const std::string& login, const std::string& passwd) const {
    return {"http://spa", login, passwd, directory.path(), "42"};
  }

  static std::string Encrypted(const std::string& keyFile, const std::string& passwd) {
    char text[4096];
    EXPECT_EQ(EncryptPasswdWithKey(keyFile.c_str(), passwd.c_str(), text, sizeof(text)), 0);
    return text;
  }

  TempDirectory directory;
};

TEST_F(CredentialFileTest, GivesTheStoredValues) {
  const std::string file =
      directory.Write("agent.cfg",
                      "# head\n[spa]\n# where\nurl=https://spa/x?a=b\nother=1\n[unknown]\nurl=no\n"
                      "[systemaccount]\npasswd = p=w "
                      "\nlogin=sys\n[paths]\nkeydir=/k\nlog=/l\n[main]\nagentid=42\n");
  EXPECT_EQ(ReadFrom(file), (Reading{"https://spa/x?a=b", "sys", "p=w", "/k", "42"}));
}

TEST_F(CredentialFileTest, FindsSectionsAndOptionsInAnyLetterCase) {
  const std::string file = directory.Write(
      "agent.cfg", "[SPA]\nURL=u\n[SystemAccount]\nLogin=l\nPassWd=p\n[Paths]\nKeyDir=/k\n");
  EXPECT_EQ(ReadFrom(file), (Reading{"u", "l", "p", "/k", "old agentid"}));
}

TEST_F(CredentialFileTest, LeavesTheAgentIdWhenTheFileHasNone) {
  const std::string account =
      "[spa]\nurl=u\n[systemaccount]\nlogin=l\npasswd=p\n[paths]\nkeydir=/k\n";
  for (const char* main : {"", "[main]\n", "[main]\nother=1\n", "[other]\nagentid=1\n"}) {
    EXPECT_EQ(ReadFrom(directory.Write("agent.cfg", account + main)),
              (Reading{"u", "l", "p", "/k", "old agentid"}));
  }
}

TEST_F(CredentialFileTest, TakesEmptyValuesForPresent) {
  const std::string file = directory.Write(
      "agent.cfg",
      "[spa]\nurl=\n[systemaccount]\nlogin=\npasswd=\n[paths]\nkeydir=\n[main]\nagentid=\n");
  EXPECT_EQ(ReadFrom(file), (Reading{"", "", "", "", ""}));
}

TEST_F(CredentialFileTest, ReportsTheFirstMissingOption) {
  const struct {
    std::string name;
    std::string text;
  } kOptions[] = {{"url", "[spa]\nurl=u\n"},
                  {"login", "[systemaccount]\nlogin=l\n"},
                  {"passwd", "[systemaccount]\npasswd=p\n"},
                  {"keydir", "[paths]\nkeydir=/k\n"}};
  for (const auto& missing : kOptions) {
    SCOPED_TRACE(missing.name);
    std::string before;
    std::string others = "[main]\nagentid=42\n";
    for (const auto& option : kOptions) {
      if (option.name == missing.name) break;
      before += option.text;
    }
    for (const auto& option : kOptions) {
      if (option.name != missing.name) others += option.text;
    }
    const Reading expected = Refused("Failed to load " + missing.name + " from file\n");
    EXPECT_EQ(ReadFrom(directory.Write("all-others", others)), expected);
    EXPECT_EQ(ReadFrom(directory.Write("none-behind", before)), expected);
  }
}

TEST_F(CredentialFileTest, LooksForEachOptionInItsOwnSection) {
  const std::string file = directory.Write(
      "agent.cfg", "[spa]\nurl=u\nlogin=l\npasswd=p\nkeydir=/k\n[systemaccount]\nurl=u\n");
  EXPECT_EQ(ReadFrom(file), Refused("Failed to load login from file\n"));
}

TEST_F(CredentialFileTest, RefusesFilesThatCannotBeRead) {
  const std::string missing = directory.File("missing");
  const struct {
    std::string file;
    std::string err;
  } kRows[] = {
      {"", ""},
      {missing, "Failed to open input file:" + missing + "\n"},
      {directory.path(), ""},
      {directory.Write("option.cfg", "url=u\n"), "Found an invalid line: url=u\n"},
      {directory.Write("header.cfg", "[spa\n"), ""},
      {directory.Write("line.cfg", "[spa]\nurl=u\nno equals sign\n"), ""},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(ReadFrom(row.file, row.err), Refused("Failed to load from file " + row.file + "\n"));
  }
}

TEST_F(CredentialFileTest, NeedsAllFiveOutputsBeforeItReadsTheFile) {
  const std::string file = directory.File("missing");
  std::string out[5] = {"0", "1", "2", "3", "4"};
  for (std::size_t missing = 0; missing < 5; ++missing) {
    SCOPED_TRACE(missing);
    std::string* outputs[5] = {&out[0], &out[1], &out[2], &out[3], &out[4]};
    outputs[missing] = nullptr;
    const Outcome outcome = OutcomeOf([&] {
      Registrator::GetCredentialFromFile(file, outputs[0], outputs[1], outputs[2], outputs[3],
                                         outputs[4]);
    });
    EXPECT_EQ(outcome.failure, Refusal("url, login or passwd is null\n"));
    EXPECT_EQ(outcome.err, "");
  }
  EXPECT_EQ(out[0] + out[1] + out[2] + out[3] + out[4], "01234");
}

TEST_F(CredentialFileTest, TakesThePasswordForPlainWithoutAKeyFile) {
  EXPECT_EQ(ReadFrom(Write("sys", "qx1.stored")), Expected("sys", "qx1.stored"));
  ASSERT_EQ(symlink("nowhere", directory.File("auth.key").c_str()), 0);
  EXPECT_EQ(ReadFrom(Write("sys", "qx1.stored")), Expected("sys", "qx1.stored"));
}

TEST_F(CredentialFileTest, DecryptsThePasswordWithTheKeyFile) {
  for (const std::string& passwd :
       {std::string("secret"), std::string(), std::string(" a=b # "), std::string(1023, 'x')}) {
    const std::string file = Write("sys", Encrypted(WriteKey(), passwd));
    EXPECT_EQ(ReadFrom(file), Expected("sys", passwd));
  }
}

TEST_F(CredentialFileTest, FindsTheKeyFileBehindATrailingSlash) {
  const std::string keydir = directory.path() + "/";
  const std::string file = directory.Write(
      "agent.cfg", "[spa]\nurl=u\n[systemaccount]\nlogin=l\npasswd=" +
                       Encrypted(WriteKey(), "secret") + "\n[paths]\nkeydir=" + keydir + "\n");
  EXPECT_EQ(ReadFrom(file), (Reading{"u", "l", "secret", keydir, "old agentid"}));
}

TEST_F(CredentialFileTest, TakesTheMaskedLoginsPasswordAsItStands) {
  WriteKey();
  EXPECT_EQ(ReadFrom(Write("TWLX_AGENT", "**********")), Expected("TWLX_AGENT", "**********"));
}

TEST_F(CredentialFileTest, TellsTheMaskedLoginByItsExactName) {
  WriteKey();
  for (const std::string login : {"twlx_agent", "TWLX_AGENT2", "TWLX_AGEN", "Twlx_Agent"}) {
    const Reading reading = ReadFrom(Write(login, "**********"));
    EXPECT_EQ(reading.failure, Refusal("Failed to decrypt password for user " + login));
  }
}

/// Reading `file` must fail at the password of "sys", after the agent id was
/// found and before anything else was handed out.
void ExpectDecryptionFailure(const std::string& file) {
  Reading expected = Refused("Failed to decrypt password for user sys");
  expected.agentid = "42";
  EXPECT_EQ(ReadFrom(file), expected);
}

TEST_F(CredentialFileTest, RefusesAPasswordThatTheKeyFileDoesNotOpen) {
  const std::string genuine = Encrypted(WriteKey(), "secret");
  std::string tampered = genuine;
  tampered[10] = tampered[10] == 'A' ? 'B' : 'A';
  const std::string foreign = Encrypted(directory.Write("other.key", "another key"), "secret");
  const std::string tooLong = Encrypted(WriteKey(), std::string(1024, 'x'));
  for (const std::string& stored : {tampered, foreign, tooLong, std::string("plain"), std::string(),
                                    genuine.substr(0, genuine.size() - 1)}) {
    SCOPED_TRACE(stored);
    ExpectDecryptionFailure(Write("sys", stored));
  }
}

TEST_F(CredentialFileTest, RefusesAKeyFileThatExistsButCannotServe) {
  const std::string file = Write("sys", Encrypted(WriteKey(), "secret"));
  directory.Write("auth.key", "");
  ExpectDecryptionFailure(file);
  ASSERT_EQ(unlink(directory.File("auth.key").c_str()), 0);
  directory.Write("auth.key/in-a-directory", "");
  ExpectDecryptionFailure(file);
}

TEST_F(CredentialFileTest, NeverWritesToTheFile) {
  const std::string file = Write("sys", Encrypted(WriteKey(), "secret"));
  const std::string content = ReadFile(file);
  ReadFrom(file);
  EXPECT_EQ(ReadFile(file), content);
}

TEST_F(CredentialFileTest, LeavesNoCopyOfThePasswordBesideTheOneItHandsOut) {
  for (const std::size_t length : {12U, 60U}) {
    const DisguisedSecret secret(length);
    char sealed[512];
    secret.Reveal([&](const char* text) {
      EXPECT_EQ(EncryptPasswdWithKey(WriteKey().c_str(), text, sealed, sizeof(sealed)), 0);
    });
    const std::string file = Write("sys", sealed);
    {
      StoredCredentials stored;
      Registrator::GetCredentialFromFile(file, &stored.url, &stored.login, stored.passwd.Receive(),
                                         &stored.keydir, &stored.agentid);
      EXPECT_TRUE(secret.Is(stored.passwd.text()));
      EXPECT_EQ(secret.Copies(), 1U);
    }
    EXPECT_EQ(secret.Copies(), 0U);
  }
}

}  // namespace
}  // namespace corvel::storage::tzregister
