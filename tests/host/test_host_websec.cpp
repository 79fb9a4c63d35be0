// The host's defences for an administrator's browser, against a running
// farlink-host: anti-forgery tokens, POST-only and throttled logins, sessions
// that end, the headers on every answer, and TLS.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "host_harness.h"
#include "test_processes.h"

namespace farlink::host::test {
namespace {

constexpr char kPassword[] = "correct-horse";
constexpr char kEcho[] = "/webapi/entry.cgi?api=Test.Echo&version=1&method=echo";

std::vector<std::string> WithPassword(std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"--listen", "127.0.0.1:0", "--password", kPassword});
    return WithModule(TEST_MODULE_PATH, more);
}

long ErrorCode(const HttpResult& result) { return result.json["error"]["code"].asInt(); }

class HostWebSecurity : public testing::Test {
protected:
    void Start(std::vector<std::string> more = {}) {
        host_ = std::make_unique<HostProcess>(WithPassword(std::move(more)));
        ASSERT_TRUE(host_->WaitListening()) << host_->StderrText();
    }
    std::string Url(const std::string& path) const { return host_->BaseUrl() + path; }
    Session LogIn() const { return SessionOf(Login(host_->BaseUrl(), kPassword)); }
    HttpResult Logout(HttpRequest request, const std::string& query = "") const {
        request.method = "POST";
        request.url = Url("/webapi/auth.cgi" + query);
        request.contentType = "application/x-www-form-urlencoded";
        request.body = "method=logout";
        return Fetch(request);
    }
    HttpResult LoginFrom(const std::string& address, const std::string& password) const {
        HttpRequest login = LoginRequest(host_->BaseUrl(), password);
        login.sourceAddress = address;
        return Fetch(login);
    }

    std::unique_ptr<HostProcess> host_;
};

// A page on another site can make the browser send the cookie, but cannot
// read the token that the login answer handed to the host's own page.
TEST_F(HostWebSecurity, TheCookieAloneCallsNothing) {
    Start();
    const Session session = LogIn(), other = LogIn();
    const HttpRequest browser = InSession(session, "GET", Url(kEcho));

    HttpRequest cookieOnly = browser;
    cookieOnly.headers.clear();
    HttpRequest foreignForm =
        InSession(session, "POST", Url("/webapi/entry.cgi"), "application/x-www-form-urlencoded",
                  "api=Test.Echo&version=1&method=echo");
    foreignForm.headers = {"Origin: https://evil.test", "Referer: https://evil.test/page"};
    HttpRequest othersToken = InSession(other, "GET", Url(kEcho));
    othersToken.cookie = browser.cookie;
    HttpRequest repeated = browser;
    repeated.headers.push_back(browser.headers[0]);
    HttpRequest oversized = browser;
    oversized.headers = {"X-Farlink-Token: " + std::string(20000, 'a')};
    HttpRequest empty = browser;
    empty.headers = {"X-Farlink-Token;"};
    // The browser names the foreign page as the origin: refused before the token is looked at.
    EXPECT_EQ(ErrorCode(Fetch(foreignForm)), 117);
    foreignForm.headers.clear();
    for (const HttpRequest& forged :
         {cookieOnly, foreignForm, othersToken, repeated, oversized, empty}) {
        SCOPED_TRACE(forged.method + " " + (forged.headers.empty() ? "" : forged.headers[0]));
        const HttpResult refused = Fetch(forged);
        EXPECT_EQ(refused.status, 403);
        EXPECT_EQ(ErrorCode(refused), 114) << refused.body;
    }

    for (const std::string& cookie :
         std::vector<std::string>{"id=", "id", ";;=;", "id=" + std::string(5000, 'f'),
                                  "id=" + session.sid + "x", "id=" + session.sid.substr(1)}) {
        HttpRequest malformed = browser;
        malformed.cookie = cookie;
        EXPECT_EQ(ErrorCode(Fetch(malformed)), 105) << cookie.substr(0, 40);
    }

    EXPECT_EQ(Fetch(browser).json["success"], true);
    // A request that names its session is not the browser's doing.
    EXPECT_EQ(Fetch("GET", Url(kEcho) + "&_sid=" + session.sid).json["success"], true);
}

