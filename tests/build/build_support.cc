#include "build_support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/system.h>

#include <cerrno>
#include <climits>
#include <sstream>

#include "sandbox.h"
#include "shell.h"

namespace buildtest {

namespace {

// The eight build variables exactly as the make command carries them.
constexpr char kAssignments[] =
    "NXAVLLIBDIR=\"/opt/velmora\" NXALIBSUBDIR=\"lib/x86_64-linux-gnu\" "
    "NXADATADIR=\"/opt/velmora/share/nxa\" "
    "NXACPPFLAGS=\"-Wdate-time -D_FORTIFY_SOURCE=2 -D_ATFILE_SOURCE -DBOOST_NO_SCOPED_ENUMS "
    "-DBOOST_NO_CXX11_SCOPED_ENUMS -DHAVE_CONFIG_H -I/opt/velmora/include -D__STDC_LIMIT_MACROS "
    "-D__STDC_CONSTANT_MACROS -D__STDC_FORMAT_MACROS -D_POSIX_THREADS -D_POSIX_THREAD_SAFE_FUNCTIONS "
    "-D_REENTRANT -D_GLIBCXX_USE_NANOSLEEP\" "
    "NXACFLAGS=\"-g -O2 -fdebug-prefix-map=/build/vllib=. -fstack-protector-strong -Wformat "
    "-Werror=format-security -pipe  -O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror -Wformat-security "
    "-Wignored-qualifiers -Wlogical-op -Wmissing-include-dirs -Wpointer-arith -Wundef "
    "-Wuninitialized\" "
    "NXACXXFLAGS=\"-g -O2 -fdebug-prefix-map=/build/vllib=. -fstack-protector-strong -Wformat "
    "-Werror=format-security -pipe -fno-implement-inlines  -O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall "
    "-Werror -Wformat-security -Wignored-qualifiers -Wlogical-op -Wmissing-include-dirs "
    "-Wpointer-arith -Wundef -Wuninitialized -Wno-vla -Wchkp -Wclobbered "
    "-Wconditionally-supported -Wconversion-null -Wctor-dtor-privacy -Wdate-time "
    "-Wdisabled-optimization -Wdouble-promotion -Wduplicated-cond -Wempty-body "
    "-Wfloat-conversion -Wformat-signedness -Winvalid-pch -Wmissing-field-initializers "
    "-Wmissing-field-initializers -Wnoexcept -Wnon-virtual-dtor -Woverlength-strings -Wpedantic "
    "-Wplacement-new=2 -Wshift-negative-value -Wshift-overflow=2 -Wsized-deallocation "
    "-Wsizeof-array-argument -Wstrict-null-sentinel -Wsync-nand -Wtype-limits -Wuninitialized "
    "-Wunused -Wunused-parameter -Wuseless-cast -Wwrite-strings -Wzero-as-null-pointer-constant "
    "-Wcast-align -Wchkp -Wclobbered -Wconditionally-supported -Wconversion-null "
    "-Wctor-dtor-privacy -Wdangling-else -Wdate-time -Wdisabled-optimization -Wempty-body "
    "-Wexpansion-to-defined -Winvalid-pch -Wnoexcept -Wnoexcept-type -Wnon-virtual-dtor "
    "-Woverlength-strings -Wpointer-compare -Wrestrict -Wsizeof-array-argument "
    "-Wstrict-null-sentinel -Wstringop-overflow=4 -Wswitch-unreachable -Wsync-nand -Wunused "
    "-Wwrite-strings -Wno-format-overflow\" "
    "NXALDFLAGS=\"-Wl,-z,relro -L/opt/velmora/lib/x86_64-linux-gnu\" "
    "NXAMAKEFILE=\"/opt/velmora/share/nxa/Makefile\"";

}  // namespace

std::unique_ptr<NXAClient> makeClient(unsigned debug) {
    return std::make_unique<NXAClient>("/var/opt/velmora", "/var/opt/velmora/nxa", kWork, 0, 20100, 16, "",
                                       debug);
}

void resetSandbox() {
    nxatest::ShellResult r = nxatest::shell(
        "for m in $(awk '$1 == \"nxa-busy\" { print $2 }' /proc/mounts); do umount \"$m\"; done; "
        "rm -rf /opt/velmora/* /var/opt/velmora/* /tmp/nxadevel.zip && mkdir -p " +
        std::string(kScratch));
    ASSERT_EQ(r.status, 0) << r.output;
}

void installPlatform() {
    for (char const* dir : {"platform", "src"}) {
        nxatest::ShellResult r = nxatest::shell("cmake -DCMAKE_INSTALL_PREFIX=/opt/velmora -P '" +
                                                nxatest::binaryDir() + "/" + dir + "/cmake_install.cmake'");
        ASSERT_EQ(r.status, 0) << r.output;
    }
    nxatest::ShellResult r = nxatest::shell("mkdir -p /opt/velmora/share/nxa && cp '" + nxatest::sourceDir() +
                                            "/share/nxa/Makefile' " + kMakefile);
    ASSERT_EQ(r.status, 0) << r.output;
    ASSERT_TRUE(exists("/opt/velmora/lib/x86_64-linux-gnu/libvlplatform.so"));
    ASSERT_TRUE(exists("/opt/velmora/include/vlplatform/messages.h"));
}

void installProject() {
    nxatest::ShellResult r =
        nxatest::shell("cmake --install '" + nxatest::binaryDir() + "' --prefix /opt/velmora");
    ASSERT_EQ(r.status, 0) << r.output;
}

void writeMakefile(std::string const& text) {
    ASSERT_EQ(nxatest::shell("mkdir -p /opt/velmora/share/nxa").status, 0);
    nxatest::writeFile(kMakefile, text);
}

void makeSourceArchive(std::string const& archive, Files const& files) {
    char dir[] = "/var/opt/velmora/scratch/sources-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string names;
    for (auto const& [name, content] : files) {
        nxatest::writeFile(std::string(dir) + "/" + name, content);
        names += " '" + name + "'";
    }
    nxatest::ShellResult r =
        nxatest::shell("cd " + std::string(dir) + " && zip -q '" + archive + "'" + names);
    ASSERT_EQ(r.status, 0) << r.output;
    nxatest::shell(std::string("rm -rf ") + dir);
}

std::vector<std::string> zipEntries(std::string const& archive) {
    nxatest::ShellResult r = nxatest::shell("unzip -Z1 '" + archive + "' | sort");
    std::vector<std::string> names;
    std::istringstream in(r.output);
    for (std::string line; std::getline(in, line);) names.push_back(line);
    return names;
}

std::string expectedMakeCommand(std::string const& argsText) {
    std::string cmd = "make -f /opt/velmora/share/nxa/Makefile";
    if (!argsText.empty()) cmd += " " + argsText;
    return cmd + " " + kAssignments + " 2>&1";
}

std::string jobsForThisMachine() {
    return getTotalRam() >= 536870912UL ? "-j 2" : "-j 1";
}

std::string currentDir() {
    char buf[PATH_MAX];
    return getcwd(buf, sizeof buf) ? buf : "";
}

std::vector<std::string> linesStartingWith(std::string const& text, std::string const& prefix) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0) lines.push_back(line);
    }
    return lines;
}

