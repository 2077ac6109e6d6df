// Throughput of the NMEA sentence parser on a large log, fed in the batches
// that the navigation worker reads from a link.
//
// The log is the file named by NORVANTA_BENCH_NMEA_LOG when that is set, so
// that bench/parser_vs_gpsdecode.sh can give gpsdecode the very same bytes.
// Otherwise it is built in memory from the receiver logs of the test data,
// all of them in name order, repeated until the text reaches about 50 MB;
// the script builds its file the same way.
//
// Counters: bytes_per_second, sentences (per second: one per '$'), and fixes,
// the batches per pass that ended with a position, which shows that the
// handlers really ran.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include <benchmark/benchmark.h>

#include "navigation/nmea_parser.h"
#include "navigation/worker.h"
#include "shell/errors.h"

namespace norvanta {
namespace {

constexpr const char* log_variable = "NORVANTA_BENCH_NMEA_LOG";
constexpr std::size_t built_log_bytes = 50u * 1024u * 1024u;
constexpr std::size_t read_chunk_bytes = 1u << 20;

std::string read_whole_file(const std::string& path) {
    std::string text;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return text;
    std::vector<char> chunk(read_chunk_bytes);
    std::size_t count = 0;
    while ((count = std::fread(chunk.data(), 1, chunk.size(), file)) > 0)
        text.append(chunk.data(), count);
    std::fclose(file);
    return text;
}

std::string build_log_from_test_data() {
    std::vector<std::filesystem::path> logs;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(NORVANTA_NMEA_LOG_DIR, error), end;
         !error && entry != end; entry.increment(error)) {
        if (entry->path().extension() == ".log") logs.push_back(entry->path());
    }
    std::sort(logs.begin(), logs.end());
    std::string round;
    for (const std::filesystem::path& path : logs)
        round += read_whole_file(path.string());
    std::string text;
    if (round.empty()) return text;
    text.reserve(built_log_bytes + round.size());
    while (text.size() < built_log_bytes)
        text += round;
    return text;
}

const std::string& bench_log() {
    static const std::string log = [] {
        const char* path = std::getenv(log_variable);
        return path && *path ? read_whole_file(path) : build_log_from_test_data();
    }();
    return log;
}

// A parser on the NMEA tables that reads any talker as GP, as gpsdecode
// decodes every talker. Made without the configuration file so that the
// benchmark never reads or seeds a user's configuration.
NmeaParser* any_talker_parser() {
    NmeaParser* parser = new_sentence_parser(nullptr, nullptr, nmea_keywords(), nmea_handlers());
    parser->any_talker = 1;
    new_nav_fix(parser->fix);
    return parser;
}

void ParseLogInWorkerBatches(benchmark::State& state) {
    const std::string& log = bench_log();
    if (log.empty()) {
        state.SkipWithError("no log: NORVANTA_BENCH_NMEA_LOG unreadable or test data missing");
        return;
    }
    const auto sentence_count = static_cast<double>(std::count(log.begin(), log.end(), '$'));
    int64_t fixes_per_pass = 0;
    for (auto _ : state) {
        NmeaParser* parser = any_talker_parser();
        int64_t fixes = 0;
        for (std::size_t offset = 0; offset < log.size(); offset += batch_capacity) {
            const std::size_t count = std::min(batch_capacity, log.size() - offset);
            clear_fix_flags(*parser->fix);
            feed_nmea(log.data() + offset, count, *parser);
            fixes += parser->fix->position_valid != 0;
        }
        benchmark::DoNotOptimize(fixes);
        fixes_per_pass = fixes;
        free_nmea_parser(parser);
    }
    if (error_pending()) state.SkipWithError("the parser set the error word");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(log.size()));
    state.counters["sentences"] =
        benchmark::Counter(sentence_count, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["fixes"] = static_cast<double>(fixes_per_pass);
}

BENCHMARK(ParseLogInWorkerBatches)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
} // namespace norvanta
