// What an operator reads of a running host: its health, its metrics and its
// audit log; and the names and sites it refuses to answer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/reader.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "host_harness.h"

namespace farlink::host::test {
namespace {

using farlink_test::Fetch;
using farlink_test::HttpRequest;
using farlink_test::HttpResult;

constexpr char kEcho[] = "/webapi/entry.cgi?api=Test.Echo&version=1&method=echo";

// The value of the series written exactly as `series`, or -1 when absent.
double MetricSample(const std::string& text, const std::string& series) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(series + " ", 0) == 0) return std::stod(line.substr(series.size() + 1));
    }
    return -1;
}

std::string ReadWhole(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

HttpResult GetWithHeader(const std::string& url, const std::string& header) {
    HttpRequest request;
    request.url = url;
    request.headers = {header};
    return Fetch(request);
}

std::vector<Json::Value> JsonLines(const std::string& text) {
    std::vector<Json::Value> records;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Json::Value record;
        std::istringstream in(line);
        if (Json::parseFromStream(Json::CharReaderBuilder(), in, &record, nullptr)) {
            records.push_back(record);
        }
    }
    return records;
}

TEST(HostOperations, HealthMetricsAndAuditTellWhatHappenedAndNoSecret) {
    const std::string audit = TempPath("audit");
    const std::string counter = TempPath("counter");
    HostProcess host(
        Serving(TEST_MODULE_PATH, {"--audit-log", audit, "--workers", "2", "--min-workers", "2"}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    const std::string base = host.BaseUrl();

    const HttpResult health = Fetch("GET", base + "/health");
    EXPECT_EQ(health.status, 200);
    EXPECT_EQ(health.body, R"({"status":"ok"})");
    EXPECT_EQ(Fetch("GET", base + "/metrics").json["error"]["code"], 105);

    EXPECT_EQ(Login(base, "wrong").json["error"]["code"], 400);
    const Session session = LoggedIn(host);
    for (int i = 0; i < 3; ++i) Fetch(InSession(session, "GET", base + kEcho));
    const std::string change = base +
                               "/webapi/entry.cgi?api=Test.Host&version=1&method=set_exclusive"
                               "&counter=" +
                               counter + "&kivo_password=s3cret-pw";
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Fetch(InSession(session, "GET", change)).json["success"], true);
    }
    // A client-made name must not become a series of its own.
    Fetch(InSession(session, "GET", base + "/webapi/entry.cgi?api=Evil.Api&version=1&method=x"));
    EXPECT_EQ(Fetch(InSession(session, "GET",
                              base + "/webapi/entry.cgi?api=Test.Host&version=1&method=abort"))
                  .json["error"]["code"],
              110);

    const std::string text = Fetch("GET", base + "/metrics?_sid=" + session.sid).body;
    auto requests = [&](const std::string& api, const std::string& method, const char* code) {
        return MetricSample(text, "farlink_requests_total{api=\"" + api + "\",code=\"" + code +
                                      "\",method=\"" + method + "\",version=\"1\"}");
    };
    EXPECT_EQ(requests("Test.Echo", "echo", "0"), 3);
    EXPECT_EQ(
        MetricSample(text, R"(farlink_requests_total{api="-",code="102",method="-",version="-"})"),
        1);
    EXPECT_EQ(text.find("Evil"), std::string::npos);
    EXPECT_EQ(requests("Test.Host", "set_exclusive", "0"), 2);
    EXPECT_EQ(requests("Test.Host", "abort", "110"), 1);
    EXPECT_EQ(MetricSample(text, "farlink_worker_crashes_total"), 1);
    EXPECT_EQ(MetricSample(text, R"(farlink_logins_total{result="success"})"), 1);
    EXPECT_EQ(MetricSample(text, R"(farlink_logins_total{result="failure"})"), 1);
    EXPECT_GE(MetricSample(text, "farlink_worker_starts_total"), 2);
    EXPECT_EQ(MetricSample(text, "farlink_queue_depth"), 0);

    const std::string log = ReadWhole(audit);
    for (const std::string& secret : {std::string("s3cret-pw"), session.sid, session.token}) {
        EXPECT_EQ(log.find(secret), std::string::npos) << secret;
    }
    const std::vector<Json::Value> records = JsonLines(log);
    ASSERT_EQ(records.size(), 4u) << log;  // two logins, two changes; reads are not audited
    EXPECT_EQ(records[0]["result"], "failure");
    EXPECT_EQ(records[1]["result"], "success");
    EXPECT_EQ(records[2]["method"], "set_exclusive");
    EXPECT_EQ(records[2]["params"]["kivo_password"], "[redacted]");
    EXPECT_EQ(records[3]["client"], "127.0.0.1");

    const HttpResult recent = Fetch(InSession(session, "GET", base + "/webapi/audit.cgi"));
    EXPECT_EQ(recent.json["data"]["records"].size(), 4u) << recent.body;
    std::remove(audit.c_str());
    std::remove(counter.c_str());
}