TEST_F(HostWebSecurity, LoginIsAPostThrottledPerAddressAndLoggedWithoutThePassword) {
    const std::string log = TempPath("access");
    Start({"--access-log", log});

    const HttpResult byGet =
        Fetch("GET", Url("/webapi/auth.cgi?account=admin&passwd=") + kPassword);
    EXPECT_EQ(byGet.status, 405);
    EXPECT_EQ(ErrorCode(byGet), 113);
    EXPECT_EQ(byGet.headers.count("allow") ? byGet.headers.at("allow") : "", "POST");
    EXPECT_EQ(byGet.setCookie, "");

    // A burst of guesses from one address: a few are tried, the rest wait.
    int tried = 0, refused = 0;
    std::string retryAfter;
    for (int i = 0; i < 50; ++i) {
        const HttpResult guess = LoginFrom("127.0.0.2", "guess-" + std::to_string(i));
        tried += ErrorCode(guess) == 400;
        if (ErrorCode(guess) == 115 && guess.status == 429) {
            ++refused;
            retryAfter = guess.headers.at("retry-after");
        }
    }
    EXPECT_EQ(tried, 5);
    EXPECT_EQ(refused, 45);
    EXPECT_EQ(retryAfter, "1");
    EXPECT_EQ(ErrorCode(LoginFrom("127.0.0.2", kPassword)), 115) << "the address must wait";
    // Guesses a foreign page posts through the administrator's browser are
    // refused before they count.
    for (int i = 0; i < 20; ++i) {
        HttpRequest foreign = LoginRequest(host_->BaseUrl(), "guess");
        foreign.sourceAddress = "127.0.0.3";
        foreign.headers = {i % 2 ? "Origin: https://evil.test" : "Sec-Fetch-Site: cross-site"};
        EXPECT_EQ(ErrorCode(Fetch(foreign)), 117) << foreign.headers[0];
    }
    EXPECT_EQ(LoginFrom("127.0.0.3", kPassword).json["success"], true) << "others need not";

    // A flood from many addresses is answered throughout, and leaves the
    // host to the right password.
    for (int address = 10; address < 40; ++address) {
        for (int i = 0; i < 7; ++i) {
            const long code = ErrorCode(LoginFrom("127.0.4." + std::to_string(address), "x"));
            ASSERT_TRUE(code == 400 || code == 115) << code;
        }
    }
    EXPECT_EQ(LoginFrom("127.0.0.4", kPassword).json["success"], true);

    EXPECT_EQ(host_->Finish(SIGTERM), 0);
    const std::string written = ReadFile(log) + host_->StderrText();
    EXPECT_EQ(written.find(kPassword), std::string::npos) << "the password was logged";
    EXPECT_EQ(written.find("guess-"), std::string::npos) << "a guess was logged";
    EXPECT_NE(written.find("POST /webapi/auth.cgi 200 - error=400 "), std::string::npos);
    EXPECT_NE(written.find("POST /webapi/auth.cgi 429 - error=115 "), std::string::npos);
    EXPECT_NE(written.find("GET /webapi/auth.cgi 405 - error=113 "), std::string::npos);
}

