// The configuration reader against an independent model, and the round trip: what
// was written is read as it was, and writing it again gives the same text.

#include <sstream>

#include "config/config_file.h"
#include "fuzz/fuzzing.h"
#include "tests/config/config_model.h"

namespace {

using namespace corvel::storage::fuzzing;
namespace tzconfig = corvel::storage::tzconfig;

std::int32_t Load(const std::string& text, tzconfig::TZConfig* config) {
  std::istringstream stream(text);
  return tzconfig::TZConfigFile("", "").LoadConfig(&stream, config);
}

std::string Dump(tzconfig::TZConfig* config) {
  std::ostringstream stream;
  Expect(tzconfig::TZConfigFile("", "").DumpConfig(&stream, config) == tzconfig::kSuccess,
         "what was read can be written");
  return stream.str();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QuietErrors quiet;
  const std::string text = TextOf(data, size);
  const corvel::storage::testing::ConfigModel model(text);
  tzconfig::TZConfig config;
  Expect(Load(text, &config) == model.result, "the reader's result is that of the model");
  const std::string written = Dump(&config);
  Expect(written == model.Text(), "what was read is what the model read");
  Expect(Load(written, &config) == tzconfig::kSuccess, "what was written can be read");
  Expect(Dump(&config) == written, "writing once more gives the same");
  return 0;
}
