// What an idle module costs the host's loop on every turn: the library's
// addFds, handleInput and handleOutput for N modules whose programs, clients
// and bus are quiet, alone ("library") and with the wait between them
// ("turn": waitFds with a time-out of 0 on the sets the modules filled, which
// finds nothing ready), and with a cold cache ("cold": before each turn,
// outside the timing, 2 MiB are written, as the kernel's work of a busy turn
// pushes the modules out of the caches), and the same turns as nxahost makes
// them ("ready": the registry's kept descriptors, and only the modules with
// something ready visited). Reports the time per module and the allocations
// per turn ("allocs"). The modules connect to the bus on the fixed port; run
//   tests/sandbox/nxa-sandbox --broker -- <build>/bench/idle_turn_bench
#include <benchmark/benchmark.h>
#include <vlplatform/fd_set.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "nxaclient.h"

namespace {

constexpr unsigned short kFirstPort = 20100;

// A facade with `count` configured modules (no program started: nothing of
// them is ready, as for a module whose program is idle).
std::unique_ptr<NXAClient> clientWith(long count) {
    auto client =
        std::make_unique<NXAClient>("/var/opt/velmora", "/var/opt/velmora/nxa", "/var/opt/velmora/work", 0,
                                    kFirstPort, static_cast<unsigned long>(count), "", 0);
    std::vector<std::string> names;
    for (long i = 0; i < count; ++i) names.push_back("idle" + std::to_string(i));
    client->modules.configure(names);
    return client;
}

void report(benchmark::State& state, long allocs) {
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(allocs), benchmark::Counter::kAvgIterations);
    state.counters["per_module"] =
        benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// One turn of the host's loop with a wait that does not block: every module
// visited ("turn"), or the kept descriptors and only the ready modules
// visited ("ready", as nxahost turns).
void fullTurn(NXAClient& client, FdSet& rd, FdSet& wr) {
    rd.clear();
    wr.clear();
    client.addFds(rd, wr);
    waitFds(rd, wr, 0);
    client.handleInput(rd);
    client.handleOutput(wr);
}

void readyTurn(NXAClient& client, FdSet& rd, FdSet& wr) {
    rd.clear();
    wr.clear();
    client.addFdsCached(rd, wr);
    waitFds(rd, wr, 0);
    client.handleReady(rd, wr);
}

using Turn = void (*)(NXAClient&, FdSet&, FdSet&);

// Turns of `count` idle modules; with `cold`, 2 MiB are written before each.
void runTurns(benchmark::State& state, Turn turn, bool cold) {
    auto client = clientWith(state.range(0));
    std::vector<char> other(cold ? 2 << 20 : 0);
    FdSet rd, wr;
    long before = nxatest::allocations();
    for (auto _ : state) {
        if (cold) {
            state.PauseTiming();
            std::memset(other.data(), static_cast<int>(state.iterations()), other.size());
            benchmark::ClobberMemory();
            state.ResumeTiming();
        }
        turn(*client, rd, wr);
    }
    report(state, nxatest::allocations() - before);
}

void BM_IdleLibrary(benchmark::State& state) {
    auto client = clientWith(state.range(0));
    FdSet rd, wr, none, noneWr;
    long before = nxatest::allocations();
    for (auto _ : state) {
        rd.clear();
        wr.clear();
        client->addFds(rd, wr);
        client->handleInput(none);
        client->handleOutput(noneWr);
    }
    report(state, nxatest::allocations() - before);
}
BENCHMARK(BM_IdleLibrary)->Arg(1)->Arg(30)->Arg(100)->Arg(300);

void BM_IdleTurn(benchmark::State& state) {
    runTurns(state, fullTurn, false);
}
BENCHMARK(BM_IdleTurn)->Arg(1)->Arg(30)->Arg(100)->Arg(300);

void BM_IdleTurnCold(benchmark::State& state) {
    runTurns(state, fullTurn, true);
}
BENCHMARK(BM_IdleTurnCold)->Arg(1)->Arg(30)->Arg(100)->Arg(300);

void BM_IdleTurnReady(benchmark::State& state) {
    runTurns(state, readyTurn, false);
}
BENCHMARK(BM_IdleTurnReady)->Arg(1)->Arg(30)->Arg(100)->Arg(300)->Arg(1000);

void BM_IdleTurnReadyCold(benchmark::State& state) {
    runTurns(state, readyTurn, true);
}
BENCHMARK(BM_IdleTurnReadyCold)->Arg(1)->Arg(30)->Arg(100)->Arg(300)->Arg(1000);

}  // namespace
BENCHMARK_MAIN();
