// IniParser: what it reads back, what it skips and trims, and how it fails.
#include "vlplatform/ini_parser.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ios>
#include <random>
#include <string>
#include <system_error>

#include "files_support.h"
#include "shell.h"
#include "vlplatform/exceptions.h"

namespace {

using Values = std::unordered_map<std::string, std::string>;

class IniParserTest : public ::testing::Test {
protected:
    // Writes `content` to a file of the test directory and parses it.
    Values parse(std::string const& content) {
        nxatest::writeFile(path(), content);
        return IniParser(path(), 0).values();
    }

    // The text of the VLException that parsing `content` throws.
    std::string failureOf(std::string const& content) {
        nxatest::writeFile(path(), content);
        try {
            IniParser parser(path(), 0);
        } catch (VLException const& e) {
            return e.what();
        }
        ADD_FAILURE() << "no VLException";
        return {};
    }

    std::string path() const { return dir_ / "Manifest"; }

    filestest::TempDir dir_;
};

TEST_F(IniParserTest, ReadsBackTheDevelopmentManifest) {
    Values values = parse(
        "# Development package created by vllib 11.1.0.4\n"
        "name\t\t=\tnxadevel\n"
        "version\t\t=\t1.0\n"
        "minFWVersion\t=\t0.0\n"
        "architecture\t=\tnoarch\n");
    EXPECT_EQ(
        values,
        (Values{
            {"name", "nxadevel"}, {"version", "1.0"}, {"minFWVersion", "0.0"}, {"architecture", "noarch"}}));
}

TEST_F(IniParserTest, SkipsCommentsAndBlankLines) {
    Values values = parse("# a comment = not an entry\n\n   \n\t\n  \t# indented comment\nkey = value\n\n");
    EXPECT_EQ(values, (Values{{"key", "value"}}));
}

TEST_F(IniParserTest, TrimsBlanksAndTabsAroundKeyAndValueOnly) {
    Values values = parse(" \t my key \t=\t my value \t \n");
    EXPECT_EQ(values, (Values{{"my key", "my value"}}));
}

TEST_F(IniParserTest, AcceptsCrlfLineEnds) {
    Values values = parse("# comment\r\nname\t\t=\tnxadevel\r\n\r\narchitecture = i686\r\n");
    EXPECT_EQ(values, (Values{{"name", "nxadevel"}, {"architecture", "i686"}}));
}

TEST_F(IniParserTest, FirstEqualsSignSeparatesAndTheRestBelongsToTheValue) {
    Values values = parse("url = a=b = c=\n");
    EXPECT_EQ(values, (Values{{"url", "a=b = c="}}));
}

TEST_F(IniParserTest, LaterDuplicateKeyReplacesTheEarlierOne) {
    Values values = parse("name = first\nname = second\n");
    EXPECT_EQ(values, (Values{{"name", "second"}}));
}

TEST_F(IniParserTest, EmptyValueIsKept) {
    Values values = parse("name =\nother=\t \n");
    EXPECT_EQ(values, (Values{{"name", ""}, {"other", ""}}));
}

TEST_F(IniParserTest, LastLineWithoutLineFeedIsRead) {
    Values values = parse("a = 1\nb = 2");
    EXPECT_EQ(values, (Values{{"a", "1"}, {"b", "2"}}));
}

TEST_F(IniParserTest, EmptyFileHasNoEntries) {
    EXPECT_TRUE(parse("").empty());
}

TEST_F(IniParserTest, NulBytesInsideAValueAreKept) {
    Values values = parse(std::string("key = a\0b\n", 10));
    EXPECT_EQ(values.at("key"), std::string("a\0b", 3));
}

TEST_F(IniParserTest, MissingFileThrowsStreamFailureWithENOENT) {
    std::string const missing = dir_ / "no-such-file";
    errno = 0;
    try {
        IniParser parser(missing, 0);
        FAIL() << "no exception";
    } catch (std::ios_base::failure const& e) {
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(e.code().value(), ENOENT);
        EXPECT_STREQ(e.what(), ("cannot read " + missing + ": No such file or directory").c_str());
    }
}

TEST_F(IniParserTest, DirectoryThrowsStreamFailureWithEISDIR) {
    try {
        IniParser parser(dir_.path(), 0);
        FAIL() << "no exception";
    } catch (std::ios_base::failure const& e) {
        EXPECT_EQ(errno, EISDIR);
        EXPECT_EQ(e.code().value(), EISDIR);
    }
}

TEST_F(IniParserTest, FileLargerThanTheLimitThrowsStreamFailureWithEFBIG) {
    nxatest::writeFile(path(), "");
    ASSERT_EQ(truncate(path().c_str(), static_cast<off_t>(IniParser::kMaxSize + 1)), 0);
    try {
        IniParser parser(path(), 0);
        FAIL() << "no exception";
    } catch (std::ios_base::failure const& e) {
        EXPECT_EQ(errno, EFBIG);
        EXPECT_EQ(e.code().value(), EFBIG);
    }
}

TEST_F(IniParserTest, FileOfExactlyTheLimitIsRead) {
    std::string content = "key = ";
    content += std::string(IniParser::kMaxSize - content.size() - 1, 'v') + "\n";
    EXPECT_EQ(parse(content).at("key").size(), IniParser::kMaxSize - 7);
}

TEST_F(IniParserTest, FifoWithoutWriterReadsAsEmpty) {
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    EXPECT_TRUE(IniParser(path(), 0).values().empty());
}

TEST_F(IniParserTest, LineWithoutEqualsSignThrowsWithPathAndLineNumber) {
    EXPECT_EQ(failureOf("# comment\nname = x\nno separator here\nlater = y\n"), path() + ":3: missing '='");
}

TEST_F(IniParserTest, HashAfterTheFirstCharacterIsOrdinaryText) {
    Values values = parse("key # not a comment = value # neither\n");
    EXPECT_EQ(values, (Values{{"key # not a comment", "value # neither"}}));
}

TEST_F(IniParserTest, LineNumbersCountBlankAndCrlfLines) {
    EXPECT_EQ(failureOf("\r\n# c\r\n\r\n  no separator\r\n"), path() + ":4: missing '='");
}

TEST_F(IniParserTest, EmptyKeyThrowsWithPathAndLineNumber) {
    EXPECT_EQ(failureOf("name = x\n \t= value\n"), path() + ":2: empty key");
}

// Garbage is parsed like any text: the first line without '=' is reported.
TEST_F(IniParserTest, BinaryGarbageThrowsVLException) {
    std::mt19937 random(20240601);
    std::string garbage;
    for (int i = 0; i < 65536; ++i) garbage += static_cast<char>(random() & 0xff);
    std::string::size_type const firstLine = garbage.find('\n');
    ASSERT_EQ(garbage.substr(0, firstLine).find('='), std::string::npos)
        << "the seed gives a first line with '='";
    EXPECT_EQ(failureOf(garbage), path() + ":1: missing '='");
}

TEST_F(IniParserTest, TenMegabyteValueIsRead) {
    std::string const value(10 * 1024 * 1024, 'x');
    EXPECT_EQ(parse("key = " + value + "\n").at("key"), value);
}

TEST_F(IniParserTest, TenMegabyteLineWithoutEqualsSignThrowsVLException) {
    EXPECT_EQ(failureOf(std::string(10 * 1024 * 1024, 'x')), path() + ":1: missing '='");
}

TEST_F(IniParserTest, FileOfNulBytesThrowsVLException) {
    EXPECT_EQ(failureOf(std::string(1024 * 1024, '\0')), path() + ":1: missing '='");
}

}  // namespace
