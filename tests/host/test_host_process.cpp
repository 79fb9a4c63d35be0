// farlink-host as a process: what it refuses to start with, the ids it
// serves with, and how it stops.
#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "host_harness.h"
#include "test_processes.h"

namespace farlink::host::test {
namespace {

using farlink_test::ChildrenNamed;
using farlink_test::ProcStatus;

void ExpectRefusal(HostProcess& host, const std::string& reason) {
    EXPECT_FALSE(host.WaitListening());
    EXPECT_EQ(host.Finish(), 1);
    std::string text = host.StderrText();
    EXPECT_NE(text.find(reason), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << "one line: " << text;
    EXPECT_EQ(host.StdoutText(), "");
}

TEST(HostStartup, RefusesModulesItCannotServeAndBadOptions) {
    const std::string module = TEST_MODULE_PATH;
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {Serving("/nonexistent/module.so"), "cannot load module"},
        {Serving(BAD_MODULE_NO_GET_API_TABLE), "does not export GetAPITable"},
        {Serving(BAD_MODULE_NULL_TABLE), "returned no table"},
        {Serving(BAD_MODULE_DUPLICATE_ROW), "row 2: Bad.Api version 1 method get is listed twice"},
        {Serving(BAD_MODULE_VERSION_UPPER_BITS), "row 2: version 4294967297"},
        {Serving(BAD_MODULE_VERSION_ZERO), "row 2: version 0"},
        {Serving(BAD_MODULE_NULL_HANDLER), "row 2: handler is null"},
        {Serving(BAD_MODULE_TOO_MANY_ROWS), "no end within 1024 rows"},
        {{"--listen", "127.0.0.1:0", "--password", "pw"}, "--module is required"},
        {WithModule(module, {"--password", "pw"}), "--listen or --listen-fd is required"},
        {WithModule(module, {"--listen", "127.0.0.1", "--password", "pw"}),
         "--listen wants ADDR:PORT"},
        {WithModule(module, {"--listen", "127.0.0.1:0"}), "no admin password"},
        {Serving(module, {"--workers", "0"}), "--workers wants a number"},
        {Serving(module, {"--max-body", "12k"}), "--max-body wants a number"},
        {Serving(module, {"--bogus"}), "unknown option '--bogus'"},
        {Serving(module, {"--web-root", "/nonexistent"}),
         "--web-root /nonexistent is not a directory"},
        {Serving(module, {"--workers"}), "--workers needs a value"},
        {Serving(module, {"--user", "no-such-user"}), "no such user 'no-such-user'"},
        {Serving(module, {"--user", "root"}), "is root"},
        {WithModule(module, {"--listen", "127.0.0.1:0", "--password-file", "/nonexistent"}),
         "cannot read the password file"},
        {WithModule(module, {"--listen-fd", "200", "--password", "pw"}), "is not a socket"},
        {Serving(module, {"--tls-cert", "/etc/hostname"}), "give both --tls-cert and --tls-key"},
        {Serving(module, {"--tls-cert", "/nonexistent", "--tls-key", "/nonexistent"}),
         "cannot use the TLS certificate /nonexistent"},
        {Serving(module, {"--session-lifetime", "0"}), "--session-lifetime wants a number"},
    };
    for (const auto& [args, reason] : cases) {
        SCOPED_TRACE(reason);
        HostProcess host(args);
        ExpectRefusal(host, reason);
    }
}

TEST(HostStartup, RefusesToStartWithoutRoot) {
    HostProcess host(Serving(TEST_MODULE_PATH), /*asNobody=*/true);
    ExpectRefusal(host, "must be started as root");
}

// The supervisor keeps root and reads no network input; the front has no
// way back to root (no id of 0, no capability); each worker serves with the
// service user's effective ids and takes back a handler's left-over root.
TEST(HostPrivileges, FrontCannotBeRootWorkersKeepOnlySavedRootAndLeftOverRootIsRestored) {
    const std::string log = TempPath("access");
    int launcherPipe[2];
    ASSERT_EQ(pipe(launcherPipe), 0);  // inherited, as a launcher might leave it
    struct stat pipeInfo {};
    fstat(launcherPipe[1], &pipeInfo);
    const std::string pipeName = "pipe:[" + std::to_string(pipeInfo.st_ino) + "]";
    HostProcess host(
        Serving(TEST_MODULE_PATH, {"--access-log", log, "--workers", "2", "--min-workers", "2"}));
    close(launcherPipe[0]);
    close(launcherPipe[1]);
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    EXPECT_EQ(ProcStatus(host.Pid(), "Uid:"), "0 0 0 0");
    for (pid_t process : ChildrenNamed(host.Pid(), "farlink-front")) {
        for (const auto& fd :
             std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
            std::error_code ignored;
            EXPECT_NE(std::filesystem::read_symlink(fd.path(), ignored).string(), pipeName)
                << "the front kept an inherited descriptor";
        }
    }
    const std::vector<pid_t> fronts = ChildrenNamed(host.Pid(), "farlink-front");
    ASSERT_EQ(fronts.size(), 1u);
    EXPECT_EQ(ProcStatus(fronts[0], "Uid:"), "65534 65534 65534 65534");
    EXPECT_EQ(ProcStatus(fronts[0], "Gid:"), "65534 65534 65534 65534");
    EXPECT_EQ(ProcStatus(fronts[0], "Groups:"), "65534");
    EXPECT_EQ(ProcStatus(fronts[0], "CapPrm:"), "0000000000000000");
    EXPECT_EQ(ProcStatus(fronts[0], "CapBnd:"), "0000000000000000");
    EXPECT_EQ(ProcStatus(fronts[0], "NoNewPrivs:"), "1");
    const std::vector<pid_t> workers = ChildrenNamed(host.Pid(), "farlink-worker");
    ASSERT_EQ(workers.size(), 2u);
    for (pid_t worker : workers) {
        EXPECT_EQ(ProcStatus(worker, "Uid:"), "0 65534 0 65534");
        EXPECT_EQ(ProcStatus(worker, "Gid:"), "0 65534 0 65534");
        EXPECT_EQ(ProcStatus(worker, "Groups:"), "65534");
        EXPECT_EQ(ProcStatus(worker, "NoNewPrivs:"), "1");
    }

    HttpResult leak = LoggedInCall(host, "leak_root");
    EXPECT_EQ(leak.json["success"], true) << leak.body;
    for (pid_t worker : workers) EXPECT_EQ(ProcStatus(worker, "Uid:"), "0 65534 0 65534");
    Fetch("PUT", host.BaseUrl() + "/webapi/entry.cgi?x");

    // One line per request: TIME CLIENT METHOD PATH STATUS CALL RESULT LATENCY IDS ANSWERS
    const std::vector<std::string> lines = ReadLines(log);
    ASSERT_EQ(lines.size(), 3u);
    const std::string line = R"(\S+Z 127\.0\.0\.1:\d+ (GET|PUT) /webapi/(auth|entry)\.cgi )";
    EXPECT_TRUE(std::regex_match(
        lines[1],
        std::regex(line + "200 Test\\.Host/1/leak_root ok \\d+us ids-restored answers=1")))
        << lines[1];
    EXPECT_TRUE(
        std::regex_match(lines[2], std::regex(line + "405 - error=108 \\d+us ids-ok answers=0")))
        << lines[2];
    EXPECT_NE(host.StderrText().find("WARNING: a handler left effective ids 0/65534"),
              std::string::npos)
        << host.StderrText();
    unlink(log.c_str());
}

// A handler that kills its worker or never returns costs only its own
// request: it gets its code, a fresh worker takes the place, and the next
// request is served.
TEST(HostIsolation, CrashesAndHangsAnswerTheirCodesAndWorkersAreReplaced) {
    // In a sanitizer build the crash must stay a signal, not a report.
    const char* asan = std::getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", (std::string(asan ? asan : "") + ":handle_segv=0").c_str(), 1);
    const std::string log = TempPath("access");
    HostProcess host(Serving(TEST_MODULE_PATH, {"--access-log", log, "--workers", "2",
                                                "--min-workers", "2", "--handler-timeout", "1"}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    const std::vector<std::pair<std::string, std::string>> cases = {{"crash", "error=110,SIGSEGV"},
                                                                    {"abort", "error=110,SIGABRT"},
                                                                    {"hang", "error=111,killed"}};
    for (const auto& [method, result] : cases) {
        SCOPED_TRACE(method);
        const HttpResult answer = LoggedInCall(host, method);
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.json["error"]["code"], method == "hang" ? 111 : 110) << answer.body;
        EXPECT_EQ(LoggedInCall(host, "succeed_empty").body, R"({"success":true})");
        EXPECT_NE(ReadFile(log).find("Test.Host/1/" + method + " " + result), std::string::npos)
            << ReadFile(log);
        EXPECT_TRUE(
            WaitUntil([&] { return ChildrenNamed(host.Pid(), "farlink-worker").size() == 2; }));
    }
    const std::vector<pid_t> children = ChildrenNamed(host.Pid(), "farlink-worker");
    EXPECT_EQ(host.Finish(SIGTERM), 0) << host.StderrText();
    for (pid_t child : children) EXPECT_NE(kill(child, 0), 0) << "worker " << child << " left";
    unlink(log.c_str());
}

// A front that dies is replaced on the same socket: clients get answers
// again within a second (they log in again), and nothing is left over.
TEST(HostIsolation, AKilledFrontIsReplacedUnderLoadAndLeavesNoProcessBehind) {
    HostProcess host(Serving(TEST_MODULE_PATH, {"--workers", "2"}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    std::atomic<bool> done{false};
    auto load = std::async(std::launch::async, [&] {
        while (!done) LoggedInCall(host, "succeed_empty");
    });
    std::set<pid_t> seen;
    for (int kill = 0; kill < 10; ++kill) {
        const std::vector<pid_t> fronts = ChildrenNamed(host.Pid(), "farlink-front");
        ASSERT_EQ(fronts.size(), 1u) << kill;
        for (pid_t worker : ChildrenNamed(host.Pid(), "farlink-worker")) seen.insert(worker);
        seen.insert(fronts[0]);
        ::kill(fronts[0], SIGKILL);
        const auto killed = std::chrono::steady_clock::now();
        ASSERT_TRUE(WaitUntil([&] {
            return LoggedInCall(host, "succeed_empty").json["success"] == true;
        })) << kill;
        EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::seconds(1)) << kill;
        std::this_thread::sleep_for(std::chrono::seconds(1));  // past a young front's pause
    }
    done = true;
    load.get();
    for (int call = 0; call < 50; ++call) {
        ASSERT_EQ(LoggedInCall(host, "succeed_empty").json["success"], true) << call;
    }
    EXPECT_EQ(host.Finish(SIGTERM), 0) << host.StderrText();
    for (pid_t child : seen) EXPECT_NE(kill(child, 0), 0) << "process " << child << " left";
}

// Methods named like writes never overlap, whichever worker runs them; a
// full queue answers "busy" at once.
TEST(HostScheduling, ExclusiveMethodsRunOneAtATimeAndAFullQueueIsBusy) {
    const std::string counter = TempPath("counter");
    {
        HostProcess host(Serving(TEST_MODULE_PATH, {"--workers", "4"}));
        ASSERT_TRUE(host.WaitListening()) << host.StderrText();
        std::vector<std::future<int>> clients;
        for (int client = 0; client < 6; ++client) {
            clients.push_back(std::async(std::launch::async, [&] {
                int overlaps = 0;
                for (int call = 0; call < 5; ++call) {
                    HttpResult answer = LoggedInCall(host, "set_exclusive&counter=" + counter);
                    overlaps += answer.json["success"] != true;
                }
                return overlaps;
            }));
        }
        for (auto& client : clients) EXPECT_EQ(client.get(), 0);
    }
    HostProcess host(Serving(TEST_MODULE_PATH, {"--workers", "1", "--queue", "1"}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    const std::string started = TempPath("started");
    auto running = std::async(std::launch::async,
                              [&] { return LoggedInCall(host, "slow&started=" + started); });
    ASSERT_TRUE(WaitUntil([&] { return access(started.c_str(), F_OK) == 0; }));
    auto queued = std::async(std::launch::async, [&] { return LoggedInCall(host, "slow"); });
    ASSERT_TRUE(WaitUntil([&] {
        return queued.wait_for(std::chrono::milliseconds(0)) == std::future_status::ready ||
               access(started.c_str(), F_OK) == 0;
    }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the second one is queued
    const HttpResult busy = LoggedInCall(host, "succeed_empty");
    EXPECT_EQ(busy.status, 503);
    EXPECT_EQ(busy.json["error"]["code"], 112) << busy.body;
    EXPECT_EQ(running.get().body, R"({"success":true})");
    EXPECT_EQ(queued.get().body, R"({"success":true})");
    unlink(counter.c_str());
    unlink(started.c_str());
}

// One worker waits while nothing happens; calls that would wait get workers
// of their own, up to --workers, and those idle past their time end again.
TEST(HostScheduling, WorkersStartUnderLoadAndIdleOnesEnd) {
    HostProcess host(Serving(TEST_MODULE_PATH, {"--workers", "3", "--worker-idle-timeout", "1"}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    const auto workers = [&] { return ChildrenNamed(host.Pid(), "farlink-worker").size(); };
    EXPECT_EQ(workers(), 1u);
    std::vector<std::future<HttpResult>> calls;
    for (int call = 0; call < 3; ++call) {
        calls.push_back(std::async(std::launch::async, [&] { return LoggedInCall(host, "slow"); }));
    }
    EXPECT_TRUE(WaitUntil([&] { return workers() == 3; })) << workers();
    for (auto& call : calls) EXPECT_EQ(call.get().body, R"({"success":true})");
    EXPECT_TRUE(WaitUntil([&] { return workers() == 1; })) << workers();
    EXPECT_EQ(LoggedInCall(host, "succeed_empty").body, R"({"success":true})");
}

// What the service manager hears on NOTIFY_SOCKET: READY=1 only from a host
// that serves, once it does, and STOPPING=1 when it is told to stop.
TEST(HostStartup, TellsTheServiceManagerWhenItServesAndWhenItStops) {
    const std::string path = TempPath("notify");
    UniqueFd notify(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(notify.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    auto next = [&] {
        char state[64] = {};
        pollfd ready{notify.Get(), POLLIN, 0};
        if (poll(&ready, 1, 10000) != 1) return std::string("nothing");
        return std::string(state, std::max<ssize_t>(0, recv(notify.Get(), state, sizeof state, 0)));
    };

    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    HostProcess refused(Serving(BAD_MODULE_NULL_TABLE));
    EXPECT_EQ(refused.Finish(), 1);
    HostProcess host(Serving(TEST_MODULE_PATH));
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(next(), "READY=1") << "the first datagram, none from the host that did not start";
    EXPECT_TRUE(host.WaitListening(0)) << "ready before the host said it listens";
    EXPECT_EQ(LoggedInCall(host, "succeed_empty").json["success"], true);
    kill(host.Pid(), SIGTERM);
    EXPECT_EQ(next(), "STOPPING=1");
    EXPECT_EQ(host.Finish(), 0) << host.StderrText();
    unlink(path.c_str());
}

TEST(HostShutdown, SigtermFinishesTheSlowRequestInFlightThenExitsZero) {
    const std::string pidFile = TempPath("pid");
    HostProcess host(Serving(TEST_MODULE_PATH, {"--pid-file", pidFile}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    EXPECT_EQ(std::atoi(ReadFile(pidFile).c_str()), host.Pid());

    const std::string started = TempPath("started");
    auto slow = std::async(std::launch::async,
                           [&] { return LoggedInCall(host, "slow&started=" + started); });
    ASSERT_TRUE(WaitUntil([&] { return access(started.c_str(), F_OK) == 0; }));
    // The slow handler holds up no one else.
    EXPECT_EQ(LoggedInCall(host, "succeed_empty").json["success"], true);
    EXPECT_EQ(slow.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << "the quick request waited for the slow one";
    kill(host.Pid(), SIGTERM);

    HttpResult answer = slow.get();
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, R"({"success":true})");
    EXPECT_EQ(host.Finish(), 0) << host.StderrText();
    EXPECT_NE(access(pidFile.c_str(), F_OK), 0) << "pid file left behind";
    EXPECT_EQ(Fetch("GET", host.BaseUrl() + "/webapi/auth.cgi").status, 0) << "still accepting";
    unlink(started.c_str());
}

// A client that pipelines many requests, reads a little and resets leaves
// nothing the stop would wait for.
TEST(HostShutdown, AClientThatResetsMidAnswersDoesNotHoldTheStop) {
    HostProcess host(Serving(TEST_MODULE_PATH));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    const int client = ConnectFrom("127.0.0.1", PortOf(host.BaseUrl()));
    ASSERT_GE(client, 0);
    fcntl(client, F_SETFL, 0);
    std::string requests;
    for (int i = 0; i < 2000; ++i) requests += "GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    ASSERT_EQ(send(client, requests.data(), requests.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(requests.size()));
    char some[1000];
    ASSERT_GT(recv(client, some, sizeof some, MSG_WAITALL), 0);
    const linger reset{1, 0};
    setsockopt(client, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(client);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(host.Finish(SIGTERM), 0) << host.StderrText();
    EXPECT_EQ(host.StderrText().find("still running"), std::string::npos);
}

}  // namespace
}  // namespace farlink::host::test
