// A minimal HTTP server on the loopback interface that answers every request
// with one JSON text and remembers the JSON bodies it received.
#pragma once

#include <farlink/unique_fd.h>
#include <json/value.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace relay_test {

class JsonResponder {
public:
    explicit JsonResponder(std::string answer);
    ~JsonResponder();
    JsonResponder(const JsonResponder&) = delete;
    JsonResponder& operator=(const JsonResponder&) = delete;

    int port() const { return port_; }
    void SetAnswer(const std::string& answer);
    std::vector<Json::Value> Bodies() const;

private:
    void Serve();
    void Answer(int connection);

    farlink::UniqueFd listener_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::string answer_;
    std::vector<Json::Value> bodies_;
    std::thread thread_;
};

}  // namespace relay_test
