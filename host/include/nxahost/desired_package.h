// The package the centre wants a device to run, as the centre publishes it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace nxahost {

// A desired package: a JSON object
//
//   {"deployment": "d-20261125-1", "version": "1.4.0",
//    "package_url": "https://packages.example.net/nxa-1.4.0.zip",
//    "signature_url": "https://packages.example.net/nxa-1.4.0.zip.minisig",
//    "sha256": "<64 lowercase hex digits>", "size": 5242880}
//
// `deployment` names the rollout (letters, digits, ".", "_", "-"; at most 64),
// `version` is dotted numbers, the URLs are http:// or https://, `size` is the
// package's size in bytes. Other members are ignored.
struct DesiredPackage {
    std::string deployment;
    std::string version;
    std::string packageUrl;
    std::string signatureUrl;
    std::string sha256;
    std::uint64_t size = 0;

    // The package described by `text`, or nothing and `why` says what is
    // wrong: not JSON (or over 64 KiB, or nested deeper than control
    // requests may be), a member missing or of the wrong kind, a URL that is
    // not http(s), a hash that is not 64 lowercase hex digits, a size of 0 or
    // over `mostBytes`, a version that is not dotted numbers.
    static std::optional<DesiredPackage> parse(std::string const& text, std::uint64_t mostBytes,
                                               std::string& why);
    // The JSON object parse() reads.
    std::string toJson() const;
};

}  // namespace nxahost
