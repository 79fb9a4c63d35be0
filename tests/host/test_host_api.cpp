// The web API endpoints of one running farlink-host, over real HTTP.
#include <gtest/gtest.h>

#include <iterator>
#include <memory>

#include "host_harness.h"

namespace farlink::host::test {
namespace {

constexpr size_t kMaxBody = 1024;

class HostApi : public testing::Test {
protected:
    static void SetUpTestSuite() {
        host_ = std::make_unique<HostProcess>(std::vector<std::string>{
            "--module", TEST_MODULE_PATH, "--listen", "127.0.0.1:0", "--password", "s3cret",
            "--max-body", std::to_string(kMaxBody)});
        ASSERT_TRUE(host_->WaitListening()) << host_->StderrText();
        session_ = SessionOf(Login(host_->BaseUrl(), "s3cret"));
    }
    static void TearDownTestSuite() { host_.reset(); }

    static std::string Url(const std::string& pathAndQuery) {
        return host_->BaseUrl() + pathAndQuery;
    }
    // GET entry.cgi?query in the session.
    static HttpResult Get(const std::string& query) {
        return Fetch(InSession(session_, "GET", Url("/webapi/entry.cgi?" + query)));
    }
    static HttpResult Post(const std::string& contentType, const std::string& body,
                           const std::string& query = "") {
        return Fetch(
            InSession(session_, "POST", Url("/webapi/entry.cgi" + query), contentType, body));
    }
    static HttpResult Call(const std::string& method) {
        return Get("api=Test.Host&version=1&method=" + method);
    }

    static inline std::unique_ptr<HostProcess> host_;
    static inline Session session_;
};

Json::Value ErrorEnvelope(int code) {
    return ParseJson(R"({"success": false, "error": {"code": )" + std::to_string(code) + "}}");
}

TEST_F(HostApi, LoginGivesASessionThatEntryRequires) {
    for (const std::string& secret : {session_.sid, session_.token}) {
        EXPECT_EQ(secret.size(), 32u);
        EXPECT_EQ(secret.find_first_not_of("0123456789abcdef"), std::string::npos) << secret;
    }
    // Every login has a fresh id; a JSON body does as well as a form.
    HttpResult login = Fetch("POST", Url("/webapi/auth.cgi"), "application/json",
                             R"({"account":"admin","passwd":"s3cret"})");
    const Session other = SessionOf(login);
    EXPECT_EQ(login.setCookie, "id=" + other.sid + "; HttpOnly; SameSite=Strict; Path=/");
    EXPECT_NE(other.sid, session_.sid);
    EXPECT_NE(other.token, session_.token);

    for (const std::string body : {"account=admin&passwd=wrong", "account=root&passwd=s3cret",
                                   "account=admin", "passwd=s3cret&account=admin%20"}) {
        SCOPED_TRACE(body);
        HttpResult refused =
            Fetch("POST", Url("/webapi/auth.cgi"), "application/x-www-form-urlencoded", body);
        EXPECT_EQ(refused.status, 200);
        EXPECT_EQ(refused.json, ErrorEnvelope(400));
        EXPECT_EQ(refused.setCookie, "");
    }

    const std::string echo = "/webapi/entry.cgi?api=Test.Echo&version=1&method=echo";
    EXPECT_EQ(Fetch("GET", Url(echo)).json, ErrorEnvelope(105));
    HttpRequest withCookies = InSession(other, "GET", Url(echo));
    withCookies.cookie = "lang=en; id=" + other.sid + "; x=1";
    EXPECT_EQ(Fetch(withCookies).json["success"], true);
    // _sid stands in for the cookie and is not a handler parameter.
    HttpResult bySid = Fetch("GET", Url(echo + "&_sid=" + other.sid + "&x=1"));
    EXPECT_EQ(bySid.json["data"]["params"], ParseJson(R"({"x": 1})"));
}

// Text that is JSON arrives as that value, any other text as the string.
TEST_F(HostApi, ParameterTextThatIsJsonArrivesAsThatValue) {
    const Json::Value values = ParseJson(R"([true, 12, "x", null, [1], {"a": 1}])");
    const std::string texts[] = {"true", "12",         "\"x\"",   "null",
                                 "[1]",  R"({"a":1})", "abc",     "12abc",
                                 "1 2",  "",           "{'a':1}", std::string(2000, '[')};
    std::string query = "api=Test.Echo&version=1&method=echo";
    Json::Value expected(Json::objectValue);
    for (Json::ArrayIndex i = 0; i < std::size(texts); ++i) {
        query += "&p" + std::to_string(i) + "=" + farlink_test::UrlEscape(texts[i]);
        expected["p" + std::to_string(i)] = i < values.size() ? values[i] : Json::Value(texts[i]);
    }
    EXPECT_EQ(Get(query).json["data"]["params"], expected) << "api, version and method are not";
}

TEST_F(HostApi, GetFormAndJsonBodiesReachTheHandlerAlike) {
    const Json::Value expected = ParseJson(R"({"api": "Test.Echo", "version": 2, "method": "echo",
                                               "params": {"enabled": true, "name": "a b"}})");

