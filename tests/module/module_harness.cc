#include "module_harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/fs.h>

#include <cerrno>
#include <cstring>

#include "sandbox.h"
#include "shell.h"

namespace nxamodtest {

namespace {

std::string quoted(std::string const& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

std::string parentOf(std::string const& path) {
    return path.substr(0, path.rfind('/'));
}

// Ends the forked copy of the test process without running anything of the test.
[[noreturn]] void endChildCopy(char const* what) {
    int fd = ::open(kChildCopyReport, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        ssize_t ignored = ::write(fd, what, std::strlen(what));
        (void)ignored;
        ::close(fd);
    }
    ::_exit(kChildCopyFailed);
}

std::string exeOf(std::string const& pid) {
    char buf[4096];
    ssize_t n = ::readlink(("/proc/" + pid + "/exe").c_str(), buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace

std::string programPath(std::string const& name) {
    return "/var/opt/velmora/nxa/" + name + "/" + name;
}

void writeProgram(std::string const& name, std::string const& content, int mode) {
    std::string path = programPath(name);
    ASSERT_EQ(mkdirPath(parentOf(path), 0755), 0) << std::strerror(errno);
    nxatest::writeFile(path, content, mode);
}

void writeScript(std::string const& name, std::string const& body, int mode) {
    writeProgram(name, "#!/bin/sh\n" + body + "\n", mode);
}

void writeManifest(std::string const& dir, std::string const& name, std::string const& content) {
    std::string path = dir + "/" + name + "/Manifest";
    ASSERT_EQ(mkdirPath(parentOf(path), 0755), 0) << std::strerror(errno);
    nxatest::writeFile(path, content);
}

int pollOnce(NXAClient::Module& module, int timeoutMs) {
    FdSet rd, wr;
    module.addFds(rd, wr);
    int ready = waitFds(rd, wr, timeoutMs);
    if (ready < 0) return ready;
    module.handleInput(rd);
    module.handleOutput(wr);
    return ready;
}

bool pollUntil(NXAClient::Module& module, std::function<bool()> const& condition, milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        pollOnce(module);
    }
    return true;
}

bool pollForRunLog(NXAClient::Module& module, std::string& log, std::string const& text,
                   milliseconds timeout) {
    return pollUntil(
        module,
        [&] {
            module.getRunLog(log);
            return log.find(text) != std::string::npos;
        },
        timeout);
}

namespace {

void inTestProcessOnly(std::function<void()> const& step) {
    pid_t self = ::getpid();
    try {
        step();
    } catch (std::exception const& e) {
        if (::getpid() != self) endChildCopy(e.what());
        throw;
    } catch (...) {
        if (::getpid() != self) endChildCopy("(not a std::exception)");
        throw;
    }
}

}  // namespace

void runModule(NXAClient::Module& module) {
    inTestProcessOnly([&] { module.run(); });
}

void restartModule(NXAClient::Module& module) {
    inTestProcessOnly([&] { module.restart(); });
}

void startProgram(NXAClient::Module& module) {
    inTestProcessOnly([&] { module.startProgram(); });
}

ChildEnd waitChildEnd(pid_t pid, milliseconds timeout) {
    ChildEnd end;
    nxatest::waitUntil(
        [&] {
            siginfo_t info{};
            if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
                return false;
            if (info.si_pid != pid) return false;
            end = ChildEnd{true, info.si_code, info.si_status};
            return true;
        },
        timeout);
    return end;
}

int testProcessCount() {
    std::string self = exeOf("self");
    int count = 0;
    DIR* dir = ::opendir("/proc");
    if (dir == nullptr) return -1;
    while (dirent* e = ::readdir(dir)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
        if (exeOf(e->d_name) == self) ++count;
    }
    ::closedir(dir);
    return count;
}

void publishSystem(std::string const& to, std::string const& sender, int kind, std::string const& text) {
    std::string command = "mosquitto_pub -V mqttv5 -h 127.0.0.1 -p 20010 -t " + quoted("vlpbus/" + to) +
                          " -m " + quoted(text) + " -D publish user-property vlp-sender " + quoted(sender) +
                          " -D publish user-property vlp-type system" +
                          " -D publish user-property vlp-kind " + std::to_string(kind) +
                          " -D publish user-property vlp-id 128";
    nxatest::ShellResult r = nxatest::shell(command);
    ASSERT_EQ(r.status, 0) << command << ": " << r.output;
}

BusSubscriber::BusSubscriber(std::string const& name)
    : sub_("exec mosquitto_sub -V mqttv5 -h 127.0.0.1 -p 20010 -t " + quoted("vlpbus/" + name) +
           " -F '%P %p'") {
    // The subscription is in place once a probe sent to it comes back.
    bool ready = nxatest::waitUntil([&] {
        nxatest::shell("mosquitto_pub -V mqttv5 -h 127.0.0.1 -p 20010 -t " + quoted("vlpbus/" + name) +
                       " -m subscriber-probe");
        return nxatest::waitUntil([&] { return output().find("subscriber-probe") != std::string::npos; },
                                  milliseconds(200));
    });
    EXPECT_TRUE(ready) << "mosquitto_sub did not subscribe: " << output();
}

bool BusSubscriber::waitFor(std::string const& text, milliseconds timeout) const {
    return sub_.waitFor(text, timeout);
}

}  // namespace nxamodtest
