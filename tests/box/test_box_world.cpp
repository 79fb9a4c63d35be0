// Self-tests of the emulated box: its name server and the fixture's reset.
// Runs inside a box.
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "box_fixture.h"

namespace farlink_test {
namespace {

// A query's rcode (-1: no answer at all) and its addresses as they came off
// the wire, so that no resolver reorders them.
using Answer = std::pair<int, std::vector<std::string>>;

Answer Query(const std::string& name, int type) {
    struct __res_state state {};
    Answer answer{-1, {}};
    unsigned char query[NS_PACKETSZ], reply[NS_PACKETSZ * 4];
    if (res_ninit(&state) != 0) return answer;
    const int size = res_nmkquery(&state, ns_o_query, name.c_str(), ns_c_in, type, nullptr, 0,
                                  nullptr, query, sizeof query);
    const int length = size < 0 ? -1 : res_nsend(&state, query, size, reply, sizeof reply);
    res_nclose(&state);
    ns_msg message;
    if (length < 0 || ns_initparse(reply, length, &message) != 0) return answer;
    answer.first = ns_msg_getflag(message, ns_f_rcode);
    for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
        ns_rr record;
        char text[INET6_ADDRSTRLEN] = {};
        if (ns_parserr(&message, ns_s_an, i, &record) != 0) continue;
        inet_ntop(ns_rr_type(record) == ns_t_a ? AF_INET : AF_INET6, ns_rr_rdata(record), text,
                  sizeof(text));
        answer.second.push_back(text);
    }
    return answer;
}

using BoxWorldTest = BoxTest;

// Missing types are "no data", missing names NXDOMAIN, never a refusal; the
// records of a name keep their order.
TEST_F(BoxWorldTest, NameServerAnswersForTheDeployment) {
    for (const char* name : {"global.farlink.test", "global.farlink-cn.test", "rs.farlink.test",
                             "cnc.farlink.test", "cnc.farlink-cn.test", "vac.farlink.test",
                             "relayinfo.farlink.test", "direct.farlink.test"}) {
        EXPECT_EQ(Query(name, ns_t_a), Answer(ns_r_noerror, {"127.0.10.1"})) << name;
        EXPECT_EQ(Query(name, ns_t_aaaa), Answer(ns_r_noerror, {"fd00:10::1"})) << name;
    }
    const struct {
        const char* name;
        int type;
        Answer answer;
    } cases[] = {
        {"multi-a.farlink.test",
         ns_t_a,
         {ns_r_noerror, {"127.0.20.1", "127.0.20.2", "127.0.20.3"}}},
        {"v6only.farlink.test", ns_t_a, {ns_r_noerror, {}}},
        {"v6only.farlink.test", ns_t_aaaa, {ns_r_noerror, {"fd00:20::1"}}},
        {"both.farlink.test", ns_t_a, {ns_r_noerror, {"127.0.20.4"}}},
        {"both.farlink.test", ns_t_aaaa, {ns_r_noerror, {"fd00:20::4"}}},
        {"nothing.farlink.test", ns_t_a, {ns_r_nxdomain, {}}},
        {"example.com", ns_t_a, {ns_r_nxdomain, {}}},
    };
    for (int round = 0; round < 3; ++round) {
        for (const auto& c : cases) EXPECT_EQ(Query(c.name, c.type), c.answer) << c.name;
    }
}

TEST_F(BoxWorldTest, SetUpRestoresFilesInPlace) {
    const char* files[] = {"/usr/orvo/etc/orvorelayd/auth.conf", "/etc/orvoinfo.conf",
                           "/usr/orvo/etc/orvokivo/account.conf"};
    std::vector<std::string> before;
    for (const char* file : files) before.push_back(ReadFile(file));
    ASSERT_FALSE(before[0].empty());
    for (const char* file : files) WriteFile(file, "{broken");
    WriteFile("/usr/orvo/etc/orvorelayd/misc.conf.bad", "{}");
    WriteDaemonEmulation(Json::Value(Json::objectValue));
    SetUp();

    for (size_t i = 0; i < before.size(); ++i) EXPECT_EQ(ReadFile(files[i]), before[i]) << files[i];
    EXPECT_FALSE(std::filesystem::exists("/usr/orvo/etc/orvorelayd/misc.conf.bad"));
    EXPECT_FALSE(std::filesystem::exists("/usr/orvo/var/lib/orvorelayd/emulation.conf"));
    EXPECT_TRUE(std::filesystem::equivalent("/etc/orvoinfo.conf", BoxRunDir() + "/orvoinfo.conf"))
        << "the host settings file must stay bound to the run directory";
    EXPECT_FALSE(DaemonRunning());
}

}  // namespace
}  // namespace farlink_test
