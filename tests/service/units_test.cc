// The systemd units as shipped: systemd-analyze finds nothing to say about
// them, the loopback-only drop-in included.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "shell.h"

namespace {

// The unit as built, with the installed paths replaced by those of the build
// and source trees (systemd-analyze checks that the programs exist).
std::string unitForTree(std::string const& unit) {
    std::ifstream in(std::string(NXA_UNIT_DIR) + "/" + unit);
    std::stringstream text;
    text << in.rdbuf();
    std::string out = text.str();
    auto replace = [&out](std::string const& from, std::string const& to) {
        for (std::size_t at = out.find(from); at != std::string::npos; at = out.find(from, at + to.size()))
            out.replace(at, from.size(), to);
    };
    replace(std::string(NXA_INSTALLED_BINDIR) + "/nxahost", NXA_HOST_BINARY);
    replace(std::string(NXA_INSTALLED_DATADIR) + "/nxa", std::string(NXA_SOURCE_DIR) + "/share/nxa");
    return out;
}

class Units : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = nxatest::shell("mktemp -d").output;
        dir_.pop_back();
        nxatest::shell("mkdir -p " + dir_ + "/nxahost.service.d");
        for (char const* unit : {"nxahost.service", "nxa-broker.service"})
            nxatest::writeFile(dir_ + "/" + unit, unitForTree(unit));
    }
    void TearDown() override { nxatest::shell("rm -rf " + dir_); }

    nxatest::ShellResult verify(std::string const& units) const {
        return nxatest::shell("SYSTEMD_UNIT_PATH=" + dir_ + ": systemd-analyze verify --man=no " + units);
    }
    void addDropIn(std::string const& extra = "") const {
        std::string const dropIn = std::string(NXA_SOURCE_DIR) + "/share/systemd/nxahost-loopback-only.conf";
        nxatest::shell("cp " + dropIn + " " + dir_ + "/nxahost.service.d/");
        if (!extra.empty()) nxatest::shell("printf '%s\\n' '" + extra + "' >> " + dir_ + "/nxahost.service.d/nxahost-loopback-only.conf");
    }

    std::string dir_;
};

TEST_F(Units, HostAndBrokerUnitsVerifyWithoutAWord) {
    nxatest::ShellResult const r = verify("nxahost.service nxa-broker.service");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output, "");
}

TEST_F(Units, TheLoopbackOnlyDropInVerifiesWithTheHostUnit) {
    addDropIn();
    nxatest::ShellResult const r = verify("nxahost.service");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output, "");
}

TEST_F(Units, AMistakeInTheDropInIsSeen) {
    addDropIn("IPAddresAllow=localhost");
    nxatest::ShellResult const r = verify("nxahost.service");
    EXPECT_NE(r.output.find("Unknown key 'IPAddresAllow'"), std::string::npos) << r.output;
}

TEST_F(Units, TheHostUnitIsANotifyServiceWithAWatchdogAndRoomForDescriptors) {
    std::string const unit = unitForTree("nxahost.service");
    for (char const* line : {"Type=notify\n", "WatchdogSec=30s\n", "Restart=on-failure\n", "LimitNOFILE=65536\n",
                             "After=network.target nxa-broker.service mosquitto.service\n", "KillMode=mixed\n"}) {
        EXPECT_NE(unit.find(line), std::string::npos) << line;
    }
}

}  // namespace
