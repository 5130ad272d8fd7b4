// The systemd units as shipped: systemd-analyze finds nothing to say about
// them, the loopback-only drop-in included.
#include <gtest/gtest.h>

#include <string>

#include "shell.h"

namespace {

// The build tree installed for the prefix /usr into a folder of its own, as a
// package holds it; made once for all cases.
std::string const& installedTree() {
    struct Tree {
        std::string dir;
        Tree() : dir(nxatest::shell("mktemp -d").output) {
            dir.pop_back();
            nxatest::shell("DESTDIR=" + dir + " cmake --install " NXA_BUILD_DIR " --prefix /usr >/dev/null");
        }
        ~Tree() { nxatest::shell("rm -rf " + dir); }
    };
    static Tree const tree;
    return tree.dir;
}

std::string installedUnit(std::string const& unit) {
    return nxatest::readFile(installedTree() + "/usr/lib/systemd/system/" + unit);
}

// The installed unit, with the installed paths replaced by those of the build
// and source trees (systemd-analyze checks that the programs exist).
std::string unitForTree(std::string const& unit) {
    std::string out = installedUnit(unit);
    auto replace = [&out](std::string const& from, std::string const& to) {
        for (std::size_t at = out.find(from); at != std::string::npos; at = out.find(from, at + to.size()))
            out.replace(at, from.size(), to);
    };
    replace("/usr/bin/nxahost", NXA_HOST_BINARY);
    replace("/usr/share/nxa", std::string(NXA_SOURCE_DIR) + "/share/nxa");
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
        if (!extra.empty())
            nxatest::shell("printf '%s\\n' '" + extra + "' >> " + dir_ +
                           "/nxahost.service.d/nxahost-loopback-only.conf");
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

TEST(InstalledUnits, NameThePrefixTheTreeIsInstalledTo) {
    std::string const host = installedUnit("nxahost.service");
    EXPECT_NE(host.find("\nExecStart=/usr/bin/nxahost $NXAHOST_OPTIONS $NXAHOST_MODULES\n"),
              std::string::npos)
        << host;
    EXPECT_NE(host.find("\nEnvironmentFile=-/etc/default/nxahost\n"), std::string::npos) << host;
    EXPECT_NE(installedUnit("nxa-broker.service")
                  .find("ExecStart=/usr/sbin/mosquitto -c /usr/share/nxa/mosquitto.conf\n"),
              std::string::npos);
    EXPECT_NE(nxatest::readFile(installedTree() + "/etc/default/nxahost").find("NXAHOST_MODULES=\"\""),
              std::string::npos);
}

TEST_F(Units, TheHostUnitIsANotifyServiceWithAWatchdogAndRoomForDescriptors) {
    std::string const unit = unitForTree("nxahost.service");
    for (char const* line :
         {"Type=notify\n", "WatchdogSec=30s\n", "Restart=on-failure\n", "LimitNOFILE=65536\n",
          "After=network.target nxa-broker.service mosquitto.service\n", "KillMode=mixed\n"}) {
        EXPECT_NE(unit.find(line), std::string::npos) << line;
    }
}

}  // namespace
