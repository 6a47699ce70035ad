#ifndef WEBSERVICE_WS_CATA_PROXY_H_
#define WEBSERVICE_WS_CATA_PROXY_H_

#include <boost/program_options/variables_map.hpp>
#include <cstdint>
#include <ostream>
#include <string>

#include "support/parsed_options.h"
#include "support/secret.h"
#include "webservice/webservice.h"

namespace corvel::storage::tzregister {

/// Client of the Storage Pool Authority's pages: one public operation per
/// request. Address and credentials come from the stored ones when a URL is
/// stored, with the command line's own login and password taking their place;
/// otherwise from the command line alone.
///
/// Every operation throws RegisterException on failure, after the diagnostics
/// on standard error that belong to it; the calls block until the answer is
/// there or its deadline has passed. Nothing is retried and nothing is kept
/// from one call to the next.
class WSCataProxy {
 public:
  /// Keeps a copy of `options`. What `network` points to must outlive the proxy.
  explicit WSCataProxy(const boost::program_options::variables_map& options,
                       const Network& network);
  WSCataProxy(const WSCataProxy&) = delete;
  WSCataProxy& operator=(const WSCataProxy&) = delete;

  /// Stores the account of an installed component; an empty `url` stands for none.
  void StoreCredentials(const std::string& url, const std::string& login, support::Secret passwd,
                        const std::string& keydir);

  /// Succeeds when the authority answers with a table of its storage pools.
  void DiscoverStoragePool() const;

  /// Registers a host. Sends `*agentId` and stores the id that the authority
  /// gave in it, and the system account in `*login` and `*password`. A null
  /// output is refused before anything is sent.
  void RegisterAgent(const std::string& macAddress, const std::string& agentVersion,
                     std::int64_t osVariantId, std::int64_t osType, const std::string& osExtensions,
                     const std::string& hostName, const std::string& type, std::int64_t* agentId,
                     std::string* login, std::string* password) const;

  /// Writes the pool's two routing tables, as received, to the two streams;
  /// each must be good when its turn comes. Whether a write worked is not
  /// examined.
  void GetRoutingTables(std::int64_t storagePoolId, std::ostream* recommended,
                        std::ostream* current) const;

  /// Writes the configuration-file template `templateId`, made for `agentId`, to
  /// `*out`, which must be good.
  void GetConfigFile(std::int64_t agentId, int templateId, std::ostream* out) const;

  /// Creates the data selection called `name` with the rules `dataSelection`.
  void CreateDataSelection(const std::string& agentId, const std::string& dsTypeId,
                           const std::string& dataSelection, const std::string& name) const;

  // The steps that the operations share.

  /// Sets `*ws` up for a call of `page`: address and credential fields.
  void PPrepareWebService(WebService* ws, const std::string& page) const;

  /// Sets `*ws` up for `action` of the agent page; needs the option "agentid".
  /// The last argument is accepted and not used.
  void PPrepareAgentWebService(WebService* ws, const std::string& action, std::int64_t) const;

  /// Performs the call and parses its answer into `*records`; returns only when
  /// the answer is a table.
  static void PCallWebService(WebService* ws, RecordSet* records);

 private:
  /// Where and as whom to call. The password is borrowed.
  struct Account {
    std::string address;
    std::string login;
    const support::Secret* password;
  };

  /// The password of the password file, empty when none is to be read.
  support::Secret PasswordFromFile() const;
  Account OptionAccount(const support::Secret& filePassword) const;
  Account StoredAccount(const support::Secret& filePassword) const;

  support::ParsedOptions options_;
  std::string url_;
  std::string login_;
  support::Secret passwd_;
  std::string keydir_;
  Network network_;
};

}  // namespace corvel::storage::tzregister

#endif  // WEBSERVICE_WS_CATA_PROXY_H_
