// How fast configuration files and answers are read and written, beside what
// others take for the same texts, and whether that stays so as they grow.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/corpora.h"
#include "benchmarks/peers.h"
#include "config/config_file.h"
#include "support/text_stream.h"
#include "webservice/answer_parser.h"
#include "webservice/webservice.h"

namespace corvel::storage::benchmarks {
namespace {

constexpr std::size_t kMegabyte = 1000000;

std::size_t ReadConfigFile(const std::string& text) {
  tzconfig::TZConfig config;
  support::TextReader in(text);
  tzconfig::TZConfigFile("", "").LoadConfig(&in, &config);
  return config.SectionOrder().size();
}

std::size_t RewriteConfigFile(const std::string& text) {
  tzconfig::TZConfig config;
  const tzconfig::TZConfigFile file("", "");
  support::TextReader in(text);
  file.LoadConfig(&in, &config);
  support::TextWriter out;
  file.DumpConfig(&out, &config);
  return out.text().size();
}

std::size_t ReadRecords(const std::string& text) {
  std::string copy = text;
  tzregister::RecordSet records;
  tzregister::ParseAnswer(copy.data(), &records);
  return records.records.size();
}

/// Bytes of the heap that the records of `text` take, for each byte of it.
double HeapOfRecords(const std::string& text) {
  std::string copy = text;
  tzregister::RecordSet records;
  const std::size_t before = mallinfo2().uordblks;
  tzregister::ParseAnswer(copy.data(), &records);
  return static_cast<double>(mallinfo2().uordblks - before) / static_cast<double>(text.size());
}

/// Copies the text, which is the least that reading can do.
std::size_t CopyWhole(const std::string& text) {
  std::string copy = text;
  benchmark::DoNotOptimize(copy.data());
  return copy.size();
}

/// Receives `text` in pieces of `piece` bytes.
std::size_t Receive(const std::string& text, std::size_t piece) {
  std::string bytes = text;
  tzregister::WebServiceBuffer buffer;
  for (std::size_t place = 0; place < bytes.size(); place += piece) {
    const std::size_t count = std::min(piece, bytes.size() - place);
    tzregister::WebService::data_callback(bytes.data() + place, 1, count, &buffer);
  }
  return buffer.size;
}

std::size_t ReceiveByteByByte(const std::string& text) { return Receive(text, 1); }

using Work = std::size_t (*)(const std::string& text);

/// A text that is made when it is first asked for.
class Corpus {
 public:
  template <typename Make>
  Corpus(const Make& make) : make_(make) {}

  const std::string& text() {
    if (text_.empty()) text_ = make_();
    return text_;
  }

 private:
  std::function<std::string()> make_;
  std::string text_;
};

struct Row {
  std::string name;
  Work work;
  std::shared_ptr<Corpus> corpus;
};

template <typename Make>
std::shared_ptr<Corpus> Shared(const Make& make) {
  return std::make_shared<Corpus>(make);
}

std::string Named(const char* name, std::size_t size) {
  return std::string(name) + "/" + std::to_string(size);
}

void AddPeers(std::vector<Row>* rows) {
  for (const std::size_t size : {kMegabyte / 10, kMegabyte, 10 * kMegabyte}) {
    const auto file = Shared([=] { return ConfigFile(size); });
    rows->push_back({Named("read/tzregister", size), ReadConfigFile, file});
    rows->push_back({Named("read/SimpleIni", size), ReadWithSimpleIni, file});
    rows->push_back({Named("read/inih", size), ReadWithInih, file});
    rows->push_back({Named("config/tzregister", size), RewriteConfigFile, file});
    rows->push_back({Named("config/SimpleIni", size), RewriteWithSimpleIni, file});
    rows->push_back({Named("config/PropertyTree", size), RewriteWithPropertyTree, file});
    rows->push_back({Named("config/plain_map", size), RewriteWithPlainMap, file});
  }
  const auto small = Shared([=] { return ConfigFile(kMegabyte); });
  rows->push_back({Named("read/iniparser", kMegabyte), ReadWithIniparser, small});
  const std::size_t count = 100000;
  const auto records = Shared([=] { return Records(count); });
  rows->push_back({Named("records/tzregister", count), ReadRecords, records});
  rows->push_back({Named("records/plain_map", count), ReadRecordsIntoMaps, records});
  rows->push_back({Named("records/tuned_map", count), ReadRecordsIntoTunedMaps, records});
  rows->push_back({Named("records/strdup_alone", count), CopyEachValue, records});
}

void AddLargeValues(std::vector<Row>* rows) {
  for (const std::size_t megabytes : {1u, 10u, 100u}) {
    const std::size_t size = megabytes * kMegabyte;
    rows->push_back({Named("one_value/answer", size), ReadRecords,
                     Shared([=] { return OneLargeValue(size); })});
    rows->push_back({Named("one_value/config", size), RewriteConfigFile,
                     Shared([=] { return OneLargeOption(size); })});
    rows->push_back({Named("one_value/copy_alone", size), CopyWhole,
                     Shared([=] { return OneLargeOption(size); })});
  }
}

/// Texts whose cost could grow faster than they do, of 1, 10 and 100 MB or so.
void AddShapes(std::vector<Row>* rows) {
  for (const std::size_t scale : {1u, 10u, 100u}) {
    const auto add = [&](const char* name, Work work, const auto& make) {
      rows->push_back({Named(name, scale), work, Shared(make)});
    };
    add("shape/comment_before_lines", RewriteConfigFile,
        [=] { return OptionsBehindComment(scale << 19, scale * 25000); });
    add("shape/one_section", RewriteConfigFile, [=] { return OneSection(scale * 50000); });
    add("shape/many_sections", RewriteConfigFile, [=] { return ManySections(scale * 33000); });
    if (scale < 100)
      add("shape/many_columns", ReadRecords, [=] { return WideRecords(scale * 10000); });
    add("shape/one_byte_pieces", ReceiveByteByByte,
        [=] { return OneLargeValue(scale * kMegabyte); });
  }
}

void Run(benchmark::State& state, const Row& row) {
  const std::string& text = row.corpus->text();
  for (auto _ : state) benchmark::DoNotOptimize(row.work(text));
  if (row.work == ReadRecords) state.counters["heap_per_byte"] = HeapOfRecords(text);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

}  // namespace
}  // namespace corvel::storage::benchmarks

int main(int argc, char** argv) {
  namespace benchmarks = corvel::storage::benchmarks;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::vector<benchmarks::Row> rows;
  benchmarks::AddPeers(&rows);
  benchmarks::AddLargeValues(&rows);
  benchmarks::AddShapes(&rows);
  for (const benchmarks::Row& row : rows) {
    benchmark::RegisterBenchmark(row.name.c_str(), [&row](benchmark::State& state) {
      benchmarks::Run(state, row);
    })->Unit(benchmark::kMillisecond);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
