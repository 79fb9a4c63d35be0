// The control server's answers as the relay library takes them: register-site
// discovery, server registration and the two alias requests, each sent to a
// server on the loopback interface that answers with the input. The input's
// first byte picks the exchange, the second the HTTP status, the rest is the
// answer's body. Runs in a private root, where orvorelayd.conf names that
// server as the register site.
#include <arpa/inet.h>
#include <farlink/file_io.h>
#include <farlink/unique_fd.h>
#include <netinet/in.h>
#include <orvo/paths.h>
#include <orvo/relayd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "fuzz_check.h"
#include "private_root.h"

namespace {

using namespace ORVO::Relay;

constexpr int kStatuses[] = {200, 201, 204, 206, 299, 301, 302, 304, 400,
                             401, 404, 405, 429, 500, 501, 503, 599};

// Answers every connection with the current answer, one at a time.
class AnswerServer {
public:
    AnswerServer() {
        listener_ = farlink::UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        FUZZ_CHECK(bind(listener_.Get(), generic, length) == 0 && listen(listener_.Get(), 4) == 0);
        FUZZ_CHECK(getsockname(listener_.Get(), generic, &length) == 0);
        port_ = ntohs(address.sin_port);
        std::thread([this] { Serve(); }).detach();
    }

    int Port() const { return port_; }

    void SetAnswer(int status, std::string body) {
        std::lock_guard<std::mutex> lock(mutex_);
        answer_ = "HTTP/1.1 " + std::to_string(status) +
                  " Fuzzed\r\nContent-Type: application/json" +
                  "\r\nContent-Length: " + std::to_string(body.size()) +
                  "\r\nConnection: close\r\n\r\n" + body;
    }

    // Returns once the connection a finished request used is closed here too,
    // so that no descriptor of it outlives the input.
    void WaitIdle() {
        std::unique_lock<std::mutex> lock(mutex_);
        idle_.wait(lock, [this] { return !busy_; });
    }

private:
    void Serve() {
        for (;;) {
            farlink::UniqueFd connection(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!connection) continue;
            std::string answer;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                busy_ = true;
                answer = answer_;
            }
            ReadRequest(connection.Get());
            farlink::WriteAll(connection.Get(), answer.data(), answer.size());
            shutdown(connection.Get(), SHUT_WR);
            connection.Reset();
            std::lock_guard<std::mutex> lock(mutex_);
            busy_ = false;
            idle_.notify_all();
        }
    }

    // Reads the head and the body its Content-Length announces: closing with
    // unread bytes would reset the connection before the client reads.
    static void ReadRequest(int fd) {
        std::string request;
        std::size_t headEnd = std::string::npos, wanted = 0;
        char chunk[4096];
        for (;;) {
            if (headEnd != std::string::npos && request.size() >= headEnd + 4 + wanted) return;
            const ssize_t got = read(fd, chunk, sizeof chunk);
            if (got <= 0) return;
            request.append(chunk, static_cast<std::size_t>(got));
            if (headEnd == std::string::npos &&
                (headEnd = request.find("\r\n\r\n")) != std::string::npos)
                wanted = ContentLength(request.substr(0, headEnd));
        }
    }

    static std::size_t ContentLength(std::string head) {
        for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        const std::size_t at = head.find("\r\ncontent-length:");
        return at == std::string::npos ? 0 : std::stoul(head.substr(at + 17));
    }

    farlink::UniqueFd listener_;
    int port_ = 0;
    std::mutex mutex_;
    std::condition_variable idle_;
    bool busy_ = false;
    std::string answer_;
};

AnswerServer* server = nullptr;

std::string ServerUrl() {
    return "http://127.0.0.1:" + std::to_string(server->Port()) + "/Serv.php";
}

void PointConfigurationAtServer() {
    Json::Value site(Json::objectValue);
    site["scheme"] = "http";
    site["host"] = "127.0.0.1";
    site["port"] = server->Port();
    Json::Value conf(Json::objectValue);
    conf["server_global"] = conf["server_control"] = site;
    conf["server_alias"]["alias"] = "fuzz";
    conf["server_id"] = "FUZZ0001";
    std::error_code error;
    std::filesystem::create_directories(ORVO::Paths::kRelaydConfDir, error);
    FUZZ_CHECK(RelaydConf::WriteJsonFile(ORVO::Paths::kRelaydConf, conf));
}

Json::Value Command(const char* name) {
    Json::Value body(Json::objectValue);
    body["version"] = 1;
    body["command"] = name;
    body["serverID"] = "FUZZ0001";
    return body;
}

// Whatever arrived, a request that completed says whether its answer is
// usable, and an unusable one leaves nothing behind.
Json::Value Exchange(const char* command) {
    Request request(ServerUrl(), Command(command), true);
    const bool sent = request.Send();
    Json::Value answer;
    const bool usable = request.GetResponse(answer);
    FUZZ_CHECK(!usable || (sent && answer.isObject()));
    if (sent) FUZZ_CHECK(usable == (request.GetError() == RELAYD_OK));
    if (!usable) FUZZ_CHECK(answer.isNull());
    FUZZ_CHECK(GetErrorStr(request.GetError()) != nullptr);
    return answer;
}

void RegisterSite() {
    const Json::Value answer = Exchange("get_site");
    ServerConf site;
    Json::Value before, after;
    site.Write(before, true);
    if (site.Overwrite(answer)) {
        FUZZ_CHECK(!site.GetHost().empty());
        FUZZ_CHECK(!site.IsValid() || site.GetUrl(nullptr).find("://") != std::string::npos);
    } else {
        site.Write(after, true);
        FUZZ_CHECK(after == before);
    }
}

void Register() {
    const Json::Value answer = Exchange("register");
    FUZZ_CHECK(GetErrorStr(RespErrMap(ParseServerError(answer))) != nullptr);
}

void Alias(ALIAS_REQUEST_CMD command) {
    AliasRequest request;
    Json::Value body(Json::objectValue);
    body["serverID"] = "FUZZ0001";
    body["alias"] = "fuzz";
    FUZZ_CHECK(request.SetRequest(command, body));
    ALIAS_RET ret = ALIAS_RET_UNSET;
    const bool ok = request.Send(ret);
    FUZZ_CHECK(ok == (ret == ALIAS_OK));
    std::string text;
    request.ResponseToString(ret, text);
    FUZZ_CHECK(!text.empty());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::string error;
    if (!farlink_test::EnterPrivateRoot(&error)) {
        std::fprintf(stderr, "fuzz_relay_answers: no private root (run as root): %s\n",
                     error.c_str());
        std::exit(1);
    }
    // A client that hangs up early must not end the harness.
    std::signal(SIGPIPE, SIG_IGN);
    static AnswerServer theServer;
    server = &theServer;
    PointConfigurationAtServer();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const int status = kStatuses[data[1] % (sizeof kStatuses / sizeof kStatuses[0])];
    server->SetAnswer(status, std::string(reinterpret_cast<const char*>(data + 2), size - 2));
    switch (data[0] % 4) {
        case 0:
            RegisterSite();
            break;
        case 1:
            Register();
            break;
        case 2:
            Alias(ALIAS_REQUEST_SET);
            break;
        default:
            Alias(ALIAS_REQUEST_QUERY);
            break;
    }
    server->WaitIdle();
    return 0;
}