    const std::string fields = "api=Test.Echo&version=2&method=echo&enabled=true&name=a";
    for (const HttpResult& result :
         {Get(fields + "%20b"), Post("application/x-www-form-urlencoded", fields + "+b"),
          Post("application/json; charset=utf-8",
               R"({"api":"Test.Echo","version":2,"method":"echo","enabled":true,"name":"a b"})"),
          Post("application/json", R"({"enabled":true,"name":"a b"})",
               "?api=Test.Echo&version=2&method=echo")})
        EXPECT_EQ(result.json["data"], expected) << result.body;
    // A JSON body says what type it means: its strings stay strings.
    HttpResult typed = Post("application/json",
                            R"({"api":"Test.Echo","version":"1","method":"echo","flag":"true"})");
    EXPECT_EQ(typed.json["data"]["params"]["flag"], "true");
    // The body wins over the query string.
    HttpResult both = Post("application/x-www-form-urlencoded", "name=body",
                           "?api=Test.Echo&version=1&method=echo&name=query");
    EXPECT_EQ(both.json["data"]["params"]["name"], "body");
}

TEST_F(HostApi, HandlerAnswersBecomeEnvelopes) {
    EXPECT_EQ(Call("fail").body, R"({"error":{"code":2901},"success":false})");
    EXPECT_EQ(Call("succeed_empty").body, R"({"success":true})");
    EXPECT_EQ(Call("answer_twice").body, R"({"data":{"first":true},"success":true})");
    EXPECT_EQ(Call("answer_nothing").json, ErrorEnvelope(106));
    EXPECT_EQ(Call("throw").json, ErrorEnvelope(100));
}

// Requests the host answers itself: its HTTP status and error envelope.
TEST_F(HostApi, RequestsTheModuleCannotServeGetHostErrors) {
    const std::string json = "application/json", form = "application/x-www-form-urlencoded";
    const std::string pad = "api=Test.Echo&version=1&method=echo&pad=";
    const struct {
        std::string method, path, type, body;
        long status;
        int code;
    } cases[] = {
        {"GET", "entry.cgi?version=1&method=echo", "", "", 200, 101},
        {"GET", "entry.cgi?api=Test.Echo&method=echo", "", "", 200, 101},
        {"GET", "entry.cgi?api=Test.Echo&version=1", "", "", 200, 101},
        {"GET", "entry.cgi?api=Test.Echo&version=x&method=echo", "", "", 200, 101},
        {"GET", "entry.cgi?api=Test.Echo&version=0&method=echo", "", "", 200, 101},
        {"GET", "entry.cgi?api=Test.Echo&version=-1&method=echo", "", "", 200, 101},
        {"GET", "entry.cgi?api=Test.Echo&version=4294967296&method=echo", "", "", 200, 101},
        {"GET", "entry.cgi?api=Test.Nope&version=1&method=echo", "", "", 200, 102},
        {"GET", "entry.cgi?api=Test.Echo&version=1&method=nope", "", "", 200, 103},
        {"GET", "entry.cgi?api=Test.Host&version=1&method=echo", "", "", 200, 103},
        {"GET", "entry.cgi?api=Test.Echo&version=3&method=echo", "", "", 200, 104},
        {"POST", "entry.cgi", json, "{\"api\":", 200, 101},
        {"POST", "entry.cgi", json, "[\"api\"]", 200, 101},
        {"POST", "entry.cgi", json, R"({"api":"Test.Echo","version":1.5,"method":"echo"})", 200,
         101},
        {"POST", "entry.cgi", json, R"({"api":["Test.Echo"],"version":1,"method":"echo"})", 200,
         101},
        {"POST", "entry.cgi", "text/plain", "api=Test.Echo", 200, 101},
        {"POST", "entry.cgi", json, "{\"a\":" + std::string(600, '['), 200, 101},
        {"POST", "entry.cgi", form, "api=Test.Echo&version=1&method=echo&x=%zz", 200, 101},
        {"GET", "other.cgi", "", "", 404, 109},
        {"PUT", "entry.cgi", "", "", 405, 108},
        {"POST", "entry.cgi", form, pad + std::string(kMaxBody + 1 - pad.size(), 'a'), 413, 107},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method + " " + c.path + " " + c.body.substr(0, 60));
        const HttpResult result =
            Fetch(InSession(session_, c.method, Url("/webapi/" + c.path), c.type, c.body));
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.json, ErrorEnvelope(c.code));
    }
    // At the limit a body is served; far beyond it, it is not even read.
    EXPECT_EQ(Post(form, pad + std::string(kMaxBody - pad.size(), 'a')).json["success"], true);
    EXPECT_EQ(Post(form, std::string(1 << 20, 'a')).status, 413);
    EXPECT_EQ(Call("succeed_empty").json["success"], true) << "server still serving";
}

}  // namespace
}  // namespace farlink::host::test
