// One line per request:
//   TIME CLIENT HTTP-METHOD PATH STATUS CALL RESULT LATENCY IDS answers=N
// e.g.
//   2024-05-01T10:00:00.123456Z 127.0.0.1:40312 POST /webapi/entry.cgi 200
//   ORVO.Core.Farlink/1/get ok 532us ids-ok answers=1
// (one line). Fields never contain blanks; an absent one is "-".
#pragma once

#include <farlink/unique_fd.h>

#include <chrono>
#include <string>

namespace farlink::host {

struct AccessRecord {
    std::string client;
    std::string httpMethod;
    std::string path;
    int status = 0;
    std::string call;
    std::string result;
    std::chrono::microseconds latency{0};
    std::string ids;
    int answers = 0;
};

class AccessLog {
public:
    // An empty fd logs to stderr.
    explicit AccessLog(UniqueFd file) : file_(std::move(file)) {}

    // Thread-safe: each line is a single append.
    void Write(const AccessRecord& record) const;
    // From the next line on, write to `file` (the log reopened by its name).
    void Replace(UniqueFd file) { file_ = std::move(file); }

private:
    int Fd() const;

    UniqueFd file_;
};

// Now, in UTC with microseconds: 2026-01-05T10:00:00.123456Z.
std::string UtcTimestamp();

}  // namespace farlink::host
