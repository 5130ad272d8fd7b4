#include <dirent.h>
#include <nxahost/trusted_keys.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace nxahost {
namespace {

bool endsWith(std::string const& text, std::string const& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<std::string> publicKeyFiles(std::string const& dir) {
    std::vector<std::string> names;
    DIR* folder = opendir(dir.c_str());
    if (folder == nullptr) return names;
    while (dirent* entry = readdir(folder)) {
        std::string const name = entry->d_name;
        if (name.size() > 4 && endsWith(name, ".pub")) names.push_back(name);
    }
    closedir(folder);
    std::sort(names.begin(), names.end());
    return names;
}

// The file's first `most` + 1 bytes at the most (so a larger file shows as
// larger); false, with why, when it cannot be read.
bool readSmall(std::string const& path, std::size_t most, std::string& text, std::string& why) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        why = std::strerror(errno);
        return false;
    }
    text.assign(most + 1, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(in.gcount()));
    return true;
}

}  // namespace

TrustedKeys TrustedKeys::load(std::string const& dir) {
    TrustedKeys trusted;
    for (std::string const& name : publicKeyFiles(dir)) {
        std::string const path = dir + "/" + name;
        std::string text, why;
        try {
            if (!readSmall(path, minisign::kMaxSignatureBytes, text, why)) throw std::runtime_error(why);
            if (text.size() > minisign::kMaxSignatureBytes)
                throw std::runtime_error("larger than a public key");
            minisign::PublicKey const key = minisign::parsePublicKey(text);
            trusted.keys_[key.id] = key;
        } catch (std::exception const& e) {
            trusted.problems_.push_back(path + ": " + e.what());
        }
    }
    return trusted;
}

minisign::PublicKey const* TrustedKeys::find(minisign::KeyId const& id) const {
    auto const found = keys_.find(id);
    return found == keys_.end() ? nullptr : &found->second;
}

std::string verifyPackage(std::string const& package, std::string const& signatureFile,
                          TrustedKeys const& keys, PackageSigner& signer) {
    try {
        return verifyPackage(package, minisign::hashFile(package), signatureFile, keys, signer);
    } catch (std::exception const& e) {
        return e.what();
    }
}

std::string verifyPackage(std::string const& package, minisign::FileHash const& hash,
                          std::string const& signatureFile, TrustedKeys const& keys, PackageSigner& signer) {
    std::string text, why;
    if (!readSmall(signatureFile, minisign::kMaxSignatureBytes, text, why))
        return "no signature: " + signatureFile + ": " + why;
    try {
        minisign::Signature const signature = minisign::parseSignature(text);
        minisign::PublicKey const* key = keys.find(signature.keyId);
        if (key == nullptr)
            return "signed by a key that is not trusted (" + minisign::keyIdText(signature.keyId) + ")";
        std::string const problem = minisign::verify(signature, *key, package, hash);
        if (!problem.empty()) return problem + " (key " + minisign::keyIdText(signature.keyId) + ")";
        signer = PackageSigner{minisign::keyIdText(signature.keyId), signature.trustedComment};
        return {};
    } catch (std::exception const& e) {
        return std::string("the signature is not minisign's: ") + e.what();
    }
}

std::string trustedCommentField(std::string const& comment, std::string const& name) {
    std::istringstream words(comment);
    std::string const prefix = name + ":";
    for (std::string word; words >> word;) {
        if (word.rfind(prefix, 0) == 0) return word.substr(prefix.size());
    }
    return {};
}

}  // namespace nxahost
