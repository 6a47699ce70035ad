#include "registration/config_retrieval.h"

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <string_view>

#include "frontend/string_check.h"
#include "registration/failures.h"
#include "support/file_system.h"
#include "support/text_stream.h"

namespace corvel::storage::tzregister {
namespace {

struct TemplateChoice {
  const char* type;
  bool serverGiven;
  Registrator::configfiletemplate_t templateId;
};

constexpr TemplateChoice kTemplates[] = {
    {"Agent", false, Registrator::TEMPLATE_AGENT},
    {"Agent", true, Registrator::TEMPLATE_SERVER_AGENT},
    {"ContentRouter", false, Registrator::TEMPLATE_CONTENT_ROUTER},
    {"ContentRouter", true, Registrator::TEMPLATE_CONTENT_ROUTER},
    {"StoragePoolAuthority", false, Registrator::TEMPLATE_STORAGE_POOL_AUTHORITY},
    {"StoragePoolAuthority", true, Registrator::TEMPLATE_STORAGE_POOL_AUTHORITY},
};

Registrator::configfiletemplate_t TemplateFor(const std::string& type, bool serverGiven) {
  RegisterStringCheck::ValidateType(type);
  for (const TemplateChoice& choice : kTemplates) {
    if (type == choice.type && serverGiven == choice.serverGiven) return choice.templateId;
  }
  failures::kNoTemplate.Throw(type);
}

/// The text of option `name`; throws `missing` when it was not given.
const std::string& Require(const support::ParsedOptions& options, const char* name,
                           const Failure& missing) {
  if (!options.Has(name)) missing.Throw();
  return options.Text(name);
}

/// Refuses a template of so many short lines that the entries made of them would
/// take far more memory than its bytes. No real one comes near.
void CheckLineCount(std::string_view text) {
  constexpr std::size_t kEntryBytes = 200;  // what one line comes to, beside its text
  constexpr std::size_t kEntriesBytes = 240u << 20;
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  if (lines * kEntryBytes > kEntriesBytes + text.size()) failures::kTemplateNotLoaded.Throw();
}

/// Writes the whole file. A disk that cannot take it must not pass for success:
/// the host would run with half a configuration.
void WriteConfigFile(std::string_view text, const std::string& path) {
  support::OutputFile file(path, support::FilePrivacy::kSecret);
  if (!file.isOpen() || !file.Empty() || !file.Write(text) || !file.Close()) {
    failures::kConfigFileNotWritten.Throw(path);
  }
}

/// Prints the whole file and a line end. The account in it exists nowhere else,
/// so standard output that cannot take it must not pass for success either.
void PrintConfigFile(std::string_view text) {
  std::cout << text << '\n' << std::flush;
  if (!std::cout) failures::kConfigFileNotWritten.Throw();
}

}  // namespace

void Registrator::GetConfigFile(const std::string& type, std::int64_t id, bool serverGiven,
                                const std::string& storagePath, const std::string& configFilePath,
                                const std::string& login, const std::string& password) const {
  const configfiletemplate_t templateId = TemplateFor(type, serverGiven);
  support::TextWriter received;
  proxy_->GetConfigFile(id, templateId, &received);
  CheckLineCount(received.text());
  support::TextReader in(received.text());
  support::TextWriter rewritten;
  ReplacePathsInConfigFile(&in, &rewritten, templateId, storagePath, login, password);
  if (configFilePath.empty()) {
    PrintConfigFile(rewritten.text());
  } else {
    WriteConfigFile(rewritten.text(), configFilePath);
  }
  std::cout << "##Configfile written to " << configFilePath << std::endl;
}

void GetConfigFile(const support::ParsedOptions& options, const Registrator& registrator,
                   std::int64_t id, const std::string& login, const std::string& password,
                   const RegistryHost& host) {
  const bool serverGiven = options.Has("server");
  std::string storagePath;
  std::string configFilePath;
  GetPathsFromRegistry(options.TextOr("productname", ""), &storagePath, &configFilePath, host);
  Require(options, "url", failures::kNoUrl);
  const std::string& type = Require(options, "type", failures::kNoType);
  if (type == "ContentRouter" || (type == "Agent" && serverGiven)) {
    storagePath = Require(options, "storage", failures::kNoStorage);
  }
  if (options.Has("file")) configFilePath = options.Text("file");
  if (!options.Has("todisk")) configFilePath.clear();
  registrator.GetConfigFile(type, id, serverGiven, storagePath, configFilePath, login, password);
}

}  // namespace corvel::storage::tzregister
