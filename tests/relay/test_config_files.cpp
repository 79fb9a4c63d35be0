// Configuration objects of the relay library against files in a scratch
// directory: what the box tests cannot reach through the host.
#include <farlink/file_io.h>
#include <gtest/gtest.h>
#include <orvo/relayd.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <random>
#include <thread>

#include "relay_test_support.h"

using namespace ORVO::Relay;
using farlink::WriteFileAtomically;
using relay_test::ParseJson;
using relay_test::ReadFile;
using relay_test::ReadJson;
using relay_test::WriteFile;

namespace {

class ConfFile : public ::testing::Test {
protected:
    relay_test::TempDir dir;
    const std::string path = dir / "orvorelayd.conf";
};

TEST_F(ConfFile, SectionSavesKeepTheRestOfTheDocument) {
    WriteFile(path, R"({"server_alias": {"alias": "old"}, "kivo": {"account": "a"},
        "server_control": {"host": "site.test", "region": "us"}, "server_id": "S1",
        "extra": {"kept": true}})");
    AliasConf alias(path.c_str());
    ASSERT_TRUE(alias.SetAliasName("new") && alias.Save());
    RelaydConf conf(path.c_str());
    conf.serverId = "S2";
    ASSERT_TRUE(conf.WriteServerId("") && conf.WriteControlServerHost("", "other.test"));
    const Json::Value document = ReadJson(path);
    EXPECT_EQ(document["server_alias"]["alias"], "new");
    EXPECT_EQ(document["kivo"]["account"], "a");
    EXPECT_EQ(document["server_control"]["host"], "other.test");
    EXPECT_EQ(document["server_control"]["region"], "us");
    EXPECT_EQ(document["server_id"], "S2");
    EXPECT_EQ(document["extra"]["kept"], true);
}

TEST_F(ConfFile, UnusableFilesGiveDefaultsAndRefusedValuesChangeNothing) {
    // The last is nested deeper than the JSON reader's stack limit.
    for (const std::string& text :
         {std::string("{not json"), std::string("[1, 2]"), std::string(),
          std::string(R"({"server_control": {"host": 7}})"),
          std::string(R"({"server_alias": {"alias": "x"}, "server_id": 12})"),
          std::string(1100, '[')}) {
        WriteFile(path, text);
        RelaydConf conf(path.c_str());
        EXPECT_EQ(conf.serverControl.GetHost(), FARLINK_PRIMARY_CONTROL_HOST) << text;
        EXPECT_EQ(conf.serverAlias.GetAliasName(), "") << text;
        EXPECT_TRUE(conf.IsValid()) << text;
    }
    EXPECT_FALSE(RelaydConf(dir.path().c_str()).Save());
    EXPECT_FALSE(RelaydConf((dir / "no/such/dir.conf").c_str()).Save());

    RelaydConf conf(path.c_str());
    ASSERT_TRUE(conf.Save());
    const std::string before = ReadFile(path);
    EXPECT_FALSE(conf.serverAlias.SetAliasName(std::string(64, 'a')));
    EXPECT_FALSE(conf.WriteControlServerHost("", ""));
    EXPECT_EQ(conf.serverControl.GetHost(), FARLINK_PRIMARY_CONTROL_HOST);
    EXPECT_EQ(ReadFile(path), before);
}

