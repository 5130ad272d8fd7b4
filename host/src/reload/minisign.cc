#include <nxahost/minisign.h>
#include <sodium.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace nxahost::minisign {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr char kUntrusted[] = "untrusted comment: ";
constexpr char kTrusted[] = "trusted comment: ";
// The algorithms: Ed25519 over the file ("Ed") or over its BLAKE2b-512 hash ("ED").
constexpr char kLegacy[] = "Ed";
constexpr char kPrehashed[] = "ED";
constexpr std::size_t kSecretKeyBytes = 158;
constexpr std::size_t kKeynumBytes = 104;  // key id, secret key, checksum
// The most a legacy signature's file may hold: it is read whole to be checked.
constexpr std::size_t kMaxLegacyFile = 64u << 20;

void requireSodium() {
    if (sodium_init() < 0) throw std::runtime_error("libsodium cannot be used");
}

[[noreturn]] void refuse(std::string const& reason) {
    throw std::runtime_error(reason);
}

std::vector<std::string> linesOf(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

Bytes fromBase64(std::string const& text, char const* what) {
    Bytes out(text.size());
    std::size_t length = 0;
    if (sodium_base642bin(out.data(), out.size(), text.data(), text.size(), nullptr, &length, nullptr,
                          sodium_base64_VARIANT_ORIGINAL) != 0)
        refuse(std::string("not a minisign ") + what);
    out.resize(length);
    return out;
}

std::string toBase64(Bytes const& bytes) {
    std::string out(sodium_base64_ENCODED_LEN(bytes.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    sodium_bin2base64(out.data(), out.size(), bytes.data(), bytes.size(), sodium_base64_VARIANT_ORIGINAL);
    out.resize(std::strlen(out.c_str()));
    return out;
}

bool startsWith(Bytes const& bytes, char const* two) {
    return bytes.size() >= 2 && bytes[0] == static_cast<std::uint8_t>(two[0]) &&
           bytes[1] == static_cast<std::uint8_t>(two[1]);
}

template <std::size_t N>
void copyOut(Bytes const& from, std::size_t at, std::array<std::uint8_t, N>& to) {
    std::copy(from.begin() + static_cast<long>(at), from.begin() + static_cast<long>(at + N), to.begin());
}

// The key's base64 line: the one after the comment, or the text's only line.
std::string keyLine(std::string const& text) {
    std::vector<std::string> const lines = linesOf(text);
    for (std::string const& line : lines) {
        if (!line.empty() && line.rfind(kUntrusted, 0) != 0) return line;
    }
    return {};
}

std::uint64_t littleEndian(Bytes const& bytes, std::size_t at) {
    std::uint64_t value = 0;
    for (std::size_t i = 8; i-- > 0;) value = (value << 8) | bytes[at + i];
    return value;
}

// Decrypts the key id, secret key and checksum in place with the password.
void decrypt(Bytes& blob, std::string const& password) {
    std::array<std::uint8_t, kKeynumBytes> stream{};
    if (crypto_pwhash_scryptsalsa208sha256(stream.data(), stream.size(), password.data(), password.size(),
                                           blob.data() + 6, littleEndian(blob, 38),
                                           static_cast<std::size_t>(littleEndian(blob, 46))) != 0)
        refuse("cannot derive the secret key's password (not enough memory)");
    for (std::size_t i = 0; i < kKeynumBytes; ++i) blob[54 + i] ^= stream[i];
    sodium_memzero(stream.data(), stream.size());
}

bool checksumHolds(Bytes const& blob) {
    std::array<std::uint8_t, 32> sum{};
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, sum.size());
    crypto_generichash_update(&state, blob.data(), 2);
    crypto_generichash_update(&state, blob.data() + 54, 8 + 64);
    crypto_generichash_final(&state, sum.data(), sum.size());
    return sodium_memcmp(sum.data(), blob.data() + 126, sum.size()) == 0;
}

Bytes readWhole(std::string const& path, std::size_t most) {
    std::ifstream in(path, std::ios::binary);
    if (!in) refuse("cannot read " + path);
    Bytes bytes;
    char block[65536];
    while (in.read(block, sizeof block) || in.gcount() > 0) {
        bytes.insert(bytes.end(), block, block + in.gcount());
        if (bytes.size() > most) refuse(path + " is too large for a legacy signature");
    }
    return bytes;
}

}  // namespace

std::string keyIdText(KeyId const& id) {
    unsigned long long number = 0;
    for (std::size_t i = 0; i < 8; ++i) number = (number << 8) | id[7 - i];
    char text[17];
    std::snprintf(text, sizeof text, "%llX", number);
    return text;
}

PublicKey parsePublicKey(std::string const& text) {
    requireSodium();
    Bytes const blob = fromBase64(keyLine(text), "public key");
    if (blob.size() != 42) refuse("not a minisign public key");
    if (!startsWith(blob, kLegacy)) refuse("a public key of an unknown algorithm");
    PublicKey key;
    copyOut(blob, 2, key.id);
    copyOut(blob, 10, key.key);
    return key;
}

bool needsPassword(std::string const& text) {
    Bytes const blob = fromBase64(keyLine(text), "secret key");
    return blob.size() == kSecretKeyBytes && blob[2] == 'S' && blob[3] == 'c';
}

SecretKey parseSecretKey(std::string const& text, std::function<std::string()> const& password) {
    requireSodium();
    Bytes blob = fromBase64(keyLine(text), "secret key");
    if (blob.size() != kSecretKeyBytes || !startsWith(blob, kLegacy)) refuse("not a minisign secret key");
    bool const encrypted = blob[2] == 'S' && blob[3] == 'c';
    if (!encrypted && (blob[2] != 0 || blob[3] != 0)) refuse("a secret key encrypted in an unknown way");
    if (encrypted) decrypt(blob, password());
    // An unencrypted key may carry no checksum (all zeros); an encrypted one must.
    bool const noChecksum =
        !encrypted && std::all_of(blob.begin() + 126, blob.end(), [](std::uint8_t b) { return b == 0; });
    if (!noChecksum && !checksumHolds(blob)) refuse("wrong password or damaged secret key");
    SecretKey key;
    copyOut(blob, 54, key.id);
    copyOut(blob, 62, key.key);
    sodium_memzero(blob.data(), blob.size());
    return key;
}

Signature parseSignature(std::string const& text) {
    requireSodium();
    if (text.size() > kMaxSignatureBytes) refuse("larger than a signature");
    std::vector<std::string> const lines = linesOf(text);
    if (lines.size() < 4 || lines[0].rfind(kUntrusted, 0) != 0) refuse("not a minisign signature");
    if (lines[2].rfind(kTrusted, 0) != 0) refuse("no trusted comment");
    Bytes const blob = fromBase64(lines[1], "signature");
    if (blob.size() != 74) refuse("not a minisign signature");
    Signature signature;
    if (startsWith(blob, kPrehashed))
        signature.prehashed = true;
    else if (startsWith(blob, kLegacy))
        signature.prehashed = false;
    else
        refuse("a signature of an unknown algorithm");
    copyOut(blob, 2, signature.keyId);
    copyOut(blob, 10, signature.signature);
    signature.trustedComment = lines[2].substr(sizeof kTrusted - 1);
    Bytes const global = fromBase64(lines[3], "signature");
    if (global.size() != 64) refuse("not a minisign signature");
    copyOut(global, 0, signature.globalSignature);
    return signature;
}

FileHash hashFile(std::string const& path) {
    requireSodium();
    std::ifstream in(path, std::ios::binary);
    if (!in) refuse("cannot read " + path);
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, crypto_generichash_BYTES_MAX);
    std::vector<char> block(1 << 20);
    while (in.read(block.data(), static_cast<std::streamsize>(block.size())) || in.gcount() > 0)
        crypto_generichash_update(&state, reinterpret_cast<unsigned char const*>(block.data()),
                                  static_cast<unsigned long long>(in.gcount()));
    FileHash hash{};
    crypto_generichash_final(&state, hash.data(), hash.size());
    return hash;
}

