// The desired-package message: what is taken, and the reason for each thing
// refused.
#include <gtest/gtest.h>
#include <nxahost/desired_package.h>

#include <nlohmann/json.hpp>

namespace {

using nxahost::DesiredPackage;

constexpr std::uint64_t kBudget = 64 << 20;

nlohmann::json good() {
    return {{"deployment", "d-20261125.1"},
            {"version", "1.4.0"},
            {"package_url", "https://packages.example.net/nxa-1.4.0.zip"},
            {"signature_url", "http://packages.example.net/nxa-1.4.0.zip.minisig"},
            {"sha256", std::string(64, 'a')},
            {"size", 5242880},
            {"note", "other members are ignored"}};
}

// Why `message` is refused; empty when it is taken.
std::string whyRefused(nlohmann::json const& message) {
    std::string why;
    std::optional<DesiredPackage> const parsed = DesiredPackage::parse(message.dump(), kBudget, why);
    EXPECT_EQ(parsed.has_value(), why.empty());
    return why;
}

TEST(DesiredPackage, AWellFormedMessageIsTakenWhole) {
    std::string why;
    std::optional<DesiredPackage> const parsed = DesiredPackage::parse(good().dump(), kBudget, why);
    ASSERT_TRUE(parsed) << why;
    EXPECT_EQ(parsed->deployment, "d-20261125.1");
    EXPECT_EQ(parsed->version, "1.4.0");
    EXPECT_EQ(parsed->packageUrl, "https://packages.example.net/nxa-1.4.0.zip");
    EXPECT_EQ(parsed->signatureUrl, "http://packages.example.net/nxa-1.4.0.zip.minisig");
    EXPECT_EQ(parsed->sha256, std::string(64, 'a'));
    EXPECT_EQ(parsed->size, 5242880u);
    // What toJson writes, parse reads back.
    std::optional<DesiredPackage> const again = DesiredPackage::parse(parsed->toJson(), kBudget, why);
    ASSERT_TRUE(again) << why;
    EXPECT_EQ(again->toJson(), parsed->toJson());
}

TEST(DesiredPackage, EachMissingMemberIsNamed) {
    for (char const* key : {"deployment", "version", "package_url", "signature_url", "sha256"}) {
        nlohmann::json message = good();
        message.erase(key);
        EXPECT_EQ(whyRefused(message), std::string("\"") + key + "\" is missing or not a string");
        message[key] = 7;
        EXPECT_EQ(whyRefused(message), std::string("\"") + key + "\" is missing or not a string");
    }
    nlohmann::json message = good();
    message.erase("size");
    EXPECT_EQ(whyRefused(message), "\"size\" is missing or not a whole number");
    for (nlohmann::json const& size : {nlohmann::json(-1), nlohmann::json(1.5), nlohmann::json("5")}) {
        message["size"] = size;
        EXPECT_EQ(whyRefused(message), "\"size\" is missing or not a whole number") << size;
    }
}

TEST(DesiredPackage, UrlsOtherThanHttpAndHttpsAreRefused) {
    for (char const* url :
         {"file:///etc/shadow", "ftp://example.net/p.zip", "packages/p.zip", "HTTPS://x/p.zip"}) {
        nlohmann::json message = good();
        message["package_url"] = url;
        EXPECT_EQ(whyRefused(message), "\"package_url\" is not an http:// or https:// URL") << url;
        message = good();
        message["signature_url"] = url;
        EXPECT_EQ(whyRefused(message), "\"signature_url\" is not an http:// or https:// URL") << url;
    }
}

TEST(DesiredPackage, ASizeOverTheBudgetOrZeroIsRefused) {
    nlohmann::json message = good();
    message["size"] = kBudget;
    EXPECT_EQ(whyRefused(message), "");
    message["size"] = kBudget + 1;
    EXPECT_EQ(whyRefused(message), "\"size\" 67108865 is over the budget of 67108864 bytes");
    message["size"] = 0;
    EXPECT_EQ(whyRefused(message), "\"size\" is 0");
}

TEST(DesiredPackage, VersionsHashesAndDeploymentNamesMustHaveTheirForm) {
    nlohmann::json message = good();
    message["version"] = "1.4-beta";
    EXPECT_EQ(whyRefused(message), "\"version\" 1.4-beta is not dotted numbers");
    for (std::string const& hash : {std::string(63, 'a'), std::string(64, 'A'), std::string(64, 'g')}) {
        message = good();
        message["sha256"] = hash;
        EXPECT_EQ(whyRefused(message), "\"sha256\" is not 64 lowercase hexadecimal digits") << hash;
    }
    for (std::string const& name :
         {std::string(), std::string(65, 'd'), std::string("d/1"), std::string("d 1")}) {
        message = good();
        message["deployment"] = name;
        EXPECT_EQ(whyRefused(message), "\"deployment\" is not 1 to 64 letters, digits, \".\", \"_\" or \"-\"")
            << name;
    }
}

TEST(DesiredPackage, GarbageIsRefusedWithoutParsingHostileNesting) {
    std::string why;
    EXPECT_FALSE(DesiredPackage::parse("", kBudget, why));
    EXPECT_EQ(why, "not a JSON object");
    EXPECT_FALSE(DesiredPackage::parse("[1,2]", kBudget, why));
    EXPECT_EQ(why, "not a JSON object");
    EXPECT_FALSE(DesiredPackage::parse("{\"deployment\":", kBudget, why));
    EXPECT_EQ(why, "not a JSON object");
    std::string const deep = std::string(30000, '[') + std::string(30000, ']');
    EXPECT_FALSE(DesiredPackage::parse(deep, kBudget, why));
    EXPECT_EQ(why, "longer than 65536 bytes or nested too deeply");
    std::string const nested = "{\"a\":" + std::string(40, '[') + std::string(40, ']') + "}";
    EXPECT_FALSE(DesiredPackage::parse(nested, kBudget, why));
    EXPECT_EQ(why, "longer than 65536 bytes or nested too deeply");
}

}  // namespace