// A control server's answer is loaded into a record: all or nothing, checked.
TEST(ServerRecord, LoadingAndOverwriteAreAllOrNothingAndChecked) {
    ServerConf server(nullptr, nullptr);
    ASSERT_TRUE(server.LoadFromJson(ParseJson(R"({"host": "a.test", "region": "jp"})")));
    EXPECT_FALSE(server.LoadFromJson(ParseJson(R"({"region": "x"})"))) << "a record needs its host";
    for (const char* text : {R"({"host": "b.test", "port": "443"})", R"({"host": ""})",
                             R"({"host": "t.test", "region": 5})", R"("a.test")", "null"}) {
        EXPECT_FALSE(server.LoadFromJson(ParseJson(text))) << text;
        EXPECT_FALSE(server.Overwrite(ParseJson(text))) << text;
        EXPECT_EQ(server.GetHost() + " " + server.GetRegion(), "a.test jp") << text;
    }
    // Well-typed but unusable values load and are then refused by IsValid,
    // which also keeps them out of the file.
    for (const char* text :
         {R"({"host": "c.test", "port": 0})", R"({"host": "c.test", "scheme": "ftp"})",
          R"({"host": "c.test", "path": "Serv.php"})"}) {
        ServerConf record(nullptr, nullptr);
        EXPECT_TRUE(record.LoadFromJson(ParseJson(text))) << text;
        EXPECT_FALSE(record.IsValid()) << text;
    }
    // Overwrite takes the known members only and keeps the others' values.
    ASSERT_TRUE(server.Overwrite(ParseJson(R"({"host": "s.test", "region": "eu", "other": 1})")));
    EXPECT_EQ(server.GetHost() + " " + server.GetRegion(), "s.test eu");
    EXPECT_EQ(server.GetDDNSDomain(), FARLINK_DEFAULT_DIRECT_DOMAIN);

    EXPECT_EQ(server.GetUrl("x.php"), "https://s.test/x.php");
    ASSERT_TRUE(server.Overwrite(ParseJson(R"({"host": "h.test", "scheme": "http", "port": 80})")));
    EXPECT_EQ(server.GetUrl(nullptr), "http://h.test/Serv.php");
    ASSERT_TRUE(server.Overwrite(ParseJson(R"({"host": "::1", "port": 8080})")));
    EXPECT_EQ(server.GetUrl(nullptr), "http://[::1]:8080/Serv.php");
}

class AtomicWrite : public ::testing::Test {
protected:
    relay_test::TempDir dir;
    const std::string path = dir / "file.json";
};

TEST_F(AtomicWrite, ReplacesContentWithModeOrKeepsTheOldFileAndLeavesNoTemporary) {
    ASSERT_TRUE(WriteFileAtomically(path, "one", 0600));
    ASSERT_TRUE(WriteFileAtomically(path, "two", 0644));
    EXPECT_EQ(ReadFile(path), "two");
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);

    // A directory in the target's place makes the final rename fail.
    const std::string blocked = dir / "blocked";
    ASSERT_EQ(mkdir(blocked.c_str(), 0755), 0);
    WriteFile(blocked + "/inside", "x");
    EXPECT_FALSE(WriteFileAtomically(blocked, "new", 0644));
    EXPECT_EQ(dir.Entries(), (std::vector<std::string>{"blocked", "file.json"}));
    EXPECT_FALSE(WriteFileAtomically(dir / "missing/file", "new", 0644));
    EXPECT_FALSE(WriteFileAtomically("", "new", 0644));
}

TEST_F(AtomicWrite, ConcurrentReaderNeverSeesATornFile) {
    const std::string small = R"({"a": 1})";
    const std::string large = "{\"b\": \"" + std::string(256 * 1024, 'x') + "\"}";
    ASSERT_TRUE(WriteFileAtomically(path, small, 0644));
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 60; ++i) WriteFileAtomically(path, i % 2 ? small : large, 0644);
        done = true;
    });
    int reads = 0;
    while (!done) {
        const std::string seen = ReadFile(path);
        EXPECT_TRUE(seen == small || seen == large) << "torn read of " << seen.size() << " bytes";
        ++reads;
    }
    writer.join();
    EXPECT_GT(reads, 0);
}

TEST_F(AtomicWrite, WritersKilledAtAnyPointLeaveAWholeFileAndNoTemporary) {
    const std::string small = R"({"a": 1})";
    const std::string large = "{\"b\": \"" + std::string(64 * 1024, 'x') + "\"}";
    ASSERT_TRUE(WriteFileAtomically(path, small, 0644));
    std::mt19937 random(std::random_device{}());
    for (int kill = 0; kill < 100; ++kill) {
        const pid_t writer = fork();
        ASSERT_GE(writer, 0);
        if (writer == 0) {
            for (int i = 0;; ++i) WriteFileAtomically(path, i % 2 ? small : large, 0644);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        ::kill(writer, SIGKILL);
        ASSERT_EQ(waitpid(writer, nullptr, 0), writer);
        const std::string seen = ReadFile(path);
        ASSERT_TRUE(seen == small || seen == large) << "torn file of " << seen.size() << " bytes";
    }
    ASSERT_TRUE(WriteFileAtomically(path, small, 0644));
    EXPECT_EQ(dir.Entries(), std::vector<std::string>{"file.json"});
}

}  // namespace
