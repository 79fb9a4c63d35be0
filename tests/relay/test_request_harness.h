// Runs the real farlink-controlserver (next to the test binary) on loopback
// with ports of its own choosing and a throw-away CA and certificate.
#pragma once

#include <gtest/gtest.h>
#include <orvo/relayd.h>
#include <private_root.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "relay_test_support.h"

namespace farlink_test {

class ControlServer {
public:
    ~ControlServer() { Stop(); }

    // Certificate, start, wait for "ready". Failures are test failures.
    void Start() {
        // A self-signed certificate that is its own CA.
        const std::string certificate =
            "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost -keyout " +
            dir_ / "server.key" + " -out " + CaPath() +
            " -addext subjectAltName=DNS:*.farlink.test,DNS:*.farlink-cn.test,DNS:localhost,"
            "IP:127.0.0.1 >/dev/null 2>&1";
        ASSERT_EQ(std::system(certificate.c_str()), 0);
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            const std::string program =
                std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                "farlink-controlserver";
            execl(program.c_str(), program.c_str(), "--cert", CaPath().c_str(), "--key",
                  (dir_ / "server.key").c_str(), "--records", RecordsPath().c_str(), "--bind",
                  "127.0.0.1", "--https-port", "0", "--http-port", "0", "--control", "127.0.0.1:0",
                  "--ports-file", (dir_ / "ports.json").c_str(), nullptr);
            _exit(127);
        }
        close(out[1]);
        FILE* output = fdopen(out[0], "r");
        char line[16] = {};
        const bool ready = std::fgets(line, sizeof line, output) != nullptr;
        std::fclose(output);
        ASSERT_TRUE(ready && std::string(line) == "ready\n") << "the server did not start";
        const Json::Value ports = relay_test::ReadJson(dir_ / "ports.json");
        httpPort = ports["http"].asInt();
        httpsPort = ports["https"].asInt();
        controlPort = ports["control"].asInt();
    }

    // SIGTERM; the exit status (-1 when not running).
    int Stop() {
        if (pid_ <= 0) return -1;
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string Url(const std::string& host = "127.0.0.1", bool https = false) const {
        return (https ? "https://" : "http://") + host + ":" +
               std::to_string(https ? httpsPort : httpPort) + "/Serv.php";
    }

    // POSTs to the fault-control interface; false unless it said ok.
    bool Control(const std::string& path, const Json::Value& body = Json::objectValue) const {
        ORVO::Relay::Request request(
            "http://127.0.0.1:" + std::to_string(controlPort) + "/control/" + path, body, true);
        Json::Value answer;
        return request.Send() && request.GetResponse(answer) && answer["ok"].asBool();
    }
    bool Fault(const std::string& mode, Json::Value fault = Json::objectValue) const {
        fault["mode"] = mode;
        return Control("fault", fault);
    }

    // The records file, one JSON value per line.
    std::vector<Json::Value> Records() const {
        std::vector<Json::Value> records;
        std::ifstream in(RecordsPath());
        for (std::string line; std::getline(in, line);)
            records.push_back(relay_test::ParseJson(line));
        return records;
    }

    std::string CaPath() const { return dir_ / "server.pem"; }

    int httpPort = 0;
    int httpsPort = 0;
    int controlPort = 0;

private:
    std::string RecordsPath() const { return dir_ / "records.jsonl"; }

    farlink_test::TempDir dir_;  // keys included
    pid_t pid_ = -1;
};

// Every test of these suites runs against one server, reset before each test,
// inside the private view of /usr and /etc.
class ControlServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        std::string error;
        ASSERT_TRUE(EnterPrivateRoot(&error)) << error;
        server_ = std::make_unique<ControlServer>();
        server_->Start();
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(server_->Stop(), 0) << "the server must exit cleanly on SIGTERM";
        server_.reset();
    }
    void SetUp() override {
        ASSERT_TRUE(server_ != nullptr && server_->httpPort > 0);
        ASSERT_TRUE(server_->Control("reset"));
    }

    static ControlServer& Server() { return *server_; }

private:
    static inline std::unique_ptr<ControlServer> server_;
};

// A loopback port that nothing listens on.
constexpr char kClosedPort[] = "1";

}  // namespace farlink_test
