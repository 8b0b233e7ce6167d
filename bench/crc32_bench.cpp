// crc32_calc against zlib's crc32 on a small block (the partition check reads 4 KiB at a
// time) and on a large one (a partition image of many megabytes), in bytes per second.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>
#include <zlib.h>

#include "util/crc32.hpp"

namespace {

constexpr std::size_t SMALL = 4096;
constexpr std::size_t LARGE = 16u << 20;

const std::vector<std::uint8_t> &data() {
    static const std::vector<std::uint8_t> buf = [] {
        std::vector<std::uint8_t> b(LARGE);
        std::mt19937 rng(42);
        for (auto &x : b)
            x = static_cast<std::uint8_t>(rng());
        return b;
    }();
    return buf;
}

void BM_crc32_calc(benchmark::State &state) {
    const auto &buf = data();
    auto len = static_cast<std::uint32_t>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32_calc(0, buf.data(), len));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * len);
}

void BM_zlib_crc32(benchmark::State &state) {
    const auto &buf = data();
    auto len = static_cast<uInt>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32(0, buf.data(), len));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * len);
}

void BM_crc32_calc_bytewise(benchmark::State &state) {
    const auto &buf = data();
    auto len = static_cast<std::uint32_t>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32_calc_bytewise(0, buf.data(), len));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * len);
}

// A benchmark of a wrong function is worthless: refuse to run when the results differ.
bool same_results() {
    const auto &buf = data();
    for (std::size_t len : {SMALL, LARGE}) {
        auto ours = crc32_calc(0, buf.data(), static_cast<std::uint32_t>(len));
        auto zlib = static_cast<std::uint32_t>(crc32(0, buf.data(), static_cast<uInt>(len)));
        if (ours != zlib) {
            std::fprintf(stderr, "crc32_calc %08x differs from zlib %08x over %zu bytes\n",
                         static_cast<unsigned>(ours), static_cast<unsigned>(zlib), len);
            return false;
        }
    }
    return true;
}

} // namespace

BENCHMARK(BM_crc32_calc)->Arg(SMALL)->Arg(LARGE);
BENCHMARK(BM_zlib_crc32)->Arg(SMALL)->Arg(LARGE);
BENCHMARK(BM_crc32_calc_bytewise)->Arg(SMALL)->Arg(LARGE);

int main(int argc, char **argv) {
    if (!same_results()) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
