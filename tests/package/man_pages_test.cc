// The man pages in share/man: each renders with man and groff without a
// warning, has the sections a reader looks for and a NAME line the manual's
// index understands, and documents exactly the options its tool's --help
// prints, each as an entry of OPTIONS. An install puts them, plain, into
// share/man/man1 and man8; nxactl's only once the tool is built.
#include <gtest/gtest.h>

#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "installed_tree.h"
#include "sandbox.h"
#include "shell.h"

namespace pkgtest {
namespace {

struct Page {
    std::string tool;
    std::string section;
    std::string binary;  // the built tool
};

// Names the page in test output.
void PrintTo(Page const& page, std::ostream* os) {
    *os << page.tool << "." << page.section;
}

std::vector<Page> const kPages = {
    {"nxahost", "8", NXA_HOST_PATH},
    {"nxapack", "1", NXA_PACK_PATH},
    {"nxabuild", "1", NXA_BUILD_PATH},
    // Comes from another branch; until then its page has no tool to match.
    {"nxactl", "1", nxatest::binaryDir() + "/tools/nxactl/nxactl"},
};

std::string pagePath(Page const& page) {
    return nxatest::sourceDir() + "/share/man/" + page.tool + "." + page.section;
}

// The page as man shows it on an 80-column ASCII terminal, without overstrikes.
std::string rendered(Page const& page) {
    return nxatest::shell("MANWIDTH=80 LC_ALL=C man -l '" + pagePath(page) + "' 2>/dev/null | col -bx")
        .output;
}

std::vector<std::string> linesOf(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The lines of the section `name` (its heading excluded), up to the next heading.
std::vector<std::string> sectionOf(std::string const& text, std::string const& name) {
    std::vector<std::string> section;
    bool inside = false;
    for (std::string const& line : linesOf(text)) {
        bool const heading = !line.empty() && line[0] != ' ';
        if (heading) {
            inside = line == name;
        } else if (inside) {
            section.push_back(line);
        }
    }
    return section;
}

bool isOptionChar(char c) {
    return (c >= 'a' && c <= 'z') || c == '-';
}

// The "--word" starting at `at` in `text` (letters and dashes, ending in a
// letter), or an empty text when there is none.
std::string optionAt(std::string const& text, std::size_t at) {
    if (text.compare(at, 2, "--") != 0 || at + 2 >= text.size() || text[at + 2] < 'a' || text[at + 2] > 'z')
        return {};
    std::size_t end = at + 2;
    while (end < text.size() && isOptionChar(text[end])) ++end;
    while (end > at + 2 && text[end - 1] == '-') --end;
    return text.substr(at, end - at);
}

// The options an entry of OPTIONS starts with: "--work-dir DIR" gives
// --work-dir, "-h, --help" gives --help. Entries are indented by seven blanks.
std::set<std::string> documentedOptions(std::vector<std::string> const& section) {
    std::set<std::string> options;
    for (std::string const& line : section) {
        if (line.compare(0, 7, "       ") != 0 || line.size() < 9 || line[7] != '-') continue;
        std::size_t at = 7;
        if (line[8] != '-' && line.compare(9, 2, ", ") == 0) at = 11;  // "-h, --help"
        std::string const option = optionAt(line, at);
        std::size_t const after = at + option.size();
        if (!option.empty() && (after == line.size() || line[after] == ' ' || line[after] == ','))
            options.insert(option);
    }
    return options;
}

// Every "--word" of the tool's help text, and --help, which printed it.
std::set<std::string> helpOptions(std::string const& help) {
    std::set<std::string> options{"--help"};
    for (std::size_t at = help.find("--"); at != std::string::npos; at = help.find("--", at + 2)) {
        std::string const option = optionAt(help, at);
        if (!option.empty()) options.insert(option);
    }
    return options;
}

std::string joined(std::set<std::string> const& words) {
    std::string text;
    for (std::string const& w : words) text += w + " ";
    return text;
}

class ManPage : public testing::TestWithParam<Page> {};

TEST_P(ManPage, RendersWithoutWarnings) {
    Page const& page = GetParam();
    ASSERT_TRUE(exists(pagePath(page))) << pagePath(page);
    for (char const* locale : {"C", "C.UTF-8"}) {
        nxatest::ShellResult const r =
            nxatest::shell("MANWIDTH=80 LC_ALL=" + std::string(locale) + " man --warnings=w -l '" +
                           pagePath(page) + "' 2>&1 >/dev/null");
        EXPECT_EQ(r.status, 0) << locale;
        EXPECT_EQ(r.output, "") << locale;
    }
    nxatest::ShellResult const groff = nxatest::shell("groff -ww -z -man '" + pagePath(page) + "'");
    EXPECT_EQ(groff.status, 0);
    EXPECT_EQ(groff.output, "");
}

TEST_P(ManPage, HasTheUsualSectionsAndAnIndexableName) {
    Page const& page = GetParam();
    std::string const text = rendered(page);
    for (char const* name : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "SEE ALSO"}) {
        EXPECT_FALSE(sectionOf(text, name).empty()) << name << " missing in:\n" << text;
    }
    nxatest::ShellResult const index = nxatest::shell("lexgrog '" + pagePath(page) + "'");
    EXPECT_EQ(index.status, 0) << index.output;
    EXPECT_NE(index.output.find(": \"" + page.tool + " - "), std::string::npos) << index.output;
}

TEST_P(ManPage, DocumentsExactlyTheOptionsOfTheToolsHelp) {
    Page const& page = GetParam();
    if (!exists(page.binary)) GTEST_SKIP() << page.binary << " is not built yet";
    nxatest::ShellResult const help = nxatest::shell("'" + page.binary + "' --help 2>/dev/null");
    ASSERT_EQ(help.status, 0) << help.output;
    ASSERT_FALSE(help.output.empty());
    std::set<std::string> const documented = documentedOptions(sectionOf(rendered(page), "OPTIONS"));
    EXPECT_EQ(joined(documented), joined(helpOptions(help.output))) << "help:\n" << help.output;
}

INSTANTIATE_TEST_SUITE_P(Tools, ManPage, testing::ValuesIn(kPages),
                         [](testing::TestParamInfo<Page> const& info) { return info.param.tool; });

TEST(ManPagesInstalled, PlainInTheirSectionsAndNxactlsOnlyWithTheTool) {
    NXA_REQUIRE_SANDBOX();
    std::string const prefix = freshDir("man-prefix");
    ASSERT_NO_FATAL_FAILURE(installInto(prefix));
    for (Page const& page : kPages) {
        std::string const installed =
            prefix + "/share/man/man" + page.section + "/" + page.tool + "." + page.section;
        if (page.tool == "nxactl" && !NXA_HAVE_NXACTL) {
            EXPECT_FALSE(exists(installed)) << installed;
            continue;
        }
        ASSERT_TRUE(exists(installed)) << installed;
        EXPECT_EQ(nxatest::readFile(installed), nxatest::readFile(pagePath(page))) << installed;
    }
}

}  // namespace
}  // namespace pkgtest
