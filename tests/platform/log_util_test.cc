// printError, the trace lock, makeString and hexdump.
#include "vlplatform/log_util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "capture.h"

namespace {

std::string dump(std::string const& bytes, char const* label, unsigned width, int prefixKind, bool ascii) {
    std::ostringstream os;
    auto const* p = reinterpret_cast<unsigned char const*>(bytes.data());
    hexdump(os, p, p + bytes.size(), label, width, prefixKind, ascii);
    return os.str();
}

}  // namespace

TEST(PrintError, WritesSystemTextAndOneLineFeedToStandardError) {
    nxatest::Capture err(2);
    LogUtil::printError(ENOENT);
    EXPECT_EQ(err.textUnflushed(), "No such file or directory\n");
}

TEST(PrintError, CompletesLineBegunOnStandardError) {
    nxatest::Capture out(1);
    nxatest::Capture err(2);
    std::cerr << "[ERROR] NXAModule::check() cannot parse /x/Manifest: basic_ios::clear: ";
    LogUtil::printError(EACCES);
    EXPECT_EQ(err.text(),
              "[ERROR] NXAModule::check() cannot parse /x/Manifest: basic_ios::clear: "
              "Permission denied\n");
    EXPECT_EQ(out.text(), "");
}

TEST(PrintError, DoesNotTakeTheTraceLock) {
    nxatest::Capture err(2);
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    LogUtil::printError(EPIPE);
    EXPECT_EQ(err.text(), "Broken pipe\n");
}

TEST(LogMutex, IsOneLockForTheWholeProcess) {
    std::unique_lock<std::mutex> lock(LogUtil::logMutex);
    bool lockedElsewhere = true;
    std::thread other([&] { lockedElsewhere = LogUtil::logMutex.try_lock(); });
    other.join();
    EXPECT_FALSE(lockedElsewhere);
    lock.unlock();
    std::thread again([&] {
        lockedElsewhere = LogUtil::logMutex.try_lock();
        if (lockedElsewhere) LogUtil::logMutex.unlock();
    });
    again.join();
    EXPECT_TRUE(lockedElsewhere);
}

TEST(MakeString, GivesWhatOperatorShiftPrints) {
    EXPECT_EQ(makeString(7), "7");
    EXPECT_EQ(makeString(-42L), "-42");
    EXPECT_EQ(makeString(std::string("abc")), "abc");
    EXPECT_EQ(makeString("text"), "text");
}

TEST(Hexdump, FullLinesWithoutOffsetOrAscii) {
    EXPECT_EQ(dump("ABCDEFGH", "master", 4, 0, false),
              "master: 41 42 43 44\n"
              "master: 45 46 47 48\n");
}

TEST(Hexdump, OffsetPrefixCountsFromFirstByte) {
    std::string bytes(20, '\x01');
    EXPECT_EQ(dump(bytes, "x", 16, 1, false),
              "x: 00000000: 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01\n"
              "x: 00000010: 01 01 01 01\n");
}

TEST(Hexdump, AsciiColumnShowsPrintablesAndDots) {
    EXPECT_EQ(dump(std::string("Hi\0\xff~ \x7f", 7), "m", 7, 0, true), "m: 48 69 00 ff 7e 20 7f  Hi..~ .\n");
}

TEST(Hexdump, ShortLastLineIsPaddedSoAsciiLinesUp) {
    EXPECT_EQ(dump("AB\n", "master", 4, 1, true), "master: 00000000: 41 42 0a     AB.\n");
    EXPECT_EQ(dump("abcdef", "l", 4, 0, true),
              "l: 61 62 63 64  abcd\n"
              "l: 65 66        ef\n");
}

TEST(Hexdump, ShortLastLineWithoutAsciiIsNotPadded) {
    EXPECT_EQ(dump("abcde", "l", 4, 0, false),
              "l: 61 62 63 64\n"
              "l: 65\n");
}

TEST(Hexdump, EmptyRangeWritesNothing) {
    EXPECT_EQ(dump("", "master", 16, 1, true), "");
}

TEST(Hexdump, WidthZeroMeansSixteen) {
    std::string bytes(17, 'z');
    EXPECT_EQ(dump(bytes, "w", 0, 0, false),
              "w: 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a 7a\n"
              "w: 7a\n");
}

TEST(Hexdump, LowerCaseHexDigits) {
    EXPECT_EQ(dump("\xab\xcd\xef", "h", 16, 0, false), "h: ab cd ef\n");
}
