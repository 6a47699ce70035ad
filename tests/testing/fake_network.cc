#include "tests/testing/fake_network.h"

#include <cstring>
#include <stdexcept>

namespace corvel::storage::testing {
namespace {

class FakeTransfer : public tzregister::HttpTransfer {
 public:
  FakeTransfer(ScriptedAnswer answer, std::vector<std::string>* calls,
               tzregister::WebServiceBuffer* buffer)
      : answer_(std::move(answer)), calls_(calls), buffer_(buffer) {}
  ~FakeTransfer() override { calls_->push_back("destroy"); }

  int Perform(int* running) override {
    calls_->push_back("perform");
    if (next_ < answer_.parts.size()) {
      Deliver(&answer_.parts[next_++]);
    }
    const bool incomplete = answer_.endless || next_ < answer_.parts.size();
    *running = incomplete && answer_.transferResult == CURLE_OK ? 1 : 0;
    const std::size_t pass = pass_++;
    return pass < answer_.firstResults.size() ? answer_.firstResults[pass] : answer_.performResult;
  }

  tzregister::HttpOutcome Finish() override {
    calls_->push_back("finish");
    return {answer_.transferResult, answer_.httpStatus};
  }

  void Abandon() override { calls_->push_back("abandon"); }

 private:
  void Deliver(std::string* part) {
    const std::size_t taken =
        tzregister::WebService::data_callback(part->data(), 1, part->size(), buffer_);
    if (taken != part->size()) answer_.transferResult = CURLE_WRITE_ERROR;
  }

  ScriptedAnswer answer_;
  std::size_t next_ = 0;
  std::size_t pass_ = 0;
  std::vector<std::string>* calls_;
  tzregister::WebServiceBuffer* buffer_;
};

/// The channel hands out handles without looking into them; this stands for one.
WSHandle* FakeHandle() {
  static char handle;
  return reinterpret_cast<WSHandle*>(&handle);
}

std::string Join(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
  return line;
}

}  // namespace

ScriptedAnswer& FakeTransport::AnswerInParts(const Words& parts) {
  ScriptedAnswer answer;
  answer.parts = parts;
  script.push_back(answer);
  return script.back();
}

std::unique_ptr<tzregister::HttpTransfer> FakeTransport::Start(
    const tzregister::HttpRequest& request, tzregister::WebServiceBuffer* answer) {
  calls.push_back("start");
  SentRequest sent{
      request.url, request.form != nullptr, {}, request.verification, request.timeoutSeconds};
  if (request.form != nullptr) sent.form.assign(request.form->begin(), request.form->end());
  requests.push_back(sent);
  if (onStart) onStart();
  if (requests.size() > script.size()) throw std::logic_error("no answer scripted");
  const ScriptedAnswer& scripted = script[requests.size() - 1];
  if (!scripted.starts) return nullptr;
  return std::make_unique<FakeTransfer>(scripted, &calls, answer);
}

WSHandle* FakeChannel::Init(const char* url, const char* login, const char* password,
                            const char* keydir, int flags) {
  if (recordsCalls) {
    calls.push_back(Join({"init", url, login, password, keydir, std::to_string(flags)}));
  }
  return init ? FakeHandle() : nullptr;
}

int FakeChannel::Request(WSHandle* handle, int kind, WSReply* reply, const char* parameter,
                         const char* requestText, int flags) {
  if (handle != FakeHandle()) throw std::logic_error("unknown handle");
  calls.push_back(
      Join({"request", std::to_string(kind), parameter, requestText, std::to_string(flags)}));
  reply->status = status;
  if (hasText) reply->text = strdup(text.c_str());
  return result;
}

void FakeChannel::Shutdown(WSHandle* handle) {
  if (handle != FakeHandle()) throw std::logic_error("unknown handle");
  if (onShutdown) onShutdown();
  calls.push_back("shutdown");
}

}  // namespace corvel::storage::testing
