// What fanning a module's output out to its peers costs: Peers::push of one
// 512-byte chunk to 1, 8 and 64 peers, and PeerLog::move of a full run log.
// Every operator new is counted (tests/support/alloc_counter.h), so each
// benchmark also reports the allocations per operation ("allocs").
//
// The peers are bus peers that are never written, so no I/O is measured. They
// need a real module, which connects to the bus on its fixed port: run
//   tests/sandbox/nxa-sandbox --broker -- <build>/bench/peers_bench
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "alloc_counter.h"
#include "nxaclient.h"

namespace {

constexpr std::size_t kChunk = 512;

// The one module all benchmarks hang their peers on, made on first use.
NXAClient::Module& benchModule() {
    static Proc proc(getpid());
    static NXAClient::Module module("bench", 20111, proc);
    return module;
}

std::string chunkBytes() {
    std::string bytes(kChunk, '\0');
    for (std::size_t i = 0; i < kChunk; ++i) bytes[i] = static_cast<char>(i * 7);
    return bytes;
}

void reportAllocations(benchmark::State& state, long allocs) {
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(allocs), benchmark::Counter::kAvgIterations);
}

// One push of a 512-byte chunk into a set of state.range(0) peers. Every
// peer's queue is full, so each push also drops each peer's oldest block:
// the steady state of a busy module.
void BM_PeersPush(benchmark::State& state) {
    NXAClient::Module& module = benchModule();
    NXAClient::Peers peers(module, {});
    for (long i = 0; i < state.range(0); ++i) peers.add("viewer" + std::to_string(i));
    std::string bytes = chunkBytes();
    auto const* data = reinterpret_cast<unsigned char const*>(bytes.data());
    for (std::size_t i = 0; i < NXAClient::Peer::queueBound; ++i) peers.push(data, bytes.size());
    long before = nxatest::allocations();
    for (auto _ : state) peers.push(data, bytes.size());
    reportAllocations(state, nxatest::allocations() - before);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kChunk));
}
BENCHMARK(BM_PeersPush)->Arg(1)->Arg(8)->Arg(64);

// PeerLog::move of a run log holding its full 10 chunks of 512 bytes into a
// string that keeps its capacity. Refilling the log is not timed or counted.
void BM_PeerLogMove(benchmark::State& state) {
    NXAClient::Module& module = benchModule();
    NXAClient::Peers peers(module, {new NXAClient::PeerLog(module)});
    auto& log = static_cast<NXAClient::PeerLog&>(*peers.find("client"));
    std::string bytes = chunkBytes();
    auto const* data = reinterpret_cast<unsigned char const*>(bytes.data());
    std::string out;
    out.reserve(NXAClient::Peer::queueBound * kChunk);
    long counted = 0;
    for (auto _ : state) {
        state.PauseTiming();
        out.clear();
        for (std::size_t i = 0; i < NXAClient::Peer::queueBound; ++i) peers.push(data, bytes.size());
        long before = nxatest::allocations();
        state.ResumeTiming();
        log.move(out);
        benchmark::DoNotOptimize(out.data());
        counted += nxatest::allocations() - before;
    }
    reportAllocations(state, counted);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * NXAClient::Peer::queueBound * kChunk));
}
BENCHMARK(BM_PeerLogMove);

// The cost of pausing and resuming the timer alone, which BM_PeerLogMove's
// time includes: subtract it to get the move itself.
void BM_PauseResumeOnly(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_PauseResumeOnly);

}  // namespace

int main(int argc, char** argv) {
    char const* sandbox = std::getenv("NXA_SANDBOX");
    if (!sandbox || std::string(sandbox) != "1") {
        std::cerr << "peers_bench needs the bus broker of the sandbox; run it as\n"
                     "  tests/sandbox/nxa-sandbox --broker -- "
                  << argv[0] << "\n";
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
