// What a host remembers of its packages across restarts and power cuts.
#pragma once

#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

namespace nxahost {

// One package as the host knows it.
struct PackageInfo {
    // The package's version: the trusted comment's "version:", or else the
    // newest version a module's Manifest names; empty when neither says one.
    std::string version;
    // Its file's BLAKE2b-512 hash in hex, as b2sum prints it.
    std::string hash;
    // Who signed it and what the signature says; empty when packages are not checked.
    std::string keyId;
    std::string trustedComment;
    // Each module's version as its Manifest names it.
    std::map<std::string, std::string> moduleVersions;
    // When it was installed, in seconds since the epoch.
    long long installedAt = 0;
};

// One install, rollback or verdict, for the operator.
struct PackageEvent {
    long long time = 0;  // seconds since the epoch
    std::string event;   // "installed", "passed probation", "rolled back", "fell back"
    std::string version;
    std::string hash;
    std::string detail;  // why, in words; may be empty
};

// The record, kept in one file (JSON) that is replaced whole on every change:
// written beside it, synced, renamed over it and its folder synced, so a power
// cut leaves the old record or the new one. Plain data otherwise: the
// reload's code decides what it means.
class PackageRecord {
public:
    static constexpr std::size_t kHistory = 10;

    // Reads `path`; a missing or unreadable file gives an empty record (and,
    // when unreadable, `problem` says why).
    static PackageRecord load(std::string const& path, std::string& problem);

    // Writes the record to `path` as described above. Throws IOException.
    void save(std::string const& path) const;

    // Adds an event, keeping the kHistory latest.
    void note(PackageEvent event);

    nlohmann::json toJson() const;
    static PackageRecord fromJson(nlohmann::json const& json);

    std::optional<PackageInfo> installed;
    // While the installed package is on probation: until when (seconds since the epoch).
    std::optional<long long> probationUntil;
    std::optional<PackageInfo> lastGood;
    // Per module, the newest version that passed probation from a checked package.
    std::map<std::string, std::string> versions;
    // Packages rolled back (their hashes): not installed again by a plain reload.
    std::set<std::string> rolledBack;
    std::deque<PackageEvent> history;
};

nlohmann::json toJson(PackageInfo const& info);
nlohmann::json toJson(PackageEvent const& event);

}  // namespace nxahost
