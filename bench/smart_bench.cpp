// The cost of turning smartctl's JSON into SMART rows, once a second per selected volume: the
// largest fixture (a Samsung 860 EVO `smartctl -x` output, 38 KB, about 1,150 values) parsed and
// interpreted as the fetch does it, and interpreted from an already parsed document. Compare with
// bench/smartctl_runtime.sh, which times smartctl itself.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "smart/SmartctlJSONInterpreter.h"
#include "smart/SmartmontoolsBridge.h"

namespace vantorix {
namespace {

std::string largestFixture() {
    std::ifstream file(std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-ata-full.json",
                       std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void setLanguage(const benchmark::State& state) { ::setenv("LANGUAGE", state.range(0) == 0 ? "en_US" : "zh_CN", 1); }

void BM_SmartParseAndInterpretLargestFixture(benchmark::State& state) {
    setLanguage(state);
    const std::string json = largestFixture();
    for (auto _ : state) {
        auto document = smart::parsedDocument(json);
        auto info = smart::interpret(*document);
        benchmark::DoNotOptimize(info);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(json.size()));
}
BENCHMARK(BM_SmartParseAndInterpretLargestFixture)
    ->Arg(0)
    ->Arg(1)
    ->ArgName("zh")
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

void BM_SmartInterpretParsedLargestFixture(benchmark::State& state) {
    setLanguage(state);
    const auto document = smart::parsedDocument(largestFixture());
    for (auto _ : state) {
        auto info = smart::interpret(*document);
        benchmark::DoNotOptimize(info);
    }
}
BENCHMARK(BM_SmartInterpretParsedLargestFixture)
    ->Arg(0)
    ->Arg(1)
    ->ArgName("zh")
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

}  // namespace
}  // namespace vantorix
