// The host's records of what it did: metrics, the audit log and the Host
// names it answers. No server runs here; these are the pieces the front uses.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "audit_log.h"
#include "host_names.h"
#include "metrics.h"
#include "metrics_text.h"

namespace farlink::host {
namespace {

using test::MetricSample;

TEST(HostMetrics, CountsExactlyWhatHappenedWithLabelsOnlyFromTheTable) {
    HostMetrics metrics({{"ORVO.Core.Farlink", 3, "get_misc_config"}});
    metrics.CountRequest("ORVO.Core.Farlink/3/get_misc_config", "ok",
                         std::chrono::microseconds(300));
    metrics.CountRequest("ORVO.Core.Farlink/3/get_misc_config", "ok",
                         std::chrono::microseconds(90));
    metrics.CountRequest("ORVO.Core.Farlink/3/get_misc_config", "error=110,SIGSEGV",
                         std::chrono::microseconds(5));
    // A client-made name must not become a series of its own.
    metrics.CountRequest("Evil.Api/1/x", "error=102", std::chrono::microseconds(5));
    metrics.CountRequest("Evil.Other/1/y", "error=102", std::chrono::microseconds(5));
    metrics.CountWorkerStart();
    metrics.CountWorkerCrash();
    metrics.CountHandlerTimeout();
    metrics.SetQueueDepth(3);
    metrics.CountLogin("success");
    metrics.CountLogin("failure");
    metrics.CountLogin("failure");

    const std::string text = metrics.Text();
    const std::string row =
        R"(api="ORVO.Core.Farlink",code="%",method="get_misc_config",version="3")";
    auto requests = [&](const std::string& code) {
        std::string labels = row;
        labels.replace(labels.find('%'), 1, code);
        return MetricSample(text, "farlink_requests_total{" + labels + "}");
    };
    EXPECT_EQ(requests("0"), 2);
    EXPECT_EQ(requests("110"), 1);
    EXPECT_EQ(
        MetricSample(text, R"(farlink_requests_total{api="-",code="102",method="-",version="-"})"),
        2);
    EXPECT_EQ(text.find("Evil"), std::string::npos);
    EXPECT_EQ(
        MetricSample(
            text,
            R"(farlink_request_duration_seconds_count{api="ORVO.Core.Farlink",method="get_misc_config",version="3"})"),
        3);
    EXPECT_EQ(MetricSample(text, "farlink_worker_starts_total"), 1);
    EXPECT_EQ(MetricSample(text, "farlink_worker_crashes_total"), 1);
    EXPECT_EQ(MetricSample(text, "farlink_handler_timeouts_total"), 1);
    EXPECT_EQ(MetricSample(text, "farlink_queue_depth"), 3);
    EXPECT_EQ(MetricSample(text, R"(farlink_logins_total{result="success"})"), 1);
    EXPECT_EQ(MetricSample(text, R"(farlink_logins_total{result="failure"})"), 2);
}

TEST(AuditLog, WritesOneJsonLinePerRecordAndNeverASecret) {
    char path[] = "/tmp/farlink-audit-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    const std::string session = "0123456789abcdef0123456789abcdef";
    {
        AuditLog log(UniqueFd(open(path, O_WRONLY | O_APPEND)), 2);
        Json::Value params;
        params["server_alias"] = "mybox";
        params["kivo_password"] = "hunter2-secret";
        params["nested"]["Token"] = "tok-secret";
        params["services"][0]["passwd"] = "pw-secret";
        log.RecordCall({"127.0.0.1", session, "ORVO.Core.Farlink", 1, "set_server_alias", params,
                        "error=2905"});
        log.RecordLogin("10.0.0.9", "failure");
        log.RecordLogin("10.0.0.9", "success");
        const Json::Value recent = log.Recent();
        ASSERT_EQ(recent.size(), 2u);  // bounded, oldest dropped
        EXPECT_EQ(recent[1]["result"].asString(), "success");
    }
    std::ifstream file(path);
    std::stringstream whole;
    whole << file.rdbuf();
    unlink(path);
    const std::string text = whole.str();
    for (const char* secret : {"hunter2-secret", "tok-secret", "pw-secret", session.c_str()}) {
        EXPECT_EQ(text.find(secret), std::string::npos) << secret;
    }

    std::istringstream lines(text);
    std::vector<Json::Value> records;
    for (std::string line; std::getline(lines, line);) {
        Json::Value record;
        std::istringstream in(line);
        ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &record, nullptr)) << line;
        records.push_back(record);
    }
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0]["event"].asString(), "call");
    EXPECT_EQ(records[0]["params"]["server_alias"].asString(), "mybox");
    EXPECT_EQ(records[0]["params"]["kivo_password"].asString(), kRedacted);
    EXPECT_EQ(records[0]["params"]["services"][0]["passwd"].asString(), kRedacted);
    EXPECT_EQ(records[0]["session"].asString(), SessionDigest(session));
    EXPECT_NE(SessionDigest(session), SessionDigest("another"));
    EXPECT_EQ(records[0]["result"].asString(), "error=2905");
    EXPECT_EQ(records[1]["event"].asString(), "login");
    EXPECT_EQ(records[1]["result"].asString(), "failure");
    EXPECT_FALSE(records[2]["time"].asString().empty());
}

TEST(HostNames, AnswersOnlyTheNamesTheHostIsReachedBy) {
    const HostNames names("192.168.1.5", {"nas.example.test", "Box.Local."});
    for (const char* allowed :
         {"", "127.0.0.1:8080", "localhost", "LOCALHOST:99", "[::1]:8080", "127.1.2.3",
          "192.168.1.5:5000", "nas.example.test", "box.local", "box.local.:1"}) {
        EXPECT_TRUE(names.Allows(allowed)) << allowed;
    }
    for (const char* refused :
         {"attacker.example", "localhost.attacker.example", "192.168.1.6", "nas.example.test:x",
          "[::1", "[::1]x", "0.0.0.0", "127.0.0.1.evil.test"}) {
        EXPECT_FALSE(names.Allows(refused)) << refused;
    }
    EXPECT_FALSE(HostNames("0.0.0.0", {}).Allows("0.0.0.0"));
}

TEST(AuditLog, ClientAddressDropsThePort) {
    EXPECT_EQ(AddressOf("127.0.0.1:4000"), "127.0.0.1");
    EXPECT_EQ(AddressOf("[::1]:4000"), "::1");
}

}  // namespace
}  // namespace farlink::host
