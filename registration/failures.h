#ifndef REGISTRATION_FAILURES_H_
#define REGISTRATION_FAILURES_H_

#include "frontend/register_exception.h"

namespace corvel::storage::tzregister::failures {

// Every way in which the actions' own work fails. Where a row says so, its
// description holds the value that the failure is about.

// What may be done; about the refusal's own words.
inline constexpr Failure kActionNotAllowed{ERR_WEBSERVICE, SEVERITY_ERROR, "Registrator", "Action ",
                                           "\n"};

// The credential file.
inline constexpr Failure kNoCredentialOutput{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator",
                                             "url, login or passwd is null\n"};
/// About the file's path.
inline constexpr Failure kCredentialFileNotLoaded{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL,
                                                  "Registrator", "Failed to load from file ", "\n"};
/// About the option's name; of a template as of a credential file.
inline constexpr Failure kOptionNotLoaded{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator",
                                          "Failed to load ", " from file\n"};
/// About the login.
inline constexpr Failure kPasswordNotDecrypted{
    ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator", "Failed to decrypt password for user "};

// Registration; about the component type.
inline constexpr Failure kTypeNotRegistered{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator",
                                            "Registering component type ", " is not supported."};

// Names of output files.
inline constexpr Failure kNoNameOutput{ERR_INVALID_ARGUMENT, SEVERITY_ERROR, "Registrator",
                                       "filename1 or filename2 is missing\n"};
inline constexpr Failure kNoDirectory{ERR_INVALID_ARGUMENT, SEVERITY_ERROR, "Registrator",
                                      "dirargument is missing\n"};
/// About the option that names the directory.
inline constexpr Failure kBadCombination{
    ERR_INVALID_ARGUMENT, SEVERITY_ERROR, "Registrator",
    "Bad combination of arguments given. Please specify one of the following sets of arguments:\n"
    "- no arguments. result will be printed to standard output\n"
    "- \"todisk\" argument. This requires the ",
    " argument (possibly from the configuration file)\n"
    "- \"file\" and \"file2\" arguments.\n"};

// Routing tables.
inline constexpr Failure kNoAgentId{ERR_MISSING_AGENTID, SEVERITY_ERROR, "Registrator",
                                    "agentid is missing, it is required for GetRoutingTables."};
/// About the file's path, which is empty for standard output.
inline constexpr Failure kTableNotWritten{ERR_FILE_WRITE, SEVERITY_ERROR, "Registrator",
                                          "Failed to write file: ", "\n"};

// Certificates.
inline constexpr Failure kNoCertificate{ERR_CERTIFICATE, SEVERITY_ERROR, "Registrator",
                                        "Could not create certificates."};

// Fetching a configuration file.
inline constexpr Failure kNoUrl{ERR_REGISTRY, SEVERITY_ERROR, "TZRegister",
                                "url must exist in parameter"};
inline constexpr Failure kNoType{ERR_REGISTRY, SEVERITY_ERROR, "TZRegister",
                                 "Could not find type in parameter"};
inline constexpr Failure kNoStorage{ERR_REGISTRY, SEVERITY_ERROR, "TZRegister",
                                    "Could not find storage in parameter"};
/// About the component type.
inline constexpr Failure kNoTemplate{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator",
                                     "Failed to define configfile template ID for component type "};
/// About the file's path, which is empty for standard output.
inline constexpr Failure kConfigFileNotWritten{ERR_FILE_WRITE, SEVERITY_ERROR, "Registrator",
                                               "Failed to write configuration file: ", "\n"};

// Rewriting a template for this host.
inline constexpr Failure kNoTemplateStream{ERR_WEBSERVICE, SEVERITY_ERROR, "Registrator",
                                           "in, out or storagepath is NULL"};
inline constexpr Failure kTemplateNotLoaded{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator",
                                            "Failed to load from input stream "};
inline constexpr Failure kPathNotStored{ERR_FILE_WRITE, SEVERITY_ERROR, "ConfigFile",
                                        "Failed to update parameter in configfile"};
inline constexpr Failure kPasswordNotEncrypted{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL,
                                               "Registrator",
                                               "Failed to encrypt password from file\n"};
/// About the option's name.
inline constexpr Failure kAccountNotStored{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator",
                                           "Failed to set systemaccount "};
inline constexpr Failure kTemplateNotDumped{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "Registrator",
                                            "Failed to dump to output stream "};

}  // namespace corvel::storage::tzregister::failures

#endif  // REGISTRATION_FAILURES_H_
