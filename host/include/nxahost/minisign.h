// Signatures in minisign's format, made and checked with libsodium: Ed25519
// over a file's BLAKE2b-512 hash (the prehashed form, "ED") or over the file
// itself (the legacy form, "Ed"), with the key's 8-byte id and a trusted
// comment that a second signature covers. Keys are minisign's own files
// (minisign -G), so packages signed by the minisign program verify here and
// signatures made here verify with minisign -V.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

namespace nxahost::minisign {

using KeyId = std::array<std::uint8_t, 8>;
using FileHash = std::array<std::uint8_t, 64>;

// The key id as minisign prints it: the little-endian number in upper-case
// hex digits, without leading zeros (so up to 16 digits).
std::string keyIdText(KeyId const& id);

// A public key: what `minisign -G` writes to minisign.pub.
struct PublicKey {
    KeyId id{};
    std::array<std::uint8_t, 32> key{};
};

// Parses the text of a public key file (an untrusted comment line, then the
// key in base64), or the base64 line alone. Throws std::runtime_error with
// the reason ("not a minisign public key", "an unknown algorithm").
PublicKey parsePublicKey(std::string const& text);

// A secret key, decrypted.
struct SecretKey {
    KeyId id{};
    std::array<std::uint8_t, 64> key{};
};

// Whether the secret key file's text is encrypted with a password.
bool needsPassword(std::string const& text);
// Parses the text of a secret key file (`minisign -G`), decrypting it with
// the password `password()` gives when it is encrypted (asked only then).
// Throws std::runtime_error with the reason ("wrong password or damaged
// secret key", "not a minisign secret key").
SecretKey parseSecretKey(std::string const& text, std::function<std::string()> const& password);

// A signature file (<file>.minisig).
struct Signature {
    bool prehashed = true;
    KeyId keyId{};
    std::array<std::uint8_t, 64> signature{};
    std::string trustedComment;
    std::array<std::uint8_t, 64> globalSignature{};
};

// The most a signature file may hold.
inline constexpr std::size_t kMaxSignatureBytes = 4096;

// Parses the text of a signature file. Throws std::runtime_error with the
// reason ("larger than a signature", "not a minisign signature", "an unknown
// algorithm", "no trusted comment").
Signature parseSignature(std::string const& text);

// The BLAKE2b-512 hash of the file `path`, read in blocks. Throws
// std::runtime_error when it cannot be read.
FileHash hashFile(std::string const& path);

// Checks `signature` against `key` for the file `path` whose hash is `hash`
// (a legacy signature reads the file itself), and the trusted comment against
// its own signature. Returns what is wrong ("signed by another key",
// "the signature does not match the package", "the trusted comment does not
// match its signature"), or an empty text when both hold.
std::string verify(Signature const& signature, PublicKey const& key, std::string const& path,
                   FileHash const& hash);

// A signature file's text in the prehashed form for the file whose hash is
// `hash`, with `trustedComment` (one line) signed too.
std::string sign(SecretKey const& key, FileHash const& hash, std::string const& trustedComment);

// A file's hash in lower-case hex, as b2sum prints it: the name by which
// operators and the host tell packages apart.
std::string hashText(FileHash const& hash);

}  // namespace nxahost::minisign
