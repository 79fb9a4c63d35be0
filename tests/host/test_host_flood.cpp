// Connection floods against farlink-host: idle connections by the
// thousand under a low descriptor limit, one address hogging slots, and a
// client that sends its request a byte at a time. A signed-in client keeps
// being answered, the host neither spins nor floods its log, and it closes
// what does not deliver a request in time.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <thread>

#include "host_harness.h"
#include "test_processes.h"

namespace farlink::host::test {
namespace {

using Clock = std::chrono::steady_clock;
using farlink_test::ChildrenNamed;

std::size_t CountOpen(const std::vector<int>& fds) {
    std::size_t open = 0;
    for (int fd : fds) open += !ClosedByPeer(fd);
    return open;
}

// CPU time (user + system) of the host's processes, in clock ticks.
long HostCpuTicks(pid_t supervisor) {
    long ticks = 0;
    std::vector<pid_t> pids = ChildrenNamed(supervisor, "farlink-front");
    for (pid_t worker : ChildrenNamed(supervisor, "farlink-worker")) pids.push_back(worker);
    pids.push_back(supervisor);
    for (pid_t pid : pids) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string text((std::istreambuf_iterator<char>(stat)), {});
        std::istringstream fields(text.substr(text.rfind(')') + 2));
        std::string field;
        for (int i = 3; i <= 15 && fields >> field; ++i) {
            if (i == 14 || i == 15) ticks += std::stol(field);
        }
    }
    return ticks;
}

struct Closer {
    std::vector<int>& fds;
    ~Closer() {
        for (int fd : fds) close(fd);
    }
};

// What a signed-in client saw while a flood was on, and what the host spent.
struct Weather {
    int answered = 0;
    std::chrono::milliseconds slowest{0};
    double cpuShare = 0;  // of one core
    std::size_t logGrowth = 0;
};

// Calls the host as a signed-in client every 250 ms for `seconds`; `tick`
// runs after each call.
template <typename Tick>
Weather Watch(HostProcess& host, const Session& session, int seconds, Tick tick) {
    Weather weather;
    const std::size_t logBefore = host.StderrText().size();
    const long cpuBefore = HostCpuTicks(host.Pid());
    const Clock::time_point start = Clock::now();
    while (Clock::now() - start < std::chrono::seconds(seconds)) {
        const Clock::time_point asked = Clock::now();
        const HttpResult answer = Fetch(InSession(
            session, "GET",
            host.BaseUrl() + "/webapi/entry.cgi?api=Test.Host&version=1&method=succeed_empty"));
        weather.slowest =
            std::max(weather.slowest,
                     std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - asked));
        weather.answered += answer.body == R"({"success":true})";
        tick();
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    weather.cpuShare =
        static_cast<double>(HostCpuTicks(host.Pid()) - cpuBefore) / sysconf(_SC_CLK_TCK) / elapsed;
    weather.logGrowth = host.StderrText().size() - logBefore;
    std::printf("answered %d calls, slowest %lld ms, host CPU %.0f%% of a core, log +%zu bytes\n",
                weather.answered, static_cast<long long>(weather.slowest.count()),
                100 * weather.cpuShare, weather.logGrowth);
    return weather;
}

TEST(HostFlood, IdleSlowAndSpreadFloodsCannotTakeTheHostAway) {
    rlimit ours{};
    getrlimit(RLIMIT_NOFILE, &ours);
    ours.rlim_cur = ours.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &ours), 0);
    ASSERT_GE(ours.rlim_cur, 4096u);

    // A common default on a NAS: 1,024 descriptors.
    HostProcess host(
        Serving(TEST_MODULE_PATH, {"--workers", "2", "--max-connections", "300", "--header-timeout",
                                   "2", "--keepalive-timeout", "2"}),
        /*asNobody=*/false, /*openFiles=*/1024);
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    const int port = PortOf(host.BaseUrl());
    const Session session = LoggedIn(host);

    // 1,500 idle connections from one address, and a request sent a byte
    // at a time from another.
    std::vector<int> idle;
    Closer closeIdle{idle};
    for (int i = 0; i < 1500; ++i) idle.push_back(ConnectFrom("127.0.1.2", port));
    const int slow = ConnectFrom("127.0.3.1", port);
    std::vector<int> slowOne{slow};
    Closer closeSlow{slowOne};
    const std::string request = "GET /webapi/auth.cgi HTTP/1.1\r\nHost: x\r\n\r\n";
    std::size_t sent = 0;
    bool slowClosed = false;
    std::size_t heldAfterASecond = 0;
    const Clock::time_point flooded = Clock::now();
    const Weather oneAddress = Watch(host, session, 5, [&] {
        if (!slowClosed && sent < request.size())
            sent += send(slow, &request[sent], 1, MSG_NOSIGNAL) == 1;
        slowClosed = slowClosed || ClosedByPeer(slow);
        if (heldAfterASecond == 0 && Clock::now() - flooded > std::chrono::seconds(1))
            heldAfterASecond = CountOpen(idle);
    });
    EXPECT_GE(oneAddress.answered, 15);
    EXPECT_LT(oneAddress.slowest, std::chrono::milliseconds(1000)) << "the signed-in client waited";
    EXPECT_LT(oneAddress.cpuShare, 0.3);
    EXPECT_LT(oneAddress.logGrowth, 100u * 1024) << "log flood";
    EXPECT_TRUE(slowClosed) << "the request sent a byte at a time was not cut off";
    // Before their time-out only the address's share is still open.
    EXPECT_LE(heldAfterASecond, 64u) << "one address held more than its share";
    EXPECT_TRUE(
        farlink_test::WaitUntil([&] { return CountOpen(idle) == 0; }, std::chrono::seconds(10)))
        << CountOpen(idle) << " idle connections still open";

    // From many addresses, beyond the cap: the host stops accepting instead
    // of spinning, and takes the rest as the idle ones time out.
    std::vector<int> spread;
    Closer closeSpread{spread};
    for (int i = 0; i < 400; ++i)
        spread.push_back(ConnectFrom("127.0.2." + std::to_string(1 + i % 8), port));
    const Weather manyAddresses = Watch(host, session, 3, [] {});
    EXPECT_LT(manyAddresses.cpuShare, 0.3);
    EXPECT_LT(manyAddresses.logGrowth, 100u * 1024) << "log flood";
    EXPECT_TRUE(
        farlink_test::WaitUntil([&] { return CountOpen(spread) == 0; }, std::chrono::seconds(15)))
        << CountOpen(spread) << " connections still open";

    EXPECT_EQ(LoggedInCall(host, "succeed_empty").body, R"({"success":true})");
    EXPECT_EQ(host.Finish(SIGTERM), 0) << host.StderrText();
}

}  // namespace
}  // namespace farlink::host::test
