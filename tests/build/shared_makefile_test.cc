// The shared module Makefile as installed into /opt/velmora, run by
// NXAClient::make with the fixed build variables (and by hand), with the
// real compilers.
#include <gtest/gtest.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>

#include "build_support.h"
#include "sandbox.h"
#include "shell.h"

using namespace buildtest;

namespace {

std::string const kDir = "/var/opt/velmora/scratch/module";
std::string const kBin = "/var/opt/velmora/scratch/module/prog";

class SharedMakefile : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        resetSandbox();
        startDir = currentDir();
        installPlatform();
        ASSERT_EQ(nxatest::shell("rm -rf " + kDir + " && mkdir -p " + kDir).status, 0);
        ASSERT_EQ(chdir(kDir.c_str()), 0);
    }
    void TearDown() override { ASSERT_EQ(chdir(startDir.c_str()), 0); }

    // Writes the sources into kDir and runs make as a build does; returns what
    // it threw ("nothing" on success). make's output is in `log`.
    std::string make(Files const& sources, std::vector<std::string> const& args = {"BIN=" + kBin}) {
        for (auto const& [name, content] : sources) nxatest::writeFile(kDir + "/" + name, content);
        auto client = makeClient();
        return thrown([&] { client->make(log, args); });
    }

    // Environment settings for running a program that uses the installed
    // platform library: none, unless the library was built with the sanitizers
    // (NXA_SANITIZE), whose runtime must then be loaded before anything else.
    static std::string platformRunEnvironment() {
        nxatest::ShellResult r = nxatest::shell(
            "readelf -d /opt/velmora/lib/x86_64-linux-gnu/libvlplatform.so.0 | grep -o 'libasan[^]]*'");
        if (r.status != 0) return "";
        return "LD_PRELOAD=$(gcc -print-file-name=" + r.output.substr(0, r.output.find('\n')) + ") ";
    }

    // The dynamic section's NEEDED and RUNPATH entries of the program.
    static std::string dynamicEntries() {
        return nxatest::shell("readelf -d " + kBin + " | grep -E 'NEEDED|RUNPATH'").output;
    }

    std::string log;
    std::string startDir;
};

Files const kCAndCxx = {
    {"part.c", "int part(void);\nint part(void) { return 42; }\n"},
    {"main.cc",
     "#include <cstdio>\n\nextern \"C\" int part(void);\n\n"
     "int main() {\n    std::printf(\"part %d\\n\", part());\n    return 0;\n}\n"},
};

// A module that uses the platform library's bus messages.
Files const kPlatformUser = {
    {"main.cc",
     "#include <iostream>\n\n#include <vlplatform/messages.h>\n\n"
     "int main() {\n    SystemMessage message;\n    message.setKind(34);\n"
     "    message.setText(\"via the platform\");\n"
     "    std::cout << message.text() << ' ' << static_cast<int>(message.kind()) << std::endl;\n"
     "    return 0;\n}\n"},
};

}  // namespace

TEST_F(SharedMakefile, TheProjectInstallsItWhereTheBuildLooksForIt) {
    installProject();
    EXPECT_EQ(nxatest::readFile(kMakefile), nxatest::readFile(nxatest::sourceDir() + "/share/nxa/Makefile"));
    EXPECT_TRUE(exists("/opt/velmora/lib/x86_64-linux-gnu/libvlplatform.so.0"));
    EXPECT_TRUE(exists("/opt/velmora/lib/x86_64-linux-gnu/libnxaclient.so.0"));
    EXPECT_TRUE(exists("/opt/velmora/include/nxaclient.h"));
    EXPECT_TRUE(exists("/opt/velmora/include/vlplatform/messages.h"));
    // The installed build tool finds the installed libraries by itself.
    nxatest::ShellResult r = nxatest::shell("env -u LD_LIBRARY_PATH /opt/velmora/bin/nxabuild --help");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(nxatest::shell("ldd /opt/velmora/bin/nxabuild | grep -E -o '(libnxaclient|libvlplatform)"
                             "[^ ]* => /opt/velmora/bin/../lib/x86_64-linux-gnu/' | sort")
                  .output,
              "libnxaclient.so.0 => /opt/velmora/bin/../lib/x86_64-linux-gnu/\n"
              "libvlplatform.so.0 => /opt/velmora/bin/../lib/x86_64-linux-gnu/\n");
}

