// Self-tests of the emulated box: its name server, system log, host, control
// server certificate and the fixture's reset. Runs inside a box.
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <curl/curl.h>
#include <gmock/gmock.h>
#include <netdb.h>
#include <resolv.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "box_fixture.h"

namespace farlink_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// --- DNS, read off the wire so that no resolver reorders the records -------------

struct DnsAnswer {
    int rcode = -1;  // -1: no answer at all
    std::vector<std::string> addresses;
};

DnsAnswer Query(const std::string& name, int type) {
    struct __res_state state {};
    DnsAnswer answer;
    if (res_ninit(&state) != 0) return answer;
    unsigned char reply[NS_PACKETSZ * 4];
    const int length = res_nquery(&state, name.c_str(), ns_c_in, type, reply, sizeof(reply));
    const int herr = state.res_h_errno;
    res_nclose(&state);
    if (length < 0) {
        // res_nquery hides the reply of a failed query; the error tells which.
        answer.rcode = herr == HOST_NOT_FOUND ? ns_r_nxdomain
                       : herr == NO_DATA      ? ns_r_noerror
                       : herr == TRY_AGAIN    ? -1
                                              : ns_r_refused;
        return answer;
    }
    ns_msg message;
    if (ns_initparse(reply, length, &message) != 0) return answer;
    answer.rcode = ns_msg_getflag(message, ns_f_rcode);
    for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
        ns_rr record;
        if (ns_parserr(&message, ns_s_an, i, &record) != 0) continue;
        char text[INET6_ADDRSTRLEN] = {};
        const int family = ns_rr_type(record) == ns_t_a ? AF_INET : AF_INET6;
        inet_ntop(family, ns_rr_rdata(record), text, sizeof(text));
        answer.addresses.push_back(text);
    }
    return answer;
}

using BoxDnsTest = BoxTest;

TEST_F(BoxDnsTest, ControlServerNamesLeadToTheControlServer) {
    for (const char* name : {"global.farlink.test", "global.farlink-cn.test", "rs.farlink.test",
                             "cnc.farlink.test", "cnc.farlink-cn.test", "vac.farlink.test",
                             "relayinfo.farlink.test", "direct.farlink.test"}) {
        EXPECT_THAT(Query(name, ns_t_a).addresses, ElementsAre("127.0.10.1")) << name;
        EXPECT_THAT(Query(name, ns_t_aaaa).addresses, ElementsAre("fd00:10::1")) << name;
    }
}

TEST_F(BoxDnsTest, SeveralRecordsKeepTheirOrder) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_THAT(Query("multi-a.farlink.test", ns_t_a).addresses,
                    ElementsAre("127.0.20.1", "127.0.20.2", "127.0.20.3"));
    }
}

TEST_F(BoxDnsTest, MissingTypesAreNoDataAndMissingNamesNxdomainNeverRefused) {
    const DnsAnswer v4OfV6Only = Query("v6only.farlink.test", ns_t_a);
    EXPECT_EQ(v4OfV6Only.rcode, ns_r_noerror);
    EXPECT_THAT(v4OfV6Only.addresses, IsEmpty());
    EXPECT_THAT(Query("v6only.farlink.test", ns_t_aaaa).addresses, ElementsAre("fd00:20::1"));
    EXPECT_THAT(Query("both.farlink.test", ns_t_a).addresses, ElementsAre("127.0.20.4"));
    EXPECT_THAT(Query("both.farlink.test", ns_t_aaaa).addresses, ElementsAre("fd00:20::4"));
    EXPECT_EQ(Query("nothing.farlink.test", ns_t_a).rcode, ns_r_nxdomain);
    EXPECT_EQ(Query("example.com", ns_t_a).rcode, ns_r_nxdomain);
}

TEST_F(BoxDnsTest, OutageSilencesTheResolverUntilItEnds) {
    {
        ScopedDnsOutage outage;
        EXPECT_EQ(Query("global.farlink.test", ns_t_a).rcode, -1);
    }
    EXPECT_THAT(Query("global.farlink.test", ns_t_a).addresses, ElementsAre("127.0.10.1"));
}

// --- system log ---------------------------------------------------------------------

using BoxSyslogTest = BoxTest;

TEST_F(BoxSyslogTest, PrioritiesAndLocationsArriveIntact) {
    const std::string token = std::to_string(getpid());
    openlog("boxself", LOG_PID, LOG_USER);
    syslog(LOG_AUTH | LOG_DEBUG, "utils:42 WARNING: trace %s", token.c_str());
    syslog(LOG_ERR, "farlink.sni.v1:7 two\nlines %s\n", token.c_str());
    closelog();

    const auto trace = WaitForSyslog("trace " + token);
    ASSERT_TRUE(trace);
    EXPECT_EQ(trace->priority, 39);
    EXPECT_EQ(trace->ident, "boxself");
    EXPECT_EQ(trace->source, "utils");
    EXPECT_EQ(trace->line, 42);
    EXPECT_EQ(trace->message, "WARNING: trace " + token);

    const auto error = WaitForSyslog("lines " + token);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->priority, 11);
    EXPECT_EQ(error->source, "farlink.sni.v1");
    EXPECT_EQ(error->line, 7);
    EXPECT_EQ(error->message, "two\\nlines " + token) << "one message, one line";
}

