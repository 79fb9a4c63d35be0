#include "access_log.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace farlink::host {

namespace {

constexpr std::size_t kMaxFieldLength = 200;

// Client-chosen text (paths, API names) must not split or forge lines.
std::string Field(const std::string& text) {
    if (text.empty()) return "-";
    std::string field = text.substr(0, kMaxFieldLength);
    for (char& c : field) {
        if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) c = '?';
    }
    return field;
}

}  // namespace

std::string UtcTimestamp() {
    auto now = std::chrono::system_clock::now();
    std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch() %
                                                                        std::chrono::seconds(1))
                      .count();
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%06ldZ", static_cast<long>(micros));
    return text;
}

int AccessLog::Fd() const { return file_ ? file_.Get() : STDERR_FILENO; }

void AccessLog::Write(const AccessRecord& record) const {
    std::string line = UtcTimestamp() + " " + Field(record.client) + " " +
                       Field(record.httpMethod) + " " + Field(record.path) + " " +
                       std::to_string(record.status) + " " + Field(record.call) + " " +
                       Field(record.result) + " " + std::to_string(record.latency.count()) + "us " +
                       Field(record.ids) + " answers=" + std::to_string(record.answers) + "\n";
    // A short write to a log is not worth failing a request over.
    ssize_t written = ::write(Fd(), line.data(), line.size());
    (void)written;
}

}  // namespace farlink::host
