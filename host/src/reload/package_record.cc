#include <fcntl.h>
#include <nxahost/package_record.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>

#include <cerrno>
#include <fstream>
#include <sstream>

namespace nxahost {
namespace {

using json = nlohmann::json;

std::string text(json const& object, char const* key) {
    auto const it = object.find(key);
    return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

long long number(json const& object, char const* key) {
    auto const it = object.find(key);
    return it != object.end() && it->is_number_integer() ? it->get<long long>() : 0;
}

PackageInfo infoFrom(json const& object) {
    PackageInfo info;
    info.version = text(object, "version");
    info.hash = text(object, "blake2b");
    info.keyId = text(object, "key_id");
    info.trustedComment = text(object, "trusted_comment");
    info.installedAt = number(object, "installed_at");
    auto const modules = object.find("module_versions");
    if (modules != object.end() && modules->is_object()) {
        for (auto const& [name, version] : modules->items()) {
            if (version.is_string()) info.moduleVersions[name] = version.get<std::string>();
        }
    }
    return info;
}

PackageEvent eventFrom(json const& object) {
    return PackageEvent{number(object, "time"), text(object, "event"), text(object, "version"),
                        text(object, "blake2b"), text(object, "detail")};
}

// Writes all of `text` to the new file `path` and syncs it.
void writeSynced(std::string const& path, std::string const& content) {
    int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw IOException(errno, "cannot write " + path);
    std::size_t done = 0;
    while (done < content.size()) {
        ssize_t const n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            int const err = errno;
            ::close(fd);
            throw IOException(err, "cannot write " + path);
        }
        done += static_cast<std::size_t>(n);
    }
    if (::fsync(fd) != 0) {
        int const err = errno;
        ::close(fd);
        throw IOException(err, "cannot sync " + path);
    }
    ::close(fd);
}

void syncFolderOf(std::string const& path) {
    std::size_t const slash = path.rfind('/');
    std::string const folder = slash == std::string::npos ? "." : path.substr(0, slash);
    int const fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

json toJson(PackageInfo const& info) {
    return json{{"version", info.version},
                {"blake2b", info.hash},
                {"key_id", info.keyId},
                {"trusted_comment", info.trustedComment},
                {"module_versions", info.moduleVersions},
                {"installed_at", info.installedAt}};
}

json toJson(PackageEvent const& event) {
    return json{{"time", event.time},
                {"event", event.event},
                {"version", event.version},
                {"blake2b", event.hash},
                {"detail", event.detail}};
}

PackageRecord PackageRecord::load(std::string const& path, std::string& problem) {
    std::ifstream in(path);
    if (!in) return {};
    std::ostringstream all;
    all << in.rdbuf();
    json const parsed = json::parse(all.str(), nullptr, false);
    if (!parsed.is_object()) {
        problem = path + " is not a record of packages; starting a new one";
        return {};
    }
    return fromJson(parsed);
}

PackageRecord PackageRecord::fromJson(json const& object) {
    PackageRecord record;
    if (object.contains("installed") && object["installed"].is_object())
        record.installed = infoFrom(object["installed"]);
    if (object.contains("last_good") && object["last_good"].is_object())
        record.lastGood = infoFrom(object["last_good"]);
    if (object.contains("probation_until")) record.probationUntil = number(object, "probation_until");
    if (object.contains("versions") && object["versions"].is_object()) {
        for (auto const& [name, version] : object["versions"].items()) {
            if (version.is_string()) record.versions[name] = version.get<std::string>();
        }
    }
    if (object.contains("rolled_back") && object["rolled_back"].is_array()) {
        for (json const& sha : object["rolled_back"]) {
            if (sha.is_string()) record.rolledBack.insert(sha.get<std::string>());
        }
    }
    if (object.contains("history") && object["history"].is_array()) {
        for (json const& event : object["history"]) {
            if (event.is_object()) record.note(eventFrom(event));
        }
    }
    return record;
}

json PackageRecord::toJson() const {
    json object{{"versions", versions}, {"rolled_back", rolledBack}, {"history", json::array()}};
    if (installed) object["installed"] = nxahost::toJson(*installed);
    if (lastGood) object["last_good"] = nxahost::toJson(*lastGood);
    if (probationUntil) object["probation_until"] = *probationUntil;
    for (PackageEvent const& event : history) object["history"].push_back(nxahost::toJson(event));
    return object;
}

void PackageRecord::save(std::string const& path) const {
    std::string const part = path + ".part";
    writeSynced(part, toJson().dump(2, ' ', false, json::error_handler_t::replace) + "\n");
    if (::rename(part.c_str(), path.c_str()) != 0) throw IOException(errno, "cannot rename " + part);
    syncFolderOf(path);
}

void PackageRecord::note(PackageEvent event) {
    history.push_back(std::move(event));
    while (history.size() > kHistory) history.pop_front();
}

}  // namespace nxahost
