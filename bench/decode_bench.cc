// Bytes per second of the line path: reading, decoding and digesting the
// lines of one transcript file, and the pre-filter of the first pass.
//
//   build/bin/decode_bench --benchmark_counters_tabular=true FILE.jsonl
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "meter/meter_line.h"
#include "transcript/byte_search.h"
#include "transcript/line_reader.h"
#include "transcript/raw_transcript_line.h"
#include "transcript/text.h"

namespace {

std::string gFile;

std::vector<std::string> loadLines() {
  std::vector<std::string> lines;
  auto reader = ostler::LineReader::open(ostler::systemFileSystem(), gFile);
  if (!reader) return lines;
  while (auto line = reader.value().nextLine()) lines.emplace_back(*line);
  return lines;
}

void BM_ReadLines(benchmark::State& state) {
  int64_t bytes = 0;
  for (auto _ : state) {
    auto reader = ostler::LineReader::open(ostler::systemFileSystem(), gFile);
    while (auto line = reader.value().nextLine()) bytes += static_cast<int64_t>(line->size()) + 1;
  }
  state.SetBytesProcessed(bytes);
}

void BM_DecodeLines(benchmark::State& state) {
  const auto lines = loadLines();
  ostler::TranscriptLineDecoder decoder;
  ostler::RawTranscriptLine raw;
  int64_t bytes = 0;
  for (auto _ : state) {
    for (const auto& line : lines) {
      benchmark::DoNotOptimize(decoder.decode(ostler::text::trimSpacesAndTabs(line), false, &raw));
      bytes += static_cast<int64_t>(line.size());
    }
  }
  state.SetBytesProcessed(bytes);
}

void BM_DigestLines(benchmark::State& state) {
  const auto lines = loadLines();
  ostler::TranscriptLineDecoder decoder;
  ostler::RawTranscriptLine raw;
  int64_t bytes = 0;
  for (auto _ : state) {
    ostler::FileDigest digest;
    int64_t n = 0;
    for (const auto& line : lines) {
      if (decoder.decode(ostler::text::trimSpacesAndTabs(line), false, &raw) &&
          ostler::decodes(raw, ostler::kMeterReading))
        ostler::appendDigestLine(raw, ++n, digest);
      bytes += static_cast<int64_t>(line.size());
    }
    benchmark::DoNotOptimize(digest.lines.data());
  }
  state.SetBytesProcessed(bytes);
}

void BM_AssistantFilter(benchmark::State& state) {
  const auto lines = loadLines();
  int64_t bytes = 0;
  for (auto _ : state) {
    for (const auto& line : lines) {
      benchmark::DoNotOptimize(ostler::mayNameAssistant(line));
      bytes += static_cast<int64_t>(line.size());
    }
  }
  state.SetBytesProcessed(bytes);
}

BENCHMARK(BM_ReadLines);
BENCHMARK(BM_DecodeLines);
BENCHMARK(BM_DigestLines);
BENCHMARK(BM_AssistantFilter);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc < 2) {
    std::fprintf(stderr, "usage: decode_bench [benchmark flags] FILE.jsonl\n");
    return 2;
  }
  gFile = argv[1];
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
