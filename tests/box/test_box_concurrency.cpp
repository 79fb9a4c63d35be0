// Many clients at once through the box's host, with the relay daemon on:
// every answer is the one the same request gets alone, no privileged
// section fails, no handler leaves raised ids, no update of misc.conf is
// lost, no temporary file is left, and the front is never root. Runs inside
// a box.
#include <orvo/paths.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "box_fixture.h"
#include "test_processes.h"

namespace farlink_test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kClients = 16;
constexpr int kAuthError = 4 * 8 + 3;  // auth.err: the privileged section's failures

struct Request {
    const char* api;
    int version;
    const char* method;
    const char* params;
};

const Request kMix[] = {
    {"ORVO.Core.Farlink", 1, "get", "{}"},
    {"ORVO.Core.Farlink", 1, "status", "{}"},
    {"ORVO.Core.Farlink", 1, "set_server_alias",
     R"({"kivo_account":"alice@example.test","server_alias":"box","kivo_password":"secret1"})"},
    {"ORVO.Core.Farlink.Permission", 1, "set",
     R"({"services":[{"id":"web","enabled":true},{"id":"file","enabled":false}]})"},
};

// Sets its own member of misc.conf to alternating values and reads it back;
// a read that differs is an update another writer's read-modify-write lost.
struct MiscWriter {
    const char* api;
    int version;
    const char* set;
    const char* get;
    const char* member;  // parameter name, also the member inside its section
};
const MiscWriter kWriters[] = {
    {"ORVO.Core.Farlink", 3, "set_misc_config", "get_misc_config", "relay_enabled"},
    {"ORVO.Core.Farlink.Upnp", 1, "set", "get", "enabled"},
};

struct WriterResult {
    int writes = 0;
    int lost = 0;
    bool last = false;
};

class ConcurrencyTest : public BoxTest {
protected:
    // The daemon reconnects after every reload that a write asks for, so
    // "connecting" and "connected" are one state here.
    static Json::Value Send(const Request& request) {
        Json::Value answer = SendAsIs(request);
        if (answer["data"]["status"] == "connecting") answer["data"]["status"] = "connected";
        return answer;
    }

    static Json::Value SendAsIs(const Request& request) {
        return BoxTest::CallUnchecked(request.api, request.version, request.method,
                                      ParseJson(request.params));
    }

    static WriterResult Write(const MiscWriter& writer, Clock::time_point end) {
        WriterResult result;
        for (bool value = true; Clock::now() < end; value = !value) {
            Json::Value params;
            params[writer.member] = value;
            if (BoxTest::CallUnchecked(writer.api, writer.version, writer.set, params) !=
                Answer(0)) {
                ++result.lost;
                continue;
            }
            ++result.writes;
            result.last = value;
            const Json::Value read = BoxTest::CallUnchecked(writer.api, writer.version, writer.get);
            if (read["data"][writer.member] != value) ++result.lost;
        }
        return result;
    }
};

TEST_F(ConcurrencyTest, ManyClientsGetWhatEachWouldGetAlone) {
    ASSERT_EQ(Relayd("on"), 0);
    for (const Request& request : kMix) Send(request);  // the alias is bound from here on
    ASSERT_TRUE(WaitUntil([] { return SendAsIs(kMix[1])["data"]["status"] == "connected"; }))
        << "the daemon does not connect";
    std::vector<Json::Value> alone;
    for (const Request& request : kMix) alone.push_back(Send(request));
    for (std::size_t i = 0; i < alone.size(); ++i) {
        ASSERT_EQ(Send(kMix[i]), alone[i]) << kMix[i].method << " is not repeatable alone";
    }

    const pid_t host = HostPid();
    const std::vector<pid_t> fronts = ChildrenNamed(host, "farlink-front");
    ASSERT_EQ(fronts.size(), 1u);
    const auto seconds = std::getenv("FARLINK_STORM_SECONDS");
    const Clock::time_point end =
        Clock::now() + std::chrono::seconds(seconds ? std::atoi(seconds) : 20);

    std::atomic<bool> frontWasRoot{false};
    std::atomic<int> served{0};
    auto sampler = std::async(std::launch::async, [&] {
        int samples = 0;
        for (; Clock::now() < end; ++samples) {
            const std::string uid = ProcStatus(fronts[0], "Uid:");
            if (uid.empty() || uid.find('0') == 0 || uid.find(" 0") != std::string::npos)
                frontWasRoot = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return samples;
    });
    std::vector<std::future<std::vector<std::string>>> clients;
    for (int client = 0; client < kClients; ++client) {
        clients.push_back(std::async(std::launch::async, [&, client] {
            std::vector<std::string> differences;
            for (std::size_t n = client; Clock::now() < end; ++n, ++served) {
                const std::size_t which = n % std::size(kMix);
                const Json::Value answer = Send(kMix[which]);
                if (answer != alone[which])
                    differences.push_back(std::string(kMix[which].method) + ": " +
                                          answer.toStyledString());
            }
            return differences;
        }));
    }
    std::vector<std::future<WriterResult>> writers;
    for (const MiscWriter& writer : kWriters)
        writers.push_back(
            std::async(std::launch::async, [&writer, end] { return Write(writer, end); }));

    for (auto& client : clients) {
        const std::vector<std::string> differences = client.get();
        EXPECT_TRUE(differences.empty())
            << differences.size() << " answers differ, first " << differences.front();
    }
    // The file is read once every writer has had its last answer.
    std::vector<WriterResult> results;
    for (auto& writer : writers) results.push_back(writer.get());
    const Json::Value misc = ReadJson(ORVO::Paths::kMiscConf);
    const char* sections[] = {"relay_tunnel", "upnp"};
    for (std::size_t i = 0; i < std::size(kWriters); ++i) {
        const WriterResult& result = results[i];
        EXPECT_GT(result.writes, 0);
        EXPECT_EQ(result.lost, 0) << kWriters[i].set << ": lost updates";
        EXPECT_EQ(misc[sections[i]][kWriters[i].member], result.last) << misc;
        std::printf("%s: %d writes, %d lost\n", kWriters[i].set, result.writes, result.lost);
    }
    const int samples = sampler.get();
    EXPECT_GT(samples, 100);
    std::printf("%d mixed requests from %d clients, %d front samples\n", served.load(), kClients,
                samples);
    EXPECT_FALSE(frontWasRoot) << "the front had a root id";

    for (const SyslogLine& line : SyslogSinceSetUp())
        EXPECT_NE(line.priority, kAuthError) << line.raw;
    const std::string accessLog = ReadFile(BoxRunDir() + "/access.log");
    EXPECT_EQ(accessLog.find("ids-restored"), std::string::npos);
    for (const auto& entry : fs::directory_iterator(ORVO::Paths::kRelaydConfDir)) {
        const std::string name = entry.path().filename();
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << "left behind: " << name;
    }
    Call("ORVO.Core.Farlink", 1, "get");  // and the workers' ids afterwards
}

}  // namespace
}  // namespace farlink_test
