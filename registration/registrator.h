#ifndef REGISTRATION_REGISTRATOR_H_
#define REGISTRATION_REGISTRATOR_H_

#include <boost/program_options/variables_map.hpp>
#include <cstdint>
#include <istream>
#include <ostream>
#include <string>

#include "config/config.h"
#include "support/parsed_options.h"
#include "support/secret.h"
#include "webservice/ws_cata_proxy.h"

namespace corvel::storage::tzregister {

// What every host tells the authority about itself.
extern const std::string AgentVersion;
extern const std::int64_t OSVariantId;
extern const std::int64_t OSTypeId;
extern const std::string OSEextensions;

/// What a component's configuration file says of the account with which this
/// host talks to the authority.
struct StoredCredentials {
  std::string url;
  std::string login;
  support::Secret passwd;
  std::string keydir;
  std::string agentid;  ///< empty when the file holds none
};

/// Performs the tool's actions. Every operation throws RegisterException on
/// failure, unless said otherwise with the source "Registrator"; those that ask
/// the authority block until it has answered or the deadline has passed.
///
/// One file per subject holds the operations: component_registration.cc,
/// credential_file.cc, output_names.cc, path_rewriting.cc, config_retrieval.cc,
/// routing_tables.cc, data_selection.cc, certificate_output.cc.
class Registrator {
 public:
  /// The configuration-file templates that the authority keeps.
  enum configfiletemplate_t {
    TEMPLATE_AGENT = 1,
    TEMPLATE_SERVER_AGENT = 2,
    TEMPLATE_CONTENT_ROUTER = 3,
    TEMPLATE_STORAGE_POOL_AUTHORITY = 6,
  };

  /// Keeps a copy of `options`; `proxy` is borrowed and must outlive the object.
  Registrator(const boost::program_options::variables_map& options, WSCataProxy* proxy);

  /// Sets the file from which credentials are read; empty until then.
  void SetConfigFile(const std::string& path);

  /// Throws unless `action` may be done for component type `type`, which is
  /// empty when none was given; the description lists what may be done.
  void ValidateAction(const std::string& action, const std::string& type) const;

  /// Names the two output files of an action: with --todisk, `basename` and the
  /// two extensions in the directory that the option `dirargument` names (the
  /// key directory may also come from the credential file), else the values of
  /// --file and --file2. The outputs are untouched when it throws.
  void FilenamesFromArguments(std::string* filename1, std::string* filename2,
                              const std::string& dirargument, const std::string& basename,
                              const std::string& extension1, const std::string& extension2);

  /// Reads the account of an installed component from its configuration file
  /// and turns the stored password into plain text with the host's key file.
  /// `*agentid` keeps its value when the file has none. When it throws, the
  /// other outputs are untouched.
  static void GetCredentialFromFile(const std::string& file, std::string* url, std::string* login,
                                    std::string* passwd, std::string* keydir, std::string* agentid);

  /// Registers this host as an agent under `hostname`, or under its own name
  /// when that is empty. `*agentId` is sent and receives the assigned id,
  /// `*login` and `*password` receive the system account.
  void RegisterComponent(const std::string& componentType, std::int64_t* agentId,
                         const std::string& hostname, std::string* login, std::string* password);

  /// Fetches a pool's recommended and current routing tables with the account of
  /// the credential file and writes them to two files, or, when either path is
  /// empty, one behind the other to standard output; throws when that does not
  /// take both. What a disk makes of the files is not examined.
  void GetRoutingTables(std::int64_t storagePoolId, const std::string& recommendedFile,
                        const std::string& currentFile);

  /// Creates a data selection with the account of the credential file. Warns on
  /// standard error when rules or type are missing.
  void CreateDataSelection(const std::string& dsname, const std::string& dsrules,
                           const std::string& dstypeid);

  /// Makes a key pair and a self-signed certificate and writes both as PEM, the
  /// key readable by its owner alone: into two files, or, when either path is
  /// empty, key first to standard output. `extra` is accepted and not used.
  static void GenerateSSLCertificate(const std::string& certFile, const std::string& keyFile,
                                     const std::string& extra);

  /// Fetches the configuration file of component `id` of type `type`, rewrites
  /// it for this host and writes it to `configFilePath` (created readable by
  /// its owner alone), or to standard output when that is empty; throws when
  /// the whole text is not taken. Says on standard output where it went. `login` and `password` are
  /// the component's system account, empty to leave the template's.
  void GetConfigFile(const std::string& type, std::int64_t id, bool serverGiven,
                     const std::string& storagePath, const std::string& configFilePath,
                     const std::string& login, const std::string& password) const;

  /// Reads a template from `*in`, makes its paths absolute under `storagePath`,
  /// fills in the system account as --agentType says and writes the result to
  /// `*out`. With --mkdir it creates the directories as well; a failure of that
  /// is thrown as boost::filesystem::filesystem_error.
  void ReplacePathsInConfigFile(std::istream* in, std::ostream* out,
                                configfiletemplate_t templateId, const std::string& storagePath,
                                const std::string& login, const std::string& password) const;

  /// Makes the path options of an agent's or an authority's file absolute.
  void SetStoragePath(const std::string& storagePath, bool makeDirs,
                      tzconfig::TZConfig* config) const;

  /// Makes the path options of a content router's file absolute.
  void SetContentRouterStoragePath(const std::string& storagePath, bool makeDirs,
                                   tzconfig::TZConfig* config) const;

  /// Joins one option's value to `base` unless it is missing, empty or absolute
  /// already, and creates that directory when `makeDirs` is set.
  void UpdatePathInParam(const std::string& option, const std::string& section,
                         const std::string& base, bool makeDirs, tzconfig::TZConfig* config) const;

 private:
  /// Reads the credential file, hands its account to the proxy and returns the
  /// agent id that the file holds, empty when it holds none.
  std::string UseStoredCredentials();
  StoredCredentials ReadStoredCredentials() const;
  /// The directory that the option `dirargument` names; see FilenamesFromArguments.
  std::string OutputDirectory(const std::string& dirargument) const;
  void SetSystemAccount(const std::string& login, const std::string& password,
                        tzconfig::TZConfig* config) const;

  support::ParsedOptions options_;
  WSCataProxy* proxy_;
  std::string configFile_;
};

}  // namespace corvel::storage::tzregister

#endif  // REGISTRATION_REGISTRATOR_H_
