// Runs the real farlink-controlserver (next to the test binary) on loopback
// with ports of its own choosing and a throw-away CA and certificate.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <netinet/in.h>
#include <orvo/relayd.h>
#include <poll.h>
#include <private_root.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace farlink_test {

class ControlServer {
public:
    ~ControlServer() {
        Stop();
        if (!dir_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(dir_, ignored);  // keys included
        }
    }

    // Certificates, start, wait for "ready". Failures are test failures.
    void Start() {
        char dirTemplate[] = "/tmp/farlink-controlserver-XXXXXX";
        ASSERT_NE(mkdtemp(dirTemplate), nullptr);
        dir_ = dirTemplate;
        MakeCertificates();
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            const std::string program = ProgramDir() + "/farlink-controlserver";
            const std::vector<std::string> args = {program,
                                                   "--cert",
                                                   dir_ + "/server.pem",
                                                   "--key",
                                                   dir_ + "/server.key",
                                                   "--records",
                                                   RecordsPath(),
                                                   "--bind",
                                                   "127.0.0.1",
                                                   "--https-port",
                                                   "0",
                                                   "--http-port",
                                                   "0",
                                                   "--control",
                                                   "127.0.0.1:0",
                                                   "--ports-file",
                                                   dir_ + "/ports.json"};
            std::vector<char*> argv;
            for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
            argv.push_back(nullptr);
            execv(program.c_str(), argv.data());
            _exit(127);
        }
        close(out[1]);
        const std::string line = ReadLine(out[0]);
        close(out[0]);
        ASSERT_EQ(line, "ready") << "farlink-controlserver did not start";
        Json::Value ports = ReadJson(dir_ + "/ports.json");
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

    std::string Url(const std::string& host = "127.0.0.1", const std::string& path = "/Serv.php",
                    bool https = false) const {
        return (https ? "https://" : "http://") + host + ":" +
               std::to_string(https ? httpsPort : httpPort) + path;
    }

    // POSTs to the fault-control interface; false unless it said ok.
    bool Control(const std::string& path, const Json::Value& body = Json::objectValue) const {
        ORVO::Relay::Request request(
            "http://127.0.0.1:" + std::to_string(controlPort) + "/control/" + path, body, true);
        Json::Value answer;
        return request.Send() && request.GetResponse(answer) && answer["ok"].asBool();
    }
    bool Fault(const std::string& mode, const Json::Value& extra = Json::objectValue) const {
        Json::Value fault = extra;
        fault["mode"] = mode;
        return Control("fault", fault);
    }

    // The records file, one JSON value per line.
    std::vector<Json::Value> Records() const {
        std::vector<Json::Value> records;
        std::ifstream in(RecordsPath());
        for (std::string line; std::getline(in, line);) {
            std::istringstream text(line);
            Json::Value record;
            if (Json::parseFromStream(Json::CharReaderBuilder(), text, &record, nullptr)) {
                records.push_back(record);
            }
        }
        return records;
    }

    std::string CaPath() const { return dir_ + "/ca.pem"; }

    int httpPort = 0;
    int httpsPort = 0;
    int controlPort = 0;

private:
    std::string RecordsPath() const { return dir_ + "/records.jsonl"; }

    static std::string ProgramDir() {
        char self[PATH_MAX] = {};
        const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
        std::string path(self, length > 0 ? length : 0);
        return path.substr(0, path.rfind('/'));
    }

    void MakeCertificates() {
        const std::string d = dir_;
        const std::string script =
            "(cd " + d +
            " && printf 'subjectAltName=DNS:*.farlink.test,DNS:*.farlink-cn.test,"
            "DNS:localhost,IP:127.0.0.1\\n' > san.cnf"
            " && openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2"
            " -subj /CN=farlink-test-ca"
            " && openssl req -newkey rsa:2048 -nodes -keyout server.key -out server.csr"
            " -subj /CN=localhost"
            " && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
            " -out server.pem -days 2 -extfile san.cnf)";
        ASSERT_EQ(std::system((script + " >/dev/null 2>&1").c_str()), 0) << "openssl failed";
    }

    static std::string ReadLine(int fd) {
        std::string line;
        char c = 0;
        pollfd watch{fd, POLLIN, 0};
        while (poll(&watch, 1, 10000) == 1 && read(fd, &c, 1) == 1 && c != '\n') line += c;
        return line;
    }

    static Json::Value ReadJson(const std::string& path) {
        std::ifstream in(path);
        Json::Value value;
        Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr);
        return value;
    }

    std::string dir_;
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

// A TCP port on loopback that nothing listens on.
inline int ClosedPort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

}  // namespace farlink_test
