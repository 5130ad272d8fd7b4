// The interposition seams are real exported functions of libvlplatform.so.0:
// defined in its text section (type T), not inline copies (weak, W) that a
// caller could have compiled into itself.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "shell.h"

namespace {

// The type letter nm gives `symbol` among the library's defined dynamic
// symbols; empty when it is not there.
std::string dynamicSymbolType(std::string const& symbol) {
    nxatest::ShellResult r = nxatest::shell(std::string("nm -D --defined-only '") + VLPLATFORM_FILE + "'");
    EXPECT_EQ(r.status, 0) << r.output;
    std::istringstream lines(r.output);
    std::string address, type, name;
    while (lines >> address >> type >> name) {
        if (name == symbol) return type;
    }
    return "";
}

}  // namespace

TEST(Exports, LibraryIsTheVersionedSharedObject) {
    std::string file = VLPLATFORM_FILE;
    nxatest::ShellResult r = nxatest::shell("objdump -p '" + file + "' | grep SONAME");
    EXPECT_NE(r.output.find("libvlplatform.so.0"), std::string::npos) << r.output;
}

TEST(Exports, GetTotalRamIsExportedFunction) {
    EXPECT_EQ(dynamicSymbolType("_Z11getTotalRamv"), "T");
}

TEST(Exports, GetCmdCallOutputIsExportedFunction) {
    EXPECT_EQ(
        dynamicSymbolType("_Z16getCmdCallOutputPKcRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"),
        "T");
}

TEST(Exports, ProcForkIsExportedFunction) {
    EXPECT_EQ(dynamicSymbolType("_ZN4Proc4forkEv"), "T");
}
