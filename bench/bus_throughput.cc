// How many 512-byte messages a second one VLPBusClient delivers to another
// through a real broker. The benchmark starts its own mosquitto on a free
// loopback port with a temporary configuration (no root needed) and stops it
// at the end. Run: bus_throughput_bench [--benchmark_min_time=2].
//
// Each iteration is one message delivered; the sender keeps at most `window`
// messages in flight (sent, not yet received), below the broker's per-client
// queue limit, so the broker never drops one.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "vlplatform/fd_set.h"
#include "vlplatform/vlpbus_client.h"

extern char** environ;

namespace {

// A loopback port nobody listens on right now.
unsigned short freePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

bool accepting(unsigned short port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

// A private mosquitto, configured like the test sandbox's broker, for as long
// as the object lives.
class Broker {
public:
    Broker() : port_(freePort()) {
        char dir[] = "/tmp/nxa-bus-bench-XXXXXX";
        if (!mkdtemp(dir)) return;
        dir_ = dir;
        writeConfig();
        std::string conf = dir_ + "/mosquitto.conf";
        char const* argv[] = {"mosquitto", "-c", conf.c_str(), nullptr};
        if (posix_spawnp(&pid_, "mosquitto", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
            pid_ = -1;
        for (int i = 0; i < 500 && pid_ > 0 && !accepting(port_); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~Broker() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        if (!dir_.empty()) {
            std::remove((dir_ + "/mosquitto.conf").c_str());
            rmdir(dir_.c_str());
        }
    }
    Broker(Broker const&) = delete;
    Broker& operator=(Broker const&) = delete;

    unsigned short port() const { return port_; }
    bool running() const { return pid_ > 0 && accepting(port_); }

private:
    void writeConfig() const {
        std::ofstream conf(dir_ + "/mosquitto.conf");
        conf << "listener " << port_ << " 127.0.0.1\n"
             << "allow_anonymous true\npersistence false\nset_tcp_nodelay true\n"
             << "log_dest none\n";
        // As root the broker would otherwise switch to a "mosquitto" user.
        if (geteuid() == 0) conf << "user root\n";
    }

    unsigned short port_;
    std::string dir_;
    pid_t pid_ = -1;
};

Broker* broker = nullptr;

// Reads what the receiver has, waiting up to a second; the number of messages taken.
std::size_t receive(VLPBusClient& rx) {
    FdSet rd, wr;
    rd.add(rx.fd());
    if (waitFds(rd, wr, 1000) <= 0 || !rx.read()) return 0;
    std::size_t taken = 0;
    while (rx.getMessage()) ++taken;
    return taken;
}

void BM_BusThroughput512(benchmark::State& state) {
    std::size_t const window = static_cast<std::size_t>(state.range(0));
    VLPBusClient tx("127.0.0.1", broker->port(), "bench-sender");
    VLPBusClient rx("127.0.0.1", broker->port(), "bench-receiver");
    tx.setup();
    rx.setup();
    if (!tx.isConnected() || !rx.isConnected()) {
        state.SkipWithError("cannot connect to the benchmark's broker");
        return;
    }
    std::string const text(512, 'x');
    std::size_t sent = 0, delivered = 0, counted = 0;
    for (auto _ : state) {
        while (sent < counted + window) {
            auto msg = std::make_unique<SystemMessage>();
            msg->setKind(34);
            msg->setText(text);
            tx.sendTo("bench-sender", "bench-receiver", std::move(msg));
            ++sent;
        }
        while (delivered == counted) {
            std::size_t got = receive(rx);
            if (got == 0 && !rx.isConnected()) break;
            delivered += got;
        }
        if (delivered == counted) {
            state.SkipWithError("a message was lost");
            break;
        }
        ++counted;
    }
    state.SetItemsProcessed(static_cast<int64_t>(counted));
    state.SetBytesProcessed(static_cast<int64_t>(counted * text.size()));
    // Take what is still in flight so the next run starts empty.
    while (delivered < sent) {
        std::size_t got = receive(rx);
        if (got == 0) break;
        delivered += got;
    }
}

BENCHMARK(BM_BusThroughput512)->Arg(1)->Arg(64)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Broker own;
    if (!own.running()) {
        std::fprintf(stderr, "bus_throughput_bench: cannot start mosquitto\n");
        return 1;
    }
    broker = &own;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
