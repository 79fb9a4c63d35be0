// The relay's settings through the box's host: misc config v3, UPnP,
// service permissions and SNI. Runs inside a box.
#include <json/reader.h>
#include <json/writer.h>  // prints values in failure messages
#include <orvo/paths.h>

#include <string>
#include <tuple>

#include "box_fixture.h"

namespace farlink_test {
namespace {

const std::string kMisc = ORVO::Paths::kMiscConf;
const std::string kServices = ORVO::Paths::kServicesConf;

Json::Value Parse(const std::string& text) {
    Json::Value value;
    Json::Reader().parse(text, value);
    return value;
}

// The host's answer: success with `data` (none when null), or error `code`.
Json::Value Answer(int code, const Json::Value& data = Json::Value()) {
    if (code != 0)
        return Parse(R"({"success":false,"error":{"code":)" + std::to_string(code) + "}}");
    Json::Value answer = Parse(R"({"success":true})");
    if (!data.isNull()) answer["data"] = data;
    return answer;
}

const Json::Value kDefaultMisc = Parse(R"({"relay_tunnel": {"relay_enabled": true},
    "upnp": {"enabled": false}, "smartdns": {"smartdns_support_type": 1}})");

// The two members of misc.conf, each with its get and set.
struct MiscApi {
    const char *api, *get, *set, *required, *key, *source;
    int version;
};
const MiscApi kTunnel{"ORVO.Core.Farlink",
                      "get_misc_config",
                      "set_misc_config",
                      "relay_enabled",
                      "relay_tunnel",
                      "farlink.v3",
                      3};
const MiscApi kUpnp{"ORVO.Core.Farlink.Upnp", "get", "set", "enabled", "upnp",
                    "farlink.upnp.v1",        1};

class SettingsTest : public BoxTest {
protected:
    Json::Value Call(const std::string& api, int version, const char* method,
                     const std::string& params = "{}") {
        return BoxTest::Call(api, version, method, Parse(params));
    }
    bool Logged(const std::string& source, const std::string& message) {
        const auto line = WaitForLogged(source, message);
        return line && line->priority == 1 * 8 + 3;  // user.err
    }
    void StartDaemon() {
        ASSERT_EQ(RunProgram({ORVO::Paths::kRelaydProgram, "--farlink", "on"}), 0);
    }
};

TEST_F(SettingsTest, MiscSettingsStoreTheWholeParametersAndReloadOnlyARunningDaemon) {
    for (const MiscApi& m : {kTunnel, kUpnp}) {
        SetUp();
        EXPECT_EQ(Call(m.api, m.version, m.get), Answer(0, kDefaultMisc[m.key])) << "no file";
        EXPECT_EQ(ReadJson(kMisc), kDefaultMisc);

        const std::string params = std::string(R"({"x": [1], ")") + m.required + "\": 0}";
        Json::Value stored = kDefaultMisc;
        stored[m.key] = Parse(params);
        EXPECT_EQ(Call(m.api, m.version, m.set, params), Answer(0));
        EXPECT_EQ(ReadJson(kMisc), stored) << "the other members are kept";
        EXPECT_EQ(Call(m.api, m.version, m.get), Answer(0, stored[m.key]));
        EXPECT_TRUE(SystemdReloads().empty()) << "a stopped daemon is not reloaded";
        StartDaemon();
        EXPECT_EQ(Call(m.api, m.version, m.set, params), Answer(0));
        EXPECT_EQ(SystemdReloads().size(), 1u);

        EXPECT_EQ(Call(m.api, m.version, m.set, R"({"relay": true})"), Answer(2901));
        EXPECT_TRUE(Logged(m.source, "Invalid parameter"));
        EXPECT_EQ(ReadJson(kMisc), stored);
    }
}

// get_misc_config rewrites any file without its member and tells the daemon;
// UPnP get rewrites only a file it cannot read, silently.
TEST_F(SettingsTest, UnusableMiscFilesAreRepairedByEachGetItsOwnWay) {
    const std::tuple<const MiscApi*, std::string, Json::Value> cases[] = {
        {&kTunnel, "{\"relay_tunnel\": ", Answer(0, kDefaultMisc["relay_tunnel"])},
        {&kTunnel, "[1]", Answer(0)},
        {&kUpnp, "{\"upnp\": ", Answer(0, kDefaultMisc["upnp"])},
        {&kUpnp, R"({"relay_tunnel": {}})", Answer(2900)},
    };
    for (const auto& [m, content, answer] : cases) {
        SetUp();
        StartDaemon();
        WriteFile(kMisc, content);
        EXPECT_EQ(Call(m->api, m->version, m->get), answer) << content;
        const bool rewritten = answer != Answer(2900), damaged = content.back() == ' ';
        EXPECT_EQ(ReadJson(kMisc), rewritten ? kDefaultMisc : Parse(content));
        EXPECT_EQ(ReadFile(kMisc + ".bad"), damaged ? content : "");
        EXPECT_EQ(SystemdReloads().size(), rewritten && m == &kTunnel ? 1u : 0u) << content;
        EXPECT_TRUE(content != "[1]" || Logged("farlink.v3", "Fail to get misc config"));
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
        EXPECT_TRUE(Logged("farlink.permission.v1", message)) << params;
        EXPECT_EQ(ReadJson(kServices), defaults);
    }

    StartDaemon();
    const std::string list = R"([{"id": "web", "enabled": false, "port": 80},
                                 {"id": "web", "enabled": true}])";
    EXPECT_EQ(Call(api, 1, "set", R"({"services": )" + list + "}"), Answer(0));
    EXPECT_EQ(ReadJson(kServices), Parse(list)) << "extras and duplicates are kept";
    EXPECT_EQ(SystemdReloads().size(), 1u);
    EXPECT_EQ(Call(api, 1, "get"), Answer(0, Parse(R"({"services": )" + list + "}")));
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
        EXPECT_EQ(ReadJson(ORVO::Paths::kSniConf), Parse(sni)) << params;
        EXPECT_TRUE(code != 2901 || Logged("farlink.sni.v1", "Invalid parameter")) << params;
    }
}

}  // namespace
}  // namespace farlink_test
