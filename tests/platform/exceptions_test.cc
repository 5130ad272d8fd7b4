// IOException and VLException: texts, error numbers, copies.
#include "vlplatform/exceptions.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <string>

TEST(IOException, WhatIsTextColonAndSystemMessage) {
    std::string path = "/no/such/dir";
    IOException e(2, std::string("cannot opendir ") + path);
    EXPECT_STREQ(e.what(), "cannot opendir /no/such/dir: No such file or directory");
}

TEST(IOException, CarriesErrorNumberInSystemCategory) {
    IOException e(ENOENT, std::string("cannot opendir /x"));
    EXPECT_EQ(e.code().value(), 2);
    EXPECT_EQ(&e.code().category(), &std::system_category());
}

TEST(IOException, CharPointerConstructorGivesSameText) {
    IOException e(EBUSY, "NXA process(es) still running");
    EXPECT_STREQ(e.what(), "NXA process(es) still running: Device or resource busy");
    EXPECT_EQ(e.code().value(), EBUSY);
    EXPECT_EQ(&e.code().category(), &std::system_category());
}

TEST(IOException, IsCaughtAsSystemError) {
    try {
        throw IOException(EADDRINUSE, "cannot bind to 0.0.0.0:20100");
    } catch (std::system_error const& e) {
        EXPECT_STREQ(e.what(), "cannot bind to 0.0.0.0:20100: Address already in use");
        EXPECT_EQ(e.code(), std::error_code(EADDRINUSE, std::system_category()));
        return;
    }
    FAIL() << "not caught as std::system_error";
}

TEST(VLException, WhatIsTheText) {
    EXPECT_STREQ(VLException("make error").what(), "make error");
    EXPECT_STREQ(VLException(std::string("EOF on telnet:7")).what(), "EOF on telnet:7");
}

TEST(VLException, AppendsStreamedValues) {
    VLException e("line ");
    VLException& same = e << 3 << ": missing '" << '=' << "' " << -12 << ' ' << 2.5;
    EXPECT_EQ(&same, &e);
    EXPECT_STREQ(e.what(), "line 3: missing '=' -12 2.5");
}

TEST(VLException, ThrownWithAppendedTextKeepsIt) {
    try {
        throw VLException("line ") << 7 << std::string(": bad");
    } catch (std::exception const& e) {
        EXPECT_STREQ(e.what(), "line 7: bad");
        return;
    }
    FAIL() << "not caught as std::exception";
}

TEST(VLException, PrintsWholeTextOnStream) {
    VLException e("[ERROR] Connection to VLPBus server failed");
    std::ostringstream os;
    os << "<" << e << ">";
    EXPECT_EQ(os.str(), "<[ERROR] Connection to VLPBus server failed>");
}

TEST(VLException, CopiesAreIndependent) {
    VLException a("first");
    VLException b(a);
    b << " more";
    EXPECT_STREQ(a.what(), "first");
    EXPECT_STREQ(b.what(), "first more");
    VLException c("other");
    c = b;
    a << "!";
    EXPECT_STREQ(c.what(), "first more");
    EXPECT_STREQ(a.what(), "first!");
}