std::string verify(Signature const& signature, PublicKey const& key, std::string const& path,
                   FileHash const& hash) {
    requireSodium();
    if (signature.keyId != key.id) return "signed by another key";
    bool matches = false;
    if (signature.prehashed) {
        matches = crypto_sign_verify_detached(signature.signature.data(), hash.data(), hash.size(),
                                              key.key.data()) == 0;
    } else {
        Bytes const whole = readWhole(path, kMaxLegacyFile);
        matches = crypto_sign_verify_detached(signature.signature.data(), whole.data(), whole.size(),
                                              key.key.data()) == 0;
    }
    if (!matches) return "the signature does not match the package";
    Bytes covered(signature.signature.begin(), signature.signature.end());
    covered.insert(covered.end(), signature.trustedComment.begin(), signature.trustedComment.end());
    if (crypto_sign_verify_detached(signature.globalSignature.data(), covered.data(), covered.size(),
                                    key.key.data()) != 0)
        return "the trusted comment does not match its signature";
    return {};
}

std::string sign(SecretKey const& key, FileHash const& hash, std::string const& trustedComment) {
    requireSodium();
    Bytes blob = {static_cast<std::uint8_t>(kPrehashed[0]), static_cast<std::uint8_t>(kPrehashed[1])};
    blob.insert(blob.end(), key.id.begin(), key.id.end());
    std::array<std::uint8_t, 64> signature{};
    crypto_sign_detached(signature.data(), nullptr, hash.data(), hash.size(), key.key.data());
    blob.insert(blob.end(), signature.begin(), signature.end());
    Bytes covered(signature.begin(), signature.end());
    covered.insert(covered.end(), trustedComment.begin(), trustedComment.end());
    Bytes global(64);
    crypto_sign_detached(global.data(), nullptr, covered.data(), covered.size(), key.key.data());
    return std::string(kUntrusted) + "signature from nxapack secret key " + keyIdText(key.id) + "\n" +
           toBase64(blob) + "\n" + kTrusted + trustedComment + "\n" + toBase64(global) + "\n";
}

std::string hashText(FileHash const& hash) {
    char hex[2 * std::tuple_size<FileHash>::value + 1];
    sodium_bin2hex(hex, sizeof hex, hash.data(), hash.size());
    return hex;
}

}  // namespace nxahost::minisign
