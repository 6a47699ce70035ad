#ifndef REGISTRATION_CONFIG_RETRIEVAL_H_
#define REGISTRATION_CONFIG_RETRIEVAL_H_

#include <cstdint>
#include <string>

#include "config/registry.h"
#include "registration/registrator.h"
#include "support/parsed_options.h"

namespace corvel::storage::tzregister {

/// Provisions the configuration file that the command line asks for: settles
/// type, storage path and output place from `options` and the local registry,
/// then lets `registrator` fetch, rewrite and write it. `id`, `login` and
/// `password` are passed through. `host` answers the registry look-up, whose
/// notices appear before any option is checked.
/// Throws RegisterException (ERR_REGISTRY, severity 5, source "TZRegister") for
/// a missing option, and whatever the steps throw.
void GetConfigFile(const support::ParsedOptions& options, const Registrator& registrator,
                   std::int64_t id, const std::string& login, const std::string& password,
                   const RegistryHost& host = RegistryHost::System());

}  // namespace corvel::storage::tzregister

#endif  // REGISTRATION_CONFIG_RETRIEVAL_H_
