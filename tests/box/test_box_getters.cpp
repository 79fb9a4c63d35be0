// ORVO.Core.Farlink "status" v1 and "get" v1 and v2 and
// ORVO.Core.Farlink.Hostname "get_ip" through the box's host, and the file
// and resolver helpers they are built on, called with the host's
// credentials. Runs inside a box.
#include <orvo/paths.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <tuple>

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
    SilenceResolver();
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

// The answer from freshly generated defaults, with the account bound to the
// box (v2) or the relay library's default (v1).
Json::Value Defaults(int version) {
    Json::Value body = ParseJson(R"({"server_id": "", "server_alias": "", "kivo_account": "",
        "domain": "farlink.test", "region": "", "enabled": false})");
    if (version == 2) body["kivo_account"] = "admin@farlink.test";
    if (version == 2) body["ddns_domain"] = "direct.farlink.test";
    return body;
}

class GettersTest : public BoxTest {
protected:
    Json::Value Get(int version) { return Call("ORVO.Core.Farlink", version, "get"); }
    // The account tool's one run since SetUp, with `arguments`; none when
    // null, given a while to turn up all the same.
    static void ExpectRefresh(const char* arguments) {
        if (!arguments) std::this_thread::sleep_for(Milliseconds(300));
        WaitUntil([arguments] { return !arguments || !KivoQueries().empty(); });
        EXPECT_EQ(KivoQueries(),
                  arguments ? std::vector<std::string>{arguments} : std::vector<std::string>{});
    }
    static void StartDaemon(const std::string& error = "") {
        WriteDaemonEmulation(ParseJson(R"({"force_error": ")" + error + "\"}"));
        ASSERT_EQ(Relayd("on"), 0);
    }
};

TEST_F(GettersTest, HostnamesResolveToTheLastAddressOfEachFamily) {
    const std::pair<const char*, std::string> cases[] = {
        {"multi-a.farlink.test", R"({"ipv4": "127.0.20.3", "ipv6": ""})"},
        {"both.farlink.test", R"({"ipv4": "127.0.20.4", "ipv6": "fd00:20::4"})"},
        {"v6only.farlink.test", R"({"ipv4": "", "ipv6": "fd00:20::1"})"},
        {"nosuch.farlink.test", ""},
    };
    for (const auto& [name, data] : cases) {
        EXPECT_EQ(Call("ORVO.Core.Farlink.Hostname", 1, "get_ip",
                       ParseJson(R"({"hostname": ")" + std::string(name) + "\"}")),
                  data.empty() ? Answer(2902) : Answer(0, ParseJson(data)))
            << name;
    }
    EXPECT_EQ(Call("ORVO.Core.Farlink.Hostname", 1, "get_ip"), Answer(2901));
    EXPECT_TRUE(LoggedError("farlink.hostname.v1", "Invalid parameter"));
}

TEST_F(GettersTest, BothVersionsReportTheSettingsEachWithItsOwnAccount) {
    const Json::Value conf = ParseJson(R"({"server_id": "SID", "server_alias": {"alias": "mybox"},
        "kivo": {"account": "bob"}, "server_control": {"host": "rs.farlink.test",
        "region": "eu", "ddns_domain": "d.test", "portal_domain": "p.test"}})");
    WriteJson(kConf, conf);
    Json::Value v1 = ParseJson(R"({"server_id": "SID", "server_alias": "mybox", "kivo_account": "",
        "domain": "p.test", "region": "eu", "enabled": false})");
    Json::Value v2 = v1;
    v2["kivo_account"] = "admin@farlink.test";
    v2["ddns_domain"] = "d.test";
    EXPECT_EQ(Get(1), Answer(0, v1));
    ExpectRefresh(nullptr);  // version 1 leaves the account alone
    EXPECT_EQ(Get(2), Answer(0, v2));
    ExpectRefresh("--query_account");

    // The running daemon, root's, is asked to refresh the alias.
    StartDaemon();
    v1["enabled"] = v2["enabled"] = true;
    for (const auto& [version, body] : {std::make_pair(1, v1), std::make_pair(2, v2)}) {
        EXPECT_EQ(Get(version), Answer(0, body));
        EXPECT_TRUE(WaitUntil([n = version] {
            return ReadJson(ORVO::Paths::kRelaydStatus)["alias_updates"] == n;
        })) << ReadFile(ORVO::Paths::kRelaydStatus);
    }
    EXPECT_EQ(ReadJson(kConf), conf) << "nothing is written back";
}