TEST_F(SharedMakefile, BuildsCAndCxxSourcesIntoTheProgramNamedByBin) {
    ASSERT_EQ(make(kCAndCxx), "nothing") << log;
    EXPECT_EQ(nxatest::shell(kBin).output, "part 42\n");
    EXPECT_TRUE(exists(kDir + "/part.c.o"));
    EXPECT_TRUE(exists(kDir + "/main.cc.o"));
    EXPECT_NE(log.find("\ng++ -Wl,-z,relro -L/opt/velmora/lib/x86_64-linux-gnu -o " + kBin +
                       " part.c.o main.cc.o -L/opt/velmora/lib/x86_64-linux-gnu "
                       "-Wl,-rpath,/opt/velmora/lib/x86_64-linux-gnu -Wl,--as-needed -lvlplatform\n"),
              std::string::npos)
        << log;
}

TEST_F(SharedMakefile, CompilesWithThePreprocessorAndLanguageFlags) {
    ASSERT_EQ(make(kCAndCxx), "nothing") << log;
    EXPECT_NE(log.find("\ncc -Wdate-time -D_FORTIFY_SOURCE=2 "), std::string::npos) << log;
    EXPECT_NE(log.find("-D_GLIBCXX_USE_NANOSLEEP -g -O2 -fdebug-prefix-map=/build/vllib=. "
                       "-fstack-protector-strong -Wformat -Werror=format-security -pipe -O3 "
                       "-Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror -Wformat-security -Wignored-qualifiers "
                       "-Wlogical-op -Wmissing-include-dirs -Wpointer-arith -Wundef -Wuninitialized "
                       "-MMD -MP -c -o part.c.o part.c\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("\ng++ -Wdate-time -D_FORTIFY_SOURCE=2 "), std::string::npos) << log;
    EXPECT_NE(log.find(" -fno-implement-inlines -O3 "), std::string::npos) << log;
    EXPECT_NE(log.find(" -Wno-format-overflow -MMD -MP -c -o main.cc.o main.cc\n"), std::string::npos) << log;
}

TEST_F(SharedMakefile, LeavesOutOnlyTheOptionsTheCompilerRejects) {
    ASSERT_EQ(make(kCAndCxx), "nothing") << log;
    // gcc 12 no longer supports -Wchkp; it is the only option the C++ set loses.
    EXPECT_EQ(linesStartingWith(log, "nxa: "),
              std::vector<std::string>{"nxa: g++ does not know these options, left out for C++: -Wchkp"});
    EXPECT_EQ(log.find(" -Wchkp "), std::string::npos) << log;
    EXPECT_EQ(log.find("no longer supported"), std::string::npos) << log;
    for (char const* kept :
         {" -Werror ", " -Wpedantic ", " -Wuseless-cast ", " -Wzero-as-null-pointer-constant ",
          " -Wformat-security ", " -Werror=format-security ", " -Wnoexcept-type "}) {
        EXPECT_NE(log.find(kept), std::string::npos) << kept;
    }
}

TEST_F(SharedMakefile, AnOptionTheCompilerFailsOnIsLeftOutToo) {
    nxatest::writeFile(kDir + "/main.c", "int main(void) { return 0; }\n");
    nxatest::ShellResult r =
        nxatest::shell("make -f /opt/velmora/share/nxa/Makefile BIN=" + kBin +
                       " NXACFLAGS='-Wall -Wno-such-thing-nxa -Wsuch-thing-nxa -Werror'");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(
        linesStartingWith(r.output, "nxa: "),
        std::vector<std::string>{"nxa: cc does not know these options, left out for C: -Wsuch-thing-nxa"});
    EXPECT_NE(r.output.find(" -Wall -Wno-such-thing-nxa -Werror -MMD -MP -c -o main.c.o main.c\n"),
              std::string::npos)
        << r.output;
}

TEST_F(SharedMakefile, CSourcesAloneAreLinkedWithTheCCompilerAndNeedNoPlatformLibrary) {
    ASSERT_EQ(make({{"main.c", "#include <stdio.h>\nint main(void) { puts(\"plain C\"); return 0; }\n"}}),
              "nothing")
        << log;
    EXPECT_TRUE(linesStartingWith(log, "nxa: ").empty()) << log;
    EXPECT_NE(log.find("\ncc -Wl,-z,relro"), std::string::npos) << log;
    EXPECT_EQ(nxatest::shell(kBin).output, "plain C\n");
    std::string const dynamic = dynamicEntries();
    EXPECT_EQ(dynamic.find("libvlplatform"), std::string::npos) << dynamic;
    EXPECT_EQ(dynamic.find("libstdc++"), std::string::npos) << dynamic;
}

TEST_F(SharedMakefile, AModuleUsingThePlatformFindsItsLibraryWhenItRuns) {
    ASSERT_EQ(make(kPlatformUser), "nothing") << log;
    std::string const dynamic = dynamicEntries();
    EXPECT_NE(dynamic.find("[libvlplatform.so.0]"), std::string::npos) << dynamic;
    EXPECT_NE(dynamic.find("[/opt/velmora/lib/x86_64-linux-gnu]"), std::string::npos) << dynamic;
    // No library path from the environment: the run path alone finds it.
    nxatest::ShellResult r = nxatest::shell(platformRunEnvironment() + "env -u LD_LIBRARY_PATH " + kBin);
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output, "via the platform 34\n");
}

TEST_F(SharedMakefile, AnUnusedVariableFailsACSource) {
    EXPECT_EQ(make({{"main.c", "int main(void) {\n    int unused;\n    return 0;\n}\n"}}),
              "VLException: make error");
    EXPECT_NE(log.find("main.c:2:9: error: unused variable"), std::string::npos) << log;
    EXPECT_NE(log.find("[-Werror=unused-variable]"), std::string::npos) << log;
    EXPECT_FALSE(exists(kBin));
}

TEST_F(SharedMakefile, AnUnusedVariableFailsACxxSource) {
    EXPECT_EQ(make({{"main.cc", "int main() {\n    int unused;\n    return 0;\n}\n"}}),
              "VLException: make error");
    EXPECT_NE(log.find("[-Werror=unused-variable]"), std::string::npos) << log;
}

TEST_F(SharedMakefile, CxxOnlyWarningOptionsAreErrorsToo) {
    EXPECT_EQ(make({{"main.cc", "int main() {\n    int* p = 0;\n    return p == nullptr ? 0 : 1;\n}\n"}}),
              "VLException: make error");
    EXPECT_NE(log.find("[-Werror=zero-as-null-pointer-constant]"), std::string::npos) << log;
}

TEST_F(SharedMakefile, WithoutSourcesItFailsSayingSo) {
    EXPECT_EQ(make({{"notes.txt", "no sources\n"}}), "VLException: make error");
    EXPECT_NE(log.find("no module sources (*.c, *.cc) in /var/opt/velmora/scratch/module.  Stop."),
              std::string::npos)
        << log;
}

TEST_F(SharedMakefile, WithoutBinItFailsSayingSo) {
    EXPECT_EQ(make(kCAndCxx, {}), "VLException: make error");
    EXPECT_NE(log.find("BIN is not set"), std::string::npos) << log;
}

TEST_F(SharedMakefile, CleanRemovesObjectsDependencyFilesAndTheProgram) {
    ASSERT_EQ(make(kCAndCxx), "nothing") << log;
    EXPECT_TRUE(exists(kDir + "/main.cc.d"));
    nxatest::ShellResult r = nxatest::shell("make -f /opt/velmora/share/nxa/Makefile BIN=" + kBin + " clean");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(nxatest::shell("ls -A " + kDir + " | sort").output, "main.cc\npart.c\n");
}

TEST_F(SharedMakefile, RebuildsAfterAHeaderChanges) {
    Files sources = {{"value.h", "#define VALUE 1\n"},
                     {"main.c",
                      "#include <stdio.h>\n#include \"value.h\"\nint main(void) { printf(\"%d\\n\", VALUE); "
                      "return 0; }\n"}};
    ASSERT_EQ(make(sources), "nothing") << log;
    EXPECT_EQ(nxatest::shell(kBin).output, "1\n");
    // Products older than the header about to change, whatever the clock's resolution.
    ASSERT_EQ(nxatest::shell("touch -d @1000000000 main.c.o " + kBin).status, 0);
    ASSERT_EQ(make({{"value.h", "#define VALUE 2\n"}}), "nothing") << log;
    EXPECT_EQ(nxatest::shell(kBin).output, "2\n");
}
