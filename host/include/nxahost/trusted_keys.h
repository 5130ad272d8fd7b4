// The keys whose signatures a host accepts on a package, and checking a
// package's signature against them before anything of it is unpacked.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "minisign.h"

namespace nxahost {

// Every minisign public key of a folder (its "*.pub" files): keys rotate by
// adding the new one before the old one is removed.
class TrustedKeys {
public:
    // Reads every "*.pub" file of `dir`. A file that cannot be read or is no
    // minisign public key is left out and named in problems(); a folder that
    // does not exist holds no key.
    static TrustedKeys load(std::string const& dir);

    bool empty() const { return keys_.empty(); }
    std::size_t size() const { return keys_.size(); }
    // The key with that id, or null.
    minisign::PublicKey const* find(minisign::KeyId const& id) const;
    // "<file>: <why>" for each file left out.
    std::vector<std::string> const& problems() const { return problems_; }

private:
    std::map<minisign::KeyId, minisign::PublicKey> keys_;
    std::vector<std::string> problems_;
};

// Who signed a package that verified, and what the signature says of it.
struct PackageSigner {
    std::string keyId;           // as minisign prints it
    std::string trustedComment;  // as signed
};

// Checks the signature file `signatureFile` (minisign's format) of the
// package file `package` against `keys`, reading the package once to hash it.
// Returns what is wrong, in words ("no signature: ... does not exist", "the
// signature is not minisign's: ...", "signed by a key that is not trusted
// (0123456789ABCDEF)", "the signature does not match the package"), or an
// empty text when it holds, `signer` then filled in. Never throws.
std::string verifyPackage(std::string const& package, std::string const& signatureFile,
                          TrustedKeys const& keys, PackageSigner& signer);
// The same for a package whose hash (minisign::hashFile) is already known:
// the package is not read again.
std::string verifyPackage(std::string const& package, minisign::FileHash const& hash,
                          std::string const& signatureFile, TrustedKeys const& keys, PackageSigner& signer);

// The value of `name` in a trusted comment of "name:value" words separated
// by tabs or blanks ("version:2.0 timestamp:1700000000"); empty when absent.
std::string trustedCommentField(std::string const& comment, std::string const& name);

}  // namespace nxahost
