// The front's audit records and the Host names it answers, without a
// server: the cases the running host's tests do not reach.
#include <gtest/gtest.h>

#include "audit_log.h"
#include "host_names.h"

namespace farlink::host {
namespace {

// Secrets hide at any depth and under any case; the running host's test
// checks the file itself.
TEST(AuditLog, RedactsNestedSecretsAndKeepsOnlyTheLatestRecords) {
    Json::Value params;
    params["server_alias"] = "mybox";
    params["nested"]["Token"] = "tok-secret";
    params["services"][0]["passwd"] = "pw-secret";
    const Json::Value redacted = RedactSecrets(params);
    EXPECT_EQ(redacted["server_alias"], "mybox");
    EXPECT_EQ(redacted["nested"]["Token"], kRedacted);
    EXPECT_EQ(redacted["services"][0]["passwd"], kRedacted);

    AuditLog log{UniqueFd(), 2};
    for (const char* outcome : {"failure", "throttled", "success"})
        log.RecordLogin("10.0.0.9", outcome);
    const Json::Value recent = log.Recent();
    ASSERT_EQ(recent.size(), 2u);
    EXPECT_EQ(recent[0]["result"], "throttled");
    EXPECT_EQ(recent[1]["result"], "success");
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

}  // namespace
}  // namespace farlink::host