// A page served under a name that an attacker points at this host (DNS
// rebinding), or on another site, gets nothing even with the right cookie.
TEST(HostOperations, ForeignNamesAndOtherSitesGetNothing) {
    HostProcess host(Serving(TEST_MODULE_PATH, {"--allowed-hosts", "nas.example.test"}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    const Session session = LoggedIn(host);
    const std::string url = host.BaseUrl() + kEcho;

    auto call = [&](std::vector<std::string> headers) {
        HttpRequest request = InSession(session, "GET", url);
        request.headers.insert(request.headers.end(), headers.begin(), headers.end());
        return Fetch(request);
    };
    const HttpResult rebound = call({"Host: attacker.example:8080"});
    EXPECT_EQ(rebound.status, 421);
    EXPECT_EQ(rebound.json["error"]["code"], 116);
    EXPECT_EQ(GetWithHeader(host.BaseUrl() + "/health", "Host: attacker.example").status, 421);
    EXPECT_EQ(GetWithHeader(url + "&_sid=" + session.sid, "Host: attacker.example").status, 421);
    for (const std::vector<std::string>& crossSite :
         {std::vector<std::string>{"Sec-Fetch-Site: cross-site"},
          {"Sec-Fetch-Site: same-site"},
          {"Origin: http://attacker.example"},
          {"Origin: null"}}) {
        const HttpResult refused = call(crossSite);
        EXPECT_EQ(refused.status, 403) << crossSite[0];
        EXPECT_EQ(refused.json["error"]["code"], 117) << crossSite[0];
    }

    EXPECT_EQ(call({"Host: nas.example.test:5000", "Sec-Fetch-Site: same-origin",
                    "Origin: https://nas.example.test:5000"})
                  .json["success"],
              true);
    EXPECT_EQ(call({"Host: localhost"}).json["success"], true);
}

// Sends `bytes` from `source` and reads until the host closes (or 2 s pass).
std::string SendRaw(const std::string& source, int port, const std::string& bytes) {
    const int fd = ConnectFrom(source, port);
    if (fd < 0) return "no connection";
    fcntl(fd, F_SETFL, 0);
    const timeval wait{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::string answer;
    if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size())) {
        char chunk[4096];
        for (ssize_t got; (got = recv(fd, chunk, sizeof chunk, 0)) > 0;) answer.append(chunk, got);
    }
    close(fd);
    return answer;
}

// A PROXY header (version 2) naming 203.0.113.7:4000 as the client.
std::string ProxyHeader(char command = 0x21) {
    const char header[] = "\r\n\r\n\0\r\nQUIT\n";
    std::string bytes(header, 12);
    bytes += {command, 0x11, 0x00, 0x0C};
    bytes += {char(203), 0, 113, 7, 127, 0, 0, 1, 0x0F, char(0xA0), 0x01, char(0xBB)};
    return bytes;
}

// A forwarder or reverse proxy in front of the host names each client; no
// one else may, and a header that is not one closes the connection.
TEST(HostOperations, ProxiesNamedByOptionTellTheClientOthersCannot) {
    const std::string log = TempPath("access");
    HostProcess host(Serving(TEST_MODULE_PATH, {"--proxy-from", "127.0.0.2", "--access-log", log}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    const int port = PortOf(host.BaseUrl());
    const std::string health =
        "GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";

    EXPECT_NE(SendRaw("127.0.0.2", port, ProxyHeader() + health).find("200 OK"), std::string::npos);
    EXPECT_NE(ReadWhole(log).find(" 203.0.113.7:4000 GET /health 200 "), std::string::npos)
        << ReadWhole(log);
    EXPECT_NE(SendRaw("127.0.0.2", port, ProxyHeader(0x20) + health).find("200 OK"),
              std::string::npos)
        << "a proxy's own check (LOCAL) is served as the proxy";
    EXPECT_EQ(SendRaw("127.0.0.2", port, ProxyHeader(0x22) + health), "") << "malformed";
    EXPECT_EQ(SendRaw("127.0.0.2", port, health), "") << "a proxy's connection without a header";
    for (int i = 0; i < 2; ++i) EXPECT_EQ(SendRaw("127.0.0.3", port, ProxyHeader() + health), "");
    EXPECT_NE(SendRaw("127.0.0.3", port, health).find("200 OK"), std::string::npos);
    EXPECT_EQ(host.Finish(SIGTERM), 0);
    const std::string stderrText = host.StderrText();
    const std::string refused = "refused a PROXY header from 127.0.0.3";
    EXPECT_NE(stderrText.find(refused), std::string::npos) << stderrText;
    EXPECT_EQ(stderrText.find(refused), stderrText.rfind(refused)) << "logged once";
    std::remove(log.c_str());
}

}  // namespace
}  // namespace farlink::host::test
