// ORVO.Core.Farlink "status" v1 through the box's host, and the file and
// resolver helpers it is built on, called with the host's credentials. Runs
// inside a box.
#include <orvo/paths.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "box_fixture.h"
#include "utils.h"

namespace farlink_test {
namespace {

const std::string kConf = ORVO::Paths::kRelaydConf;
const std::string kBadConf = kConf + ".bad";
const Json::Value kStopped =
    Answer(0, ParseJson(R"({"alias_status": "unknown", "status": "not_running"})"));

class StatusTest : public BoxTest {
protected:
    Json::Value Status() { return Call("ORVO.Core.Farlink", 1, "status"); }
    static bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
};

TEST_F(StatusTest, DaemonAndAliasWordsDecideTheAnswer) {
    EXPECT_EQ(Status(), kStopped);
    WriteFile(kConf, R"({"server_alias": {"alias": "mybox"}})");
    WriteFile(ORVO::Paths::kAliasStatus, R"({"mybox": {"status": "success"}})");
    const std::pair<const char*, Json::Value> cases[] = {
        {"err_server",
         Answer(0, ParseJson(R"({"alias_status": "success", "status": "connecting"})"))},
        {"err_resolv", Answer(2902)},
        {"err_network", Answer(2902)},
        {"err_violation", Answer(2910)},
    };
    for (const auto& [error, answer] : cases) {
        Relayd("off");
        WriteDaemonEmulation(ParseJson(R"({"force_status": "connecting", "force_error": ")" +
                                       std::string(error) + "\"}"));
        ASSERT_EQ(Relayd("on"), 0);
        EXPECT_EQ(Status(), answer) << error;
    }
    WriteFile(ORVO::Paths::kRelaydStatus, "not json");
    EXPECT_EQ(Status(), Answer(2900));
    EXPECT_TRUE(LoggedError("farlink.v1", "load relayinfo failed"));
}

TEST_F(StatusTest, MissingOrUnparsableConfigIsRegeneratedAndAnswered) {
    ASSERT_FALSE(Exists(kConf)) << "the box starts without one";
    EXPECT_EQ(Status(), kStopped);
    const Json::Value regenerated = ReadJson(kConf);
    EXPECT_EQ(regenerated["server_alias"]["alias"], "");
    EXPECT_FALSE(Exists(kBadConf)) << "a missing file is not moved aside";

    WriteFile(kConf, "{\"server_alias\": ");
    EXPECT_EQ(Status(), kStopped);
    EXPECT_TRUE(LoggedError("utils", "bad json format [" + kConf + "]"));
    EXPECT_EQ(ReadFile(kBadConf), "{\"server_alias\": ");
    EXPECT_EQ(ReadJson(kConf), regenerated);
}

TEST_F(StatusTest, RefusedAliasSectionIsMovedAsideAndTheNextCallSucceeds) {
    const std::string tooLong = R"({"server_alias": {"alias": ")" + std::string(64, 'a') + "\"}}";
    for (const std::string& content :
         {std::string(R"({"server_id": "SID"})"), tooLong, std::string("[1, 2]")}) {
        WriteFile(kConf, content);
        syslogMark_ = SyslogMark();
        EXPECT_EQ(Status(), Answer(2900)) << content;
        EXPECT_TRUE(LoggedError("farlink.v1", "load config failed, try to restore it again"));
        EXPECT_EQ(ReadFile(kBadConf), content) << "each repair replaces the older copy";
        EXPECT_EQ(Status(), kStopped) << content;
    }
}

TEST_F(StatusTest, SilentResolverGives2907WithinTheTimeOutBeforeAnyFile) {
    ScopedDnsOutage outage;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Status(), Answer(2907));
    // Two tries of two seconds, and slack for a loaded machine.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
    EXPECT_TRUE(LoggedError("farlink.v1", "Check resolving DNS failed"));
    EXPECT_FALSE(Exists(kConf)) << "the configuration is not touched before the name resolves";
}

// A name from the hosts file is answered at once and hands no address out.
TEST_F(StatusTest, FullyQualifiedNameFromTheHostsFileGivesNoResult) {
    const std::string hosts = ReadFile("/etc/hosts");
    WriteFile("/etc/hosts", hosts + "127.0.10.1 " FARLINK_PRIMARY_CONTROL_HOST ".\n");
    EXPECT_EQ(Status(), Answer(2907));
    EXPECT_TRUE(
        LoggedError("farlink.v1", "No result when resolving " FARLINK_PRIMARY_CONTROL_HOST "."));
    WriteFile("/etc/hosts", hosts);
}

TEST_F(StatusTest, HelpersReportWhatTheyCannotWriteAndDeleteWhatCannotBeMovedAside) {
    const std::string bad = std::string(ORVO::Paths::kMiscConf) + ".bad";
    ASSERT_EQ(mkdir(bad.c_str(), 0755), 0);
    // The settings' writes through the host show the rest.
    ScopedServiceUser user;
    ORVO::Relay::MiscConf misc(ORVO::Paths::kMiscConf, false);
    EXPECT_EQ(WriteMiscConfigToFile(misc), 2908);
    EXPECT_TRUE(ReadJson(ORVO::Paths::kMiscConf).isMember("upnp"));
    ORVO::Relay::MiscConf nowhere("/usr/orvo/etc/no-such-dir/misc.conf", false);
    EXPECT_EQ(WriteMiscConfigToFile(nowhere), 2900);
    EXPECT_TRUE(LoggedError("utils", "Failed to write config"));

    EXPECT_FALSE(RenameBadConfig(ORVO::Paths::kMiscConf));
    EXPECT_TRUE(LoggedError("utils", "rename " + std::string(ORVO::Paths::kMiscConf) +
                                         " to .bad failed. Is a directory"));
    EXPECT_FALSE(Exists(ORVO::Paths::kMiscConf));
}

TEST_F(StatusTest, ResolverKeepsTheLastAddressOfEachFamilyOrWhatItDoesNotFind) {
    std::string ipv4 = "old", ipv6 = "old";
    EXPECT_TRUE(DNSResolveWithTimeout("multi-a.farlink.test", ipv4, ipv6, 2, 2));
    EXPECT_EQ(ipv4 + " " + ipv6, "127.0.20.3 ");
    EXPECT_FALSE(DNSResolveWithTimeout("nosuch.farlink.test.", ipv4, ipv6, 2, 2));
    EXPECT_TRUE(LoggedError("utils",
                            "Fail to resolve, evdns error: "
                            "nodename nor servname provided, or not known"));
    ipv4 = ipv6 = "old";
    EXPECT_TRUE(DNSResolveWithTimeout("127.0.0.1", ipv4, ipv6, 2, 2)) << "answered at once";
    EXPECT_EQ(ipv4 + ipv6, "oldold");
}

}  // namespace
}  // namespace farlink_test
