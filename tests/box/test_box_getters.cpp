// ORVO.Core.Farlink "get" v1 and v2 and ORVO.Core.Farlink.Hostname "get_ip"
// through the box's host. Runs inside a box.
#include <orvo/paths.h>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <tuple>

#include "box_fixture.h"

namespace farlink_test {
namespace {

const std::string kConf = ORVO::Paths::kRelaydConf;

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