bool exists(std::string const& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::string linkTarget(std::string const& path) {
    char buf[PATH_MAX];
    ssize_t n = readlink(path.c_str(), buf, sizeof buf);
    return n < 0 ? "" : std::string(buf, static_cast<std::size_t>(n));
}

std::string thrown(std::function<void()> const& operation) {
    try {
        operation();
    } catch (IOException const& e) {
        return "IOException(" + std::to_string(e.code().value()) + "): " + e.what();
    } catch (VLException const& e) {
        return std::string("VLException: ") + e.what();
    } catch (std::exception const& e) {
        return std::string("std::exception: ") + e.what();
    }
    return "nothing";
}

namespace {

// In the child: runs the operation and writes "threw\ncode\nwhat\ncwd" to fd.
[[noreturn]] void reportFromChild(int fd, unsigned uid, std::function<void()> const& operation) {
    std::ostringstream report;
    if (setgid(uid) != 0 || setuid(uid) != 0) _exit(3);
    try {
        operation();
        report << "0\n0\n\n";
    } catch (IOException const& e) {
        report << "1\n" << e.code().value() << "\n" << e.what() << "\n";
    } catch (std::exception const& e) {
        report << "1\n-1\n" << e.what() << "\n";
    }
    report << currentDir();
    std::string const text = report.str();
    ssize_t ignored = write(fd, text.data(), text.size());
    (void)ignored;
    _exit(0);
}

}  // namespace

Outcome runAs(unsigned uid, std::function<void()> const& operation) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        reportFromChild(fds[1], uid, operation);
    }
    close(fds[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    Outcome outcome;
    std::istringstream in(text);
    std::string threw, code;
    std::getline(in, threw);
    std::getline(in, code);
    std::getline(in, outcome.what);
    std::getline(in, outcome.cwd);
    outcome.threw = threw == "1";
    outcome.code = code.empty() ? 0 : std::stoi(code);
    return outcome;
}

std::string namesOutsideWorkspace() {
    return nxatest::shell(
               "find /tmp /var/opt /var/opt/velmora -mindepth 1 -maxdepth 1 ! -path /var/opt/velmora/work | "
               "sort; "
               "find /opt/velmora | sort")
        .output;
}

}  // namespace buildtest
