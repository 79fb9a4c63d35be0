// The relay's settings through the box's host: misc config v3, UPnP,
// service permissions and SNI. Runs inside a box.
#include <orvo/paths.h>

#include <string>
#include <tuple>

#include "box_fixture.h"

namespace farlink_test {
namespace {

const std::string kMisc = ORVO::Paths::kMiscConf;
const std::string kServices = ORVO::Paths::kServicesConf;

const Json::Value kDefaultMisc = ParseJson(R"({"relay_tunnel": {"relay_enabled": true},
    "upnp": {"enabled": false}, "smartdns": {"smartdns_support_type": 1}})");

// The two members of misc.conf, each with its get and set.
struct MiscApi {
    const char *api, *get, *set, *required, *key, *source;
    int version;
};
const MiscApi kMiscApis[] = {
    {"ORVO.Core.Farlink", "get_misc_config", "set_misc_config", "relay_enabled", "relay_tunnel",
     "farlink.v3", 3},
    {"ORVO.Core.Farlink.Upnp", "get", "set", "enabled", "upnp", "farlink.upnp.v1", 1},
};
const MiscApi *const kTunnel = &kMiscApis[0], *const kUpnp = &kMiscApis[1];

class SettingsTest : public BoxTest {
protected:
    Json::Value Call(const std::string& api, int version, const char* method,
                     const std::string& params = "{}") {
        return BoxTest::Call(api, version, method, ParseJson(params));
    }
};

TEST_F(SettingsTest, MiscSettingsStoreTheWholeParametersAndReloadOnlyARunningDaemon) {
    for (const MiscApi& m : kMiscApis) {
        SetUp();
        EXPECT_EQ(Call(m.api, m.version, m.get), Answer(0, kDefaultMisc[m.key])) << "no file";
        EXPECT_EQ(ReadJson(kMisc), kDefaultMisc);

        const std::string params = std::string(R"({"x": [1], ")") + m.required + "\": 0}";
        Json::Value stored = kDefaultMisc;
        stored[m.key] = ParseJson(params);
        EXPECT_EQ(Call(m.api, m.version, m.set, params), Answer(0));
        EXPECT_EQ(ReadJson(kMisc), stored) << "the other members are kept";
        EXPECT_EQ(Call(m.api, m.version, m.get), Answer(0, stored[m.key]));
        EXPECT_TRUE(SystemdReloads().empty()) << "a stopped daemon is not reloaded";
        ASSERT_EQ(Relayd("on"), 0);
        EXPECT_EQ(Call(m.api, m.version, m.set, params), Answer(0));
        EXPECT_EQ(SystemdReloads().size(), 1u);

        EXPECT_EQ(Call(m.api, m.version, m.set, R"({"relay": true})"), Answer(2901));
        EXPECT_TRUE(LoggedError(m.source, "Invalid parameter"));
        EXPECT_EQ(ReadJson(kMisc), stored);
    }
}

// get_misc_config rewrites any file without its member and tells the daemon;
// UPnP get rewrites only a file it cannot read, silently.
TEST_F(SettingsTest, UnusableMiscFilesAreRepairedByEachGetItsOwnWay) {
    const std::tuple<const MiscApi*, std::string, Json::Value> cases[] = {
        {kTunnel, "{\"relay_tunnel\": ", Answer(0, kDefaultMisc["relay_tunnel"])},
        {kTunnel, "[1]", Answer(0)},
        {kUpnp, "{\"upnp\": ", Answer(0, kDefaultMisc["upnp"])},
        {kUpnp, R"({"relay_tunnel": {}})", Answer(2900)},
    };
    for (const auto& [m, content, answer] : cases) {
        SetUp();
        ASSERT_EQ(Relayd("on"), 0);
        WriteFile(kMisc, content);
        EXPECT_EQ(Call(m->api, m->version, m->get), answer) << content;
        const bool rewritten = answer != Answer(2900), damaged = content.back() == ' ';
        EXPECT_EQ(ReadJson(kMisc), rewritten ? kDefaultMisc : ParseJson(content));
        EXPECT_EQ(ReadFile(kMisc + ".bad"), damaged ? content : "");
        EXPECT_EQ(SystemdReloads().size(), rewritten && m == kTunnel ? 1u : 0u) << content;
        EXPECT_TRUE(content != "[1]" || LoggedError("farlink.v3", "Fail to get misc config"));
    }
}

TEST_F(SettingsTest, PermissionListsAreCheckedEntryByEntryAndReplaceTheFile) {
    const std::string api = "ORVO.Core.Farlink.Permission";
    WriteFile(kServices, "[{");
    const Json::Value defaults = Call(api, 1, "get")["data"]["services"];
    EXPECT_EQ(defaults.size(), 6u);
    EXPECT_EQ(ReadJson(kServices), defaults);
    EXPECT_EQ(ReadFile(kServices + ".bad"), "[{");

    const std::pair<const char*, const char*> invalid[] = {
        {"{}", "Invalid parameter"},
        {R"({"services": {"id": "web", "enabled": true}})", "Invalid parameter"},
        {R"({"services": [5]})", "Invalid entry"},
        {R"({"services": [{"id": "web", "enabled": true}, {"id": "file"}]})", "Invalid entry"},
        {R"({"services": [{"id": "web", "enabled": "true"}]})", "Invalid type"},
        {R"({"services": [{"id": 1, "enabled": true}, {"id": "file"}]})", "Invalid type"},
    };
    // The first faulty entry ends the check, presence before types.
    for (const auto& [params, message] : invalid) {
        syslogMark_ = SyslogMark();
        EXPECT_EQ(Call(api, 1, "set", params), Answer(2901)) << params;
        EXPECT_TRUE(LoggedError("farlink.permission.v1", message)) << params;
        EXPECT_EQ(ReadJson(kServices), defaults);
    }

    ASSERT_EQ(Relayd("on"), 0);
    const std::string list = R"([{"id": "web", "enabled": false, "port": 80},
                                 {"id": "web", "enabled": true}])";
    EXPECT_EQ(Call(api, 1, "set", R"({"services": )" + list + "}"), Answer(0));
    EXPECT_EQ(ReadJson(kServices), ParseJson(list)) << "extras and duplicates are kept";
    EXPECT_EQ(SystemdReloads().size(), 1u);
    EXPECT_EQ(Call(api, 1, "get"), Answer(0, ParseJson(R"({"services": )" + list + "}")));
}

TEST_F(SettingsTest, SniIsSwitchedThroughTheLibrary) {
    const std::tuple<const char*, int, const char*> cases[] = {
        // parameters, answer, sni.conf afterwards
        {"{}", 2901, ""},
        {R"({"enabled": true})", 2901, ""},
        {R"({"enabled": true, "domain_name": {}})", 2901, ""},
        {R"({"enabled": true, "domain_name": ""})", 2900, ""},
        {R"({"enabled": true, "domain_name": "a.test"})", 0,
         R"({"enabled":true,"domain":"a.test"})"},
        {R"({"enabled": false, "domain_name": "a.test"})", 0, R"({"enabled":false,"domain":""})"},
    };
    for (const auto& [params, code, sni] : cases) {
        SetUp();
        EXPECT_EQ(Call("ORVO.Core.Farlink.SNI", 1, "set", params),
                  Answer(code, Json::Value(Json::objectValue)))
            << params;
        EXPECT_EQ(ReadJson(ORVO::Paths::kSniConf), ParseJson(sni)) << params;
        EXPECT_TRUE(code != 2901 || LoggedError("farlink.sni.v1", "Invalid parameter")) << params;
    }
}

}  // namespace
}  // namespace farlink_test
