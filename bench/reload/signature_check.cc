// What checking a package's signature costs next to installing it: a 64 MiB
// package (one module holding 64 MiB, incompressible or text-like), its
// signature checked with a trusted key (one hash pass and the check), and
// all the host does before it unpacks anything (its copy of the package as
// well), against unpacking it as the installation does (the package into a
// folder, then the module's archive into another). Run it with a folder on
// the disk the device installs to: signature_check_bench [--benchmark_...].
#include <benchmark/benchmark.h>
#include <nxahost/minisign.h>
#include <nxahost/package_copy.h>
#include <nxahost/trusted_keys.h>
#include <sodium.h>
#include <vlplatform/fs.h>
#include <vlplatform/zipper.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

namespace {

constexpr std::size_t kPayloadBytes = 64u << 20;

std::string scratch() {
    static std::string const dir = [] {
        char name[] = "/var/tmp/nxa-signature-bench-XXXXXX";
        return std::string(::mkdtemp(name));
    }();
    return dir;
}

void writePayload(std::string const& path, bool compressible) {
    std::ofstream out(path, std::ios::binary);
    std::mt19937_64 random(42);
    std::string block(1 << 16, '\0');
    for (std::size_t written = 0; written < kPayloadBytes; written += block.size()) {
        for (std::size_t i = 0; i < block.size(); i += 8) {
            std::uint64_t const word = random();
            for (std::size_t b = 0; b < 8; ++b)
                block[i + b] = compressible ? "0123456789 abcdef\n"[(word >> (8 * b)) % 18 % (b + 3)]
                                            : static_cast<char>(word >> (8 * b));
        }
        out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
}

// The package <scratch>/<kind>/nxa.zip with its signature beside it, and the
// trusted key that made it in <scratch>/<kind>/keys.
std::string makePackage(bool compressible) {
    std::string const dir = scratch() + (compressible ? "/text" : "/random");
    std::string const module = dir + "/src/m1";
    mkdirPath(module, 0755);
    std::ofstream(module + "/Manifest") << "name\t=\tm1\nversion\t=\t1.0\narchitecture\t=\tnoarch\n";
    writePayload(module + "/m1", compressible);
    mkdirPath(dir + "/inner", 0755);
    zipper::zipFolderContents(module, dir + "/inner/m1.zip");
    zipper::zipFolderContents(dir + "/inner", dir + "/nxa.zip");

    nxahost::minisign::SecretKey secret;
    std::array<std::uint8_t, 32> publicKey{};
    crypto_sign_keypair(publicKey.data(), secret.key.data());
    randombytes_buf(secret.id.data(), secret.id.size());
    std::ofstream(dir + "/nxa.zip.minisig")
        << nxahost::minisign::sign(secret, nxahost::minisign::hashFile(dir + "/nxa.zip"), "version:1.0");
    std::string blob = "Ed";
    blob.append(reinterpret_cast<char const*>(secret.id.data()), secret.id.size());
    blob.append(reinterpret_cast<char const*>(publicKey.data()), publicKey.size());
    std::string base64(sodium_base64_ENCODED_LEN(blob.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    sodium_bin2base64(base64.data(), base64.size(), reinterpret_cast<unsigned char const*>(blob.data()),
                      blob.size(), sodium_base64_VARIANT_ORIGINAL);
    mkdirPath(dir + "/keys", 0755);
    std::ofstream(dir + "/keys/release.pub") << "untrusted comment: bench key\n" << base64.c_str() << "\n";
    return dir;
}

std::string const& package(bool compressible) {
    static std::string const random = makePackage(false);
    static std::string const text = makePackage(true);
    return compressible ? text : random;
}

void setBytes(benchmark::State& state, std::string const& file) {
    std::ifstream in(file, std::ios::binary | std::ios::ate);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(in.tellg()));
}

void CheckSignature(benchmark::State& state) {
    std::string const dir = package(state.range(0) != 0);
    nxahost::TrustedKeys const keys = nxahost::TrustedKeys::load(dir + "/keys");
    for (auto _ : state) {
        nxahost::PackageSigner signer;
        std::string const problem =
            nxahost::verifyPackage(dir + "/nxa.zip", dir + "/nxa.zip.minisig", keys, signer);
        if (!problem.empty()) state.SkipWithError(problem.c_str());
    }
    setBytes(state, dir + "/nxa.zip");
}

// What the host does before it unpacks anything: the package copied to its
// own folder (read back from the copy, synced), hashed once, the signature
// checked against that hash.
void CopyAndCheck(benchmark::State& state) {
    std::string const dir = package(state.range(0) != 0);
    nxahost::TrustedKeys const keys = nxahost::TrustedKeys::load(dir + "/keys");
    for (auto _ : state) {
        std::string problem = nxahost::copyPackage(dir + "/nxa.zip", dir + "/incoming.zip", 1ull << 30);
        nxahost::PackageSigner signer;
        nxahost::minisign::FileHash const hash = nxahost::minisign::hashFile(dir + "/incoming.zip");
        if (problem.empty())
            problem =
                nxahost::verifyPackage(dir + "/incoming.zip", hash, dir + "/nxa.zip.minisig", keys, signer);
        if (!problem.empty()) state.SkipWithError(problem.c_str());
    }
    setBytes(state, dir + "/nxa.zip");
}

void UnpackPackage(benchmark::State& state) {
    std::string const dir = package(state.range(0) != 0);
    zipper::setUnpackBudget(1ull << 30);
    for (auto _ : state) {
        rmDir(dir + "/outer", true);
        rmDir(dir + "/modules", true);
        mkdirPath(dir + "/modules/m1", 0755);
        if (zipper::unZipWithDirs(dir + "/nxa.zip", dir + "/outer", "") != 0 ||
            zipper::unZipWithDirs(dir + "/outer/m1.zip", dir + "/modules/m1", "") != 0)
            state.SkipWithError("cannot unpack");
    }
    setBytes(state, dir + "/nxa.zip");
}

}  // namespace

// Argument 0: incompressible payload, 1: text-like payload.
BENCHMARK(CheckSignature)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(CopyAndCheck)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(UnpackPackage)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    if (sodium_init() < 0) return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::system(("rm -rf " + scratch()).c_str());
    return 0;
}