// A copy of a process's memory tells neither the admin password nor a
// password a call carried, once the call is over.
TEST_F(HostWebSecurity, NoProcessKeepsAPassword) {
    Start({"--workers", "2", "--min-workers", "2"});
    const auto processes = [&] {
        std::vector<pid_t> all = farlink_test::ChildrenNamed(host_->Pid(), "farlink-worker");
        all.push_back(host_->Pid());
        all.push_back(farlink_test::ChildrenNamed(host_->Pid(), "farlink-front").at(0));
        return all;
    };
    for (pid_t process : processes()) EXPECT_EQ(CountInMemory(process, kPassword), 0) << process;
    const std::vector<pid_t> workers = farlink_test::ChildrenNamed(host_->Pid(), "farlink-worker");
    const Session session = LogIn();
    const std::string secret = "alias-secret-8d1f0c";
    HttpRequest call =
        InSession(session, "POST", Url("/webapi/entry.cgi"), "application/x-www-form-urlencoded",
                  "api=Test.Host&version=1&method=succeed_empty&kivo_password=" + secret);
    EXPECT_EQ(Fetch(call).json["success"], true);
    // The worker that ran the call ends by itself, after its answer.
    EXPECT_TRUE(WaitUntil([&] {
        std::vector<pid_t> now = farlink_test::ChildrenNamed(host_->Pid(), "farlink-worker");
        return now.size() == 2 && now != workers;
    }));
    for (pid_t process : processes()) {
        EXPECT_EQ(CountInMemory(process, kPassword), 0)
            << ReadFile("/proc/" + std::to_string(process) + "/comm");
        EXPECT_EQ(CountInMemory(process, secret), 0)
            << ReadFile("/proc/" + std::to_string(process) + "/comm");
    }
}

TEST_F(HostWebSecurity, SessionsEndAtLogoutAndWhenIdle) {
    Start({"--session-idle-timeout", "1"});
    const Session first = LogIn(), second = LogIn();

    HttpRequest cookieOnly = InSession(first, "GET", "");
    cookieOnly.headers.clear();
    EXPECT_EQ(ErrorCode(Logout(cookieOnly)), 114) << "a foreign page cannot log out either";
    const HttpResult out = Logout(InSession(first, "GET", ""));
    EXPECT_EQ(out.body, R"({"success":true})");
    EXPECT_EQ(out.setCookie, "id=; Max-Age=0; HttpOnly; SameSite=Strict; Path=/");
    EXPECT_EQ(ErrorCode(Fetch(InSession(first, "GET", Url(kEcho)))), 105);
    EXPECT_EQ(ErrorCode(Logout(InSession(first, "GET", ""))), 105);

    EXPECT_EQ(Logout(HttpRequest(), "?_sid=" + second.sid).json["success"], true);
    EXPECT_EQ(ErrorCode(Fetch("GET", Url(kEcho) + "&_sid=" + second.sid)), 105);

    const Session idle = LogIn();
    EXPECT_EQ(Fetch(InSession(idle, "GET", Url(kEcho))).json["success"], true);
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(ErrorCode(Fetch(InSession(idle, "GET", Url(kEcho)))), 105);
}

TEST_F(HostWebSecurity, EveryAnswerCarriesTheSafeHeaders) {
    Start({"--max-body", "100"});
    const Session session = LogIn();
    const std::vector<HttpResult> answers = {
        Login(host_->BaseUrl(), kPassword),
        Fetch(InSession(session, "GET", Url(kEcho))),
        Fetch("GET", Url(kEcho)),
        Fetch("GET", Url("/webapi/auth.cgi")),
        Fetch("GET", Url("/elsewhere")),
        Fetch("DELETE", Url(kEcho)),
        Fetch("POST", Url(kEcho), "text/plain", std::string(200, 'a')),
    };
    for (const HttpResult& answer : answers) {
        for (const char* name : {"x-content-type-options", "cache-control", "referrer-policy",
                                 "x-frame-options", "content-security-policy"}) {
            EXPECT_EQ(answer.headers.count(name), 1u) << name << " " << answer.body;
        }
        EXPECT_EQ(answer.headers.at("cache-control"), "no-store");
    }
}

// A CA and a certificate from it for 127.0.0.1, made with the openssl tool.
class TestCa {
public:
    TestCa() {
        std::filesystem::create_directories(dir_);
        const std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        const std::string script =
            "set -e; cd " + dir_ + "; exec 2>/dev/null; openssl req -x509 -days 1" + ec +
            " -subj /CN=ca -addext basicConstraints=critical,CA:TRUE -keyout ca.key -out ca.pem;"
            " openssl req" +
            ec +
            " -subj /CN=host -keyout host.key -out host.csr;"
            " echo subjectAltName=IP:127.0.0.1 >ext;"
            " openssl x509 -req -in host.csr -days 1 -CA ca.pem -CAkey ca.key -CAcreateserial"
            " -extfile ext -out host.pem";
        made_ = std::system(("sh -c '" + script + "'").c_str()) == 0;
    }
    ~TestCa() { std::filesystem::remove_all(dir_); }
    TestCa(const TestCa&) = delete;
    TestCa& operator=(const TestCa&) = delete;

