// How fast configuration files and answers are read and written, beside what
// others take for the same texts, and whether that stays so as they grow.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "benchmarks/corpora.h"
#include "benchmarks/peers.h"
#include "config/config_file.h"
#include "webservice/answer_parser.h"
#include "webservice/webservice.h"

namespace corvel::storage::benchmarks {
namespace {

constexpr std::size_t kMegabyte = 1000000;

std::size_t RewriteConfigFile(const std::string& text) {
  tzconfig::TZConfig config;
  const tzconfig::TZConfigFile file("", "");
  std::istringstream in(text);
  file.LoadConfig(&in, &config);
  std::ostringstream out;
  file.DumpConfig(&out, &config);
  return out.str().size();
}

std::size_t ReadRecords(const std::string& text) {
  std::string copy = text;
  tzregister::RecordSet records;
  tzregister::ParseAnswer(copy.data(), &records);
  return records.records.size();
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

void Run(benchmark::State& state, const std::string& text, Work work) {
  for (auto _ : state) benchmark::DoNotOptimize(work(text));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

struct Row {
  const char* name;
  Work work;
  std::string text;
};

std::vector<Row> Rows() {
  std::vector<Row> rows;
  for (const std::size_t size : {kMegabyte, 10 * kMegabyte}) {
    const std::string file = ConfigFile(size);
    rows.push_back({"config/tzregister", RewriteConfigFile, file});
    rows.push_back({"config/SimpleIni", RewriteWithSimpleIni, file});
    rows.push_back({"config/PropertyTree", RewriteWithPropertyTree, file});
    rows.push_back({"config/plain_map", RewriteWithPlainMap, file});
  }
  const std::string records = Records(100000);
  rows.push_back({"records/tzregister", ReadRecords, records});
  rows.push_back({"records/plain_map", ReadRecordsIntoMaps, records});
  rows.push_back({"records/tuned_map", ReadRecordsIntoTunedMaps, records});
  rows.push_back({"records/strdup_alone", CopyEachValue, records});
  for (const std::size_t megabytes : {1u, 10u, 100u}) {
    rows.push_back({"one_value/answer", ReadRecords, OneLargeValue(megabytes * kMegabyte)});
    rows.push_back({"one_value/config", RewriteConfigFile, OneLargeOption(megabytes * kMegabyte)});
  }
  for (const std::size_t scale : {1u, 10u}) {
    rows.push_back({"shape/comment_before_lines", RewriteConfigFile,
                    OptionsBehindComment(scale << 17, scale * 10000)});
    rows.push_back({"shape/one_section", RewriteConfigFile, OneSection(scale * 100000)});
    rows.push_back({"shape/many_sections", RewriteConfigFile, ManySections(scale * 10000)});
    rows.push_back({"shape/many_columns", ReadRecords, WideRecords(scale * 1000)});
    rows.push_back({"shape/one_byte_pieces", ReceiveByteByByte, OneLargeValue(scale * kMegabyte)});
  }
  return rows;
}

}  // namespace
}  // namespace corvel::storage::benchmarks

int main(int argc, char** argv) {
  namespace benchmarks = corvel::storage::benchmarks;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const std::vector<benchmarks::Row> rows = benchmarks::Rows();
  for (const benchmarks::Row& row : rows) {
    const std::string name = std::string(row.name) + "/" + std::to_string(row.text.size());
    benchmark::RegisterBenchmark(name.c_str(), [&row](benchmark::State& state) {
      benchmarks::Run(state, row.text, row.work);
    })->Unit(benchmark::kMillisecond);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