TEST(SyslogLineParsing, TextWithoutLocationIsKeptWhole) {
    const SyslogLine line = ParseSyslogLine("<30>Jan  2 03:04:05 dnsmasq[12]: started: ok");
    EXPECT_EQ(line.priority, 30);
    EXPECT_EQ(line.ident, "dnsmasq");
    EXPECT_EQ(line.source, "");
    EXPECT_EQ(line.line, -1);
    EXPECT_EQ(line.message, "started: ok");
}

// A second log daemon on a socket of its own: everything queued when it is
// told to stop must still reach the file.
TEST_F(BoxSyslogTest, StoppingTheLogDaemonLosesNothingQueued) {
    const std::string dir = BoxRunDir() + "/drain-test";
    std::filesystem::create_directories(dir);
    const std::string socketPath = dir + "/log.sock", output = dir + "/log.txt";
    std::filesystem::remove(output);
    const std::string daemon =
        std::string(std::getenv("FARLINK_BOX_BUILD_DIR")) + "/bin/farlink-syslogd";
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        execl(daemon.c_str(), daemon.c_str(), "--socket", socketPath.c_str(), "--output",
              output.c_str(), nullptr);
        _exit(127);
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int client = socket(AF_UNIX, SOCK_DGRAM, 0);
    while (connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        usleep(10 * 1000);
    constexpr int kMessages = 200;  // within what a datagram socket lets queue
    kill(pid, SIGSTOP);             // let everything queue up unread
    for (int i = 0; i < kMessages; ++i) {
        const std::string message = "<11>drain:" + std::to_string(i) + " queued";
        ASSERT_GT(send(client, message.data(), message.size(), MSG_DONTWAIT), 0) << i;
    }
    close(client);
    kill(pid, SIGTERM);
    kill(pid, SIGCONT);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    const auto lines = ReadLines(output);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kMessages));
    EXPECT_EQ(lines.back(), "<11>drain:" + std::to_string(kMessages - 1) + " queued");
}

// --- the host and the control server ----------------------------------------------------

using BoxServicesTest = BoxTest;

TEST_F(BoxServicesTest, HostAnswersAndGivesUpRoot) {
    const Json::Value answer = Call("ORVO.Core.Farlink", 1, "status");
    ASSERT_TRUE(answer.isObject());
    EXPECT_TRUE(answer["success"].isBool()) << answer.toStyledString();
    ExpectHostIdsDropped();
}

CURLcode FetchOverTls(const std::string& url) {
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 20L);
    return curl_easy_perform(curl.get());
}

TEST_F(BoxServicesTest, ControlServerCertificateVerifiesWithTheBoxCa) {
    EXPECT_EQ(FetchOverTls("https://global.farlink.test/"), CURLE_OK);
    EXPECT_EQ(FetchOverTls("https://cnc.farlink-cn.test/"), CURLE_OK);
    // The certificate names host names only.
    EXPECT_EQ(FetchOverTls("https://127.0.10.1/"), CURLE_PEER_FAILED_VERIFICATION);
}

// --- the fixture's reset ----------------------------------------------------------------

bool SameFile(const std::string& a, const std::string& b) {
    struct stat first {
    }, second{};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

using BoxResetTest = BoxTest;

TEST_F(BoxResetTest, SetUpRestoresFilesInPlace) {
    const std::string authConf = ReadFile(RelayConfPath("auth.conf"));
    const std::string hostInfo = ReadFile("/etc/orvoinfo.conf");
    const std::string account = ReadFile("/usr/orvo/etc/orvokivo/account.conf");
    ASSERT_FALSE(authConf.empty());

    WriteFile(RelayConfPath("auth.conf"), "{broken");
    WriteFile(RelayConfPath("misc.conf.bad"), "{}");
    WriteHostInfo("farlink_enable_failover=\"true\"\n");
    WriteAccount(Json::Value(Json::objectValue));
    WriteDaemonEmulation(Json::Value(Json::objectValue));
    SetUp();

    EXPECT_EQ(ReadFile(RelayConfPath("auth.conf")), authConf);
    EXPECT_FALSE(std::filesystem::exists(RelayConfPath("misc.conf.bad")));
    EXPECT_EQ(ReadFile("/etc/orvoinfo.conf"), hostInfo);
    EXPECT_EQ(ReadFile("/usr/orvo/etc/orvokivo/account.conf"), account);
    EXPECT_FALSE(std::filesystem::exists("/usr/orvo/var/lib/orvorelayd/emulation.conf"));
    EXPECT_TRUE(SameFile("/etc/orvoinfo.conf", BoxRunDir() + "/orvoinfo.conf"))
        << "the host settings file must stay bound to the run directory";
    EXPECT_FALSE(DaemonRunning());
}

}  // namespace
}  // namespace farlink_test