    bool Made() const { return made_; }
    std::string Path(const std::string& name) const { return dir_ + "/" + name; }

private:
    const std::string dir_ = TempPath("tls");
    bool made_ = false;
};

// The private scalar of an EC key file, as its 32 bytes; "" if unreadable.
std::string PrivateScalar(const std::string& keyFile) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(keyFile.c_str(), "r"), std::fclose);
    if (!file) return "";
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(
        PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    BIGNUM* number = nullptr;
    if (!key || EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_PRIV_KEY, &number) != 1) return "";
    std::string bytes(32, '\0');
    BN_bn2binpad(number, reinterpret_cast<unsigned char*>(bytes.data()), 32);
    BN_clear_free(number);
    return bytes;
}

TEST(HostTls, ServesHttpsToClientsOfItsCaAndClosesAnythingElse) {
    const TestCa ca;
    ASSERT_TRUE(ca.Made());
    HostProcess host(WithPassword({"--tls-cert", ca.Path("host.pem"), "--tls-key",
                                   ca.Path("host.key"), "--header-timeout", "1"}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    ASSERT_EQ(host.BaseUrl().rfind("https://127.0.0.1:", 0), 0u) << host.BaseUrl();
    const int port = PortOf(host.BaseUrl());

    // A client that stalls in its handshake is cut at the header time-out.
    const int stalled = ConnectFrom("127.0.0.5", port);
    ASSERT_GE(stalled, 0);
    ASSERT_EQ(send(stalled, "\x16\x03\x01", 3, MSG_NOSIGNAL), 3);

    HttpRequest login = LoginRequest(host.BaseUrl(), kPassword);
    login.caFile = ca.Path("ca.pem");
    const HttpResult answer = Fetch(login);
    EXPECT_EQ(answer.json["data"]["sid"].asString().size(), 32u) << answer.error;
    EXPECT_NE(answer.setCookie.find("; Secure"), std::string::npos) << answer.setCookie;

    const std::string tls12 = "openssl s_client -connect 127.0.0.1:" + std::to_string(port) +
                              " -tls1_2 </dev/null >/dev/null 2>&1 -cipher ";
    EXPECT_NE(std::system((tls12 + "ECDHE-ECDSA-AES128-SHA").c_str()), 0) << "CBC accepted";
    EXPECT_EQ(std::system((tls12 + "ECDHE-ECDSA-AES128-GCM-SHA256").c_str()), 0);

    login.caFile.clear();
    EXPECT_EQ(Fetch(login).status, 0) << "trusted without the CA";
    // Plain HTTP to the TLS port gets no answer but a closed connection.
    EXPECT_EQ(Fetch("GET", "http" + host.BaseUrl().substr(5) + kEcho).status, 0);

    EXPECT_TRUE(
        farlink_test::WaitUntil([&] { return ClosedByPeer(stalled); }, std::chrono::seconds(5)))
        << "the stalled handshake was not cut";
    close(stalled);
    login.caFile = ca.Path("ca.pem");
    EXPECT_EQ(Fetch(login).json["success"], true) << "still serving";

    // The key's private scalar is in the front's memory and nowhere else.
    const std::string scalar = PrivateScalar(ca.Path("host.key"));
    ASSERT_FALSE(scalar.empty());
    EXPECT_GT(CountInMemory(farlink_test::ChildrenNamed(host.Pid(), "farlink-front").at(0), scalar),
              0);
    EXPECT_EQ(CountInMemory(host.Pid(), scalar), 0) << "in the supervisor";
    for (pid_t worker : farlink_test::ChildrenNamed(host.Pid(), "farlink-worker")) {
        EXPECT_EQ(CountInMemory(worker, scalar), 0) << "in worker " << worker;
    }
}

}  // namespace
}  // namespace farlink::host::test
