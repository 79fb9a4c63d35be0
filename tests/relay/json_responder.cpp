#include "json_responder.h"

#include <arpa/inet.h>
#include <farlink/file_io.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <stdexcept>

#include "relay_test_support.h"

namespace relay_test {

using farlink::UniqueFd;

JsonResponder::JsonResponder(std::string answer) : answer_(std::move(answer)) {
    listener_ = UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (!listener_.Valid() || bind(listener_.Get(), generic, sizeof address) != 0 ||
        listen(listener_.Get(), 8) != 0 || getsockname(listener_.Get(), generic, &length) != 0) {
        throw std::runtime_error("cannot listen on the loopback interface");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
}

JsonResponder::~JsonResponder() {
    // Wakes the blocked accept(), which then fails and ends the thread.
    shutdown(listener_.Get(), SHUT_RDWR);
    thread_.join();
}

void JsonResponder::SetAnswer(const std::string& answer) {
    std::lock_guard<std::mutex> lock(mutex_);
    answer_ = answer;
}

std::vector<Json::Value> JsonResponder::Bodies() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return bodies_;
}

void JsonResponder::Serve() {
    for (;;) {
        UniqueFd connection(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!connection.Valid()) return;
        Answer(connection.Get());
    }
}

void JsonResponder::Answer(int connection) {
    std::string request;
    size_t headerEnd = std::string::npos, bodyLength = 0;
    char buffer[4096];
    while (headerEnd == std::string::npos || request.size() < headerEnd + 4 + bodyLength) {
        const ssize_t n = recv(connection, buffer, sizeof buffer, 0);
        if (n <= 0) return;
        request.append(buffer, static_cast<size_t>(n));
        headerEnd = request.find("\r\n\r\n");
        const auto field = request.find("Content-Length:");
        if (field < headerEnd) bodyLength = std::stoul(request.substr(field + 15));
    }
    std::string answer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        bodies_.push_back(ParseJson(request.substr(headerEnd + 4, bodyLength)));
        answer = answer_;
    }
    const std::string reply =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
        "Connection: close\r\nContent-Length: " +
        std::to_string(answer.size()) + "\r\n\r\n" + answer;
    farlink::WriteAll(connection, reply.data(), reply.size());
}

}  // namespace relay_test
