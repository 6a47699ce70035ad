#ifndef TESTS_TESTING_FAKE_NETWORK_H_
#define TESTS_TESTING_FAKE_NETWORK_H_

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/testing/words.h"
#include "webservice/transport.h"
#include "webservice/webservice.h"

namespace corvel::storage::testing {

/// A clock that stands still but for its own sleeps, which it records.
class FakeClock : public support::Clock {
 public:
  std::time_t Now() override { return now; }
  void Sleep(unsigned seconds) override {
    sleeps.push_back(seconds);
    now += static_cast<std::time_t>(seconds);
  }

  std::time_t now = 1000;
  std::vector<unsigned> sleeps;
};

/// What a FakeTransport does with one request. A part that the answer's buffer
/// does not take ends the transfer as libcurl ends it.
struct ScriptedAnswer {
  bool starts = true;             ///< false: the network layer cannot be initialised
  Words parts;                    ///< one part of the answer arrives with each pass
  bool endless = false;           ///< the transfer never completes
  std::vector<int> firstResults;  ///< libcurl's multi codes of the first passes
  int performResult = CURLM_OK;   ///< that of every later pass
  int transferResult = CURLE_OK;  ///< libcurl's code of the transfer
  long httpStatus = 200;
};

/// One request as the transport was asked for it.
struct SentRequest {
  std::string url;
  bool hasForm = false;
  std::vector<std::pair<std::string, std::string>> form;  ///< in the order of sending
  support::Verification verification;
  int timeoutSeconds = 0;
};

/// Answers HTTP requests from a script, one entry per request, and records what
/// it was asked and in which order ("start", "perform", "finish", "abandon",
/// "destroy").
class FakeTransport : public tzregister::HttpTransport {
 public:
  std::unique_ptr<tzregister::HttpTransfer> Start(const tzregister::HttpRequest& request,
                                                  tzregister::WebServiceBuffer* answer) override;

  /// Scripts one more answer, which arrives in `parts` with HTTP status 200; what
  /// is to be otherwise can be set in it by name until the next one is scripted.
  ScriptedAnswer& AnswerInParts(const Words& parts);

  /// As above, for an answer that arrives whole.
  ScriptedAnswer& Answer(const std::string& text) { return AnswerInParts({text}); }

  std::vector<ScriptedAnswer> script;
  std::vector<SentRequest> requests;
  Words calls;
  std::function<void()> onStart;  ///< called at every Start, when set
};

/// Answers channel requests and records them.
class FakeChannel : public tzregister::RequestChannel {
 public:
  WSHandle* Init(const char* url, const char* login, const char* password, const char* keydir,
                 int flags) override;
  int Request(WSHandle* handle, int kind, WSReply* reply, const char* parameter, const char* text,
              int flags) override;
  void Shutdown(WSHandle* handle) override;

  bool init = true;  ///< false: Init returns null
  int result = 0;    ///< of Request
  int status = 0;    ///< of the reply
  std::string text;  ///< of the reply
  bool hasText = true;
  std::vector<std::string> calls;  ///< e.g. "init vrmo://h l p /k 0", "request 13 action x 0"
  bool recordsCalls = true;
  std::function<void()> onShutdown;  ///< called at every Shutdown, when set
};

/// The three fakes together, and the network made of them.
struct FakeNetwork {
  FakeClock clock;
  FakeTransport http;
  FakeChannel channel;
  tzregister::Network network{&clock, &http, &channel};
};

}  // namespace corvel::storage::testing

#endif  // TESTS_TESTING_FAKE_NETWORK_H_