// Version 1 leaves a file it refuses in place; version 2 sets it aside and
// regenerates it for the next request.
TEST_F(GettersTest, UnusableConfigurationIsRegeneratedOrRefusedPerVersion) {
    const std::string broken = "{\"server_alias\": ", noAlias = R"({"server_id": "SID"})";
    const std::string noPortal =
        R"({"server_alias": {"alias": ""}, "server_control": {"host": "h.test"}})";
    const std::tuple<int, std::string, int, const char*, std::string> cases[] = {
        // version, file, answer, line logged, the .bad copy afterwards
        {1, broken, 0, nullptr, broken},
        {2, broken, 0, nullptr, broken},
        {1, noAlias, 2900, "load config failed", ""},
        {2, noAlias, 2900, "load config failed, try to restore it again", noAlias},
        {1, noPortal, 2900, nullptr, ""},
        {2, noPortal, 2900, nullptr, ""},
    };
    for (const auto& [version, content, code, logged, bad] : cases) {
        SetUp();
        SCOPED_TRACE("v" + std::to_string(version) + " " + content);
        // Stale account data: only a request that got as far as the account
        // may settle for the cache.
        Json::Value account = ReadJson(ORVO::Paths::kKivoAccount);
        account["refresh"] = 1;
        WriteAccount(account);
        WriteFile(kConf, content);
        EXPECT_EQ(Get(version), Answer(code, code == 0 ? Defaults(version) : Json::Value()));
        EXPECT_TRUE(!logged || LoggedError("farlink.v" + std::to_string(version), logged));
        EXPECT_EQ(ReadFile(kConf + ".bad"), bad);
        const bool cached = code == 0 || content == noPortal;
        ExpectRefresh(version == 1 ? nullptr
                      : cached     ? "--query_account --cache"
                                   : "--query_account");
        EXPECT_EQ(ReadFile(kConf) == content, bad.empty());
        if (bad.empty()) continue;
        EXPECT_EQ(Get(version), Answer(0, Defaults(version)));
        WaitUntil([&] { return KivoQueries().size() == (version == 2 ? 2u : 0u); });
    }
}

TEST_F(GettersTest, FailedCommonStepsAreLoggedByEachVersion) {
    const auto bothFailWith = [this](const std::string& message) {
        for (int version : {1, 2}) {
            EXPECT_EQ(Get(version), Answer(2900));
            EXPECT_TRUE(LoggedError("farlink.v" + std::to_string(version), message));
        }
    };
    // Opens but cannot be read, and nothing can be written over it.
    ASSERT_EQ(mkdir(kConf.c_str(), 0755), 0);
    bothFailWith("Generate relayd config failed");
    StartDaemon();
    WriteFile(ORVO::Paths::kRelaydStatus, "not json");
    bothFailWith("load relayinfo failed");
}

// The account state is root's here: the host's own user cannot read it.
TEST_F(GettersTest, Version2TakesTheAccountFromTheAccountService) {
    const std::string email = R"("account": "", "email": "e@x.test")";
    const std::tuple<std::string, const char*, Json::Value, const char*, const char*> cases[] = {
        // account state, daemon error, kivo_account or error code, line, refresh
        {R"({"bound": false})", "", "", nullptr, "--query_account"},
        {"{" + email + R"(, "refresh": 1})", "", "e@x.test", nullptr, "--query_account --cache"},
        {"{" + email + R"(, "query_error": 4})", "err_network", "", nullptr, "--query_account"},
        {R"({"get_error": 2})", "", 2900, "OrvoAccountGet failed, code = 2", "--query_account"},
        {"{" + email + R"(, "query_error": 4})", "", 2902, "OrvoAccountQueryInfo failed, code = 4",
         nullptr},
        {"{" + email + R"(, "query_error": 5})", "", 2900, "OrvoAccountQueryInfo failed, code = 5",
         "--query_account"},
    };
    EXPECT_EQ(chmod(ORVO::Paths::kKivoAccount, 0600), 0);
    for (const auto& [state, daemonError, account, logged, refresh] : cases) {
        SetUp();
        SCOPED_TRACE(state);
        WriteAccount(ParseJson(state));
        if (*daemonError != '\0') StartDaemon(daemonError);
        Json::Value body = Defaults(2);
        body["kivo_account"] = account;
        body["enabled"] = *daemonError != '\0';
        EXPECT_EQ(Get(2), account.isString() ? Answer(0, body) : Answer(account.asInt()));
        EXPECT_TRUE(!logged || LoggedError("farlink.v2", logged));
        ExpectRefresh(refresh);
    }
    EXPECT_EQ(chmod(ORVO::Paths::kKivoAccount, 0644), 0);
}

}  // namespace
}  // namespace farlink_test
