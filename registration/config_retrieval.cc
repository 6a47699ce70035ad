#include "registration/config_retrieval.h"

#include <iostream>
#include <sstream>

#include "frontend/register_exception.h"
#include "frontend/string_check.h"
#include "support/file_system.h"

namespace corvel::storage::tzregister {
namespace {

using boost::program_options::variables_map;

struct TemplateChoice {
  const char* type;
  bool server_given;
  Registrator::configfiletemplate_t template_id;
};

constexpr TemplateChoice kTemplates[] = {
    {"Agent", false, Registrator::TEMPLATE_AGENT},
    {"Agent", true, Registrator::TEMPLATE_SERVER_AGENT},
    {"ContentRouter", false, Registrator::TEMPLATE_CONTENT_ROUTER},
    {"ContentRouter", true, Registrator::TEMPLATE_CONTENT_ROUTER},
    {"StoragePoolAuthority", false, Registrator::TEMPLATE_STORAGE_POOL_AUTHORITY},
    {"StoragePoolAuthority", true, Registrator::TEMPLATE_STORAGE_POOL_AUTHORITY},
};

Registrator::configfiletemplate_t TemplateFor(const std::string& type, bool server_given) {
  RegisterStringCheck::ValidateType(type);
  for (const TemplateChoice& choice : kTemplates) {
    if (type == choice.type && server_given == choice.server_given) return choice.template_id;
  }
  throw RegisterException(ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator",
                          "Failed to define configfile template ID for component type " + type);
}

/// The text of option `name`; throws with `failure` when it was not given.
std::string Require(const variables_map& options, const char* name, const char* failure) {
  if (options.count(name) == 0) {
    throw RegisterException(ERR_REGISTRY, SEVERITY_ERROR, "TZRegister", failure);
  }
  return options[name].as<std::string>();
}

/// Writes the whole file. A disk that cannot take it must not pass for success:
/// the host would run with half a configuration.
void WriteConfigFile(const std::string& text, const std::string& path) {
  support::FilePtr file = support::OpenForWriting(path, support::FilePrivacy::kSecret);
  const bool written = file != nullptr && support::WriteText(text, file.get());
  if (!written || !support::CloseFile(std::move(file))) {
    throw RegisterException(ERR_FILE_WRITE, SEVERITY_ERROR, "Registrator",
                            "Failed to write configuration file: " + path + "\n");
  }
}

}  // namespace

void Registrator::GetConfigFile(const std::string& type, std::int64_t id, bool server_given,
                                const std::string& storage_path,
                                const std::string& config_file_path, const std::string& login,
                                const std::string& password) const {
  const configfiletemplate_t template_id = TemplateFor(type, server_given);
  std::stringstream received;
  proxy_->GetConfigFile(id, template_id, &received);
  std::ostringstream rewritten;
  ReplacePathsInConfigFile(&received, &rewritten, template_id, storage_path, login, password);
  if (config_file_path.empty()) {
    std::cout << rewritten.str() << std::endl;
  } else {
    WriteConfigFile(rewritten.str(), config_file_path);
  }
  std::cout << "##Configfile written to " << config_file_path << std::endl;
}

void GetConfigFile(const variables_map& options, const Registrator& registrator, std::int64_t id,
                   const std::string& login, const std::string& password,
                   const RegistryHost& host) {
  const bool server_given = options.count("server") > 0;
  std::string section;
  if (options.count("productname") > 0) section = options["productname"].as<std::string>();
  std::string storage_path;
  std::string config_file_path;
  GetPathsFromRegistry(section, &storage_path, &config_file_path, host);
  Require(options, "url", "url must exist in parameter");
  const std::string type = Require(options, "type", "Could not find type in parameter");
  if (type == "ContentRouter" || (type == "Agent" && server_given)) {
    storage_path = Require(options, "storage", "Could not find storage in parameter");
  }
  if (options.count("file") > 0) config_file_path = options["file"].as<std::string>();
  if (options.count("todisk") == 0) config_file_path.clear();
  registrator.GetConfigFile(type, id, server_given, storage_path, config_file_path, login,
                            password);
}

}  // namespace corvel::storage::tzregister
