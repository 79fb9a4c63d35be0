// The host's counters for a Prometheus scraper: requests by call and result,
// their latency, the workers' lives, the queue and logins. Labels come only
// from the table's rows and the finite set of result codes, so a client
// cannot grow the registry by sending new names.
#pragma once

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "api_table.h"

namespace farlink::host {

class HostMetrics {
public:
    // Only these rows get labels of their own; every other call counts as "-".
    explicit HostMetrics(const std::vector<RowName>& rows);
    HostMetrics(const HostMetrics&) = delete;
    HostMetrics& operator=(const HostMetrics&) = delete;

    // `call` is "api/version/method" as the access log has it, or "-";
    // `result` is "ok" or "error=<code>[,detail]".
    void CountRequest(const std::string& call, const std::string& result,
                      std::chrono::microseconds latency);
    void CountWorkerStart();
    void CountWorkerCrash();
    void CountHandlerTimeout();
    void SetQueueDepth(std::size_t depth);
    // `outcome`: "success", "failure" or "throttled".
    void CountLogin(const std::string& outcome);

    // The exposition text, format 0.0.4.
    std::string Text() const;

private:
    struct RowLabels {
        std::string api;
        std::string version;
        std::string method;
    };
    const RowLabels& LabelsOf(const std::string& call) const;

    std::map<std::string, RowLabels> rows_;  // by "api/version/method"
    std::shared_ptr<prometheus::Registry> registry_;
    prometheus::Family<prometheus::Counter>& requests_;
    prometheus::Family<prometheus::Histogram>& latency_;
    prometheus::Counter& workerStarts_;
    prometheus::Counter& workerCrashes_;
    prometheus::Counter& handlerTimeouts_;
    prometheus::Gauge& queueDepth_;
    prometheus::Family<prometheus::Counter>& logins_;
};

// The content type of HostMetrics::Text.
constexpr char kMetricsContentType[] = "text/plain; version=0.0.4; charset=utf-8";

}  // namespace farlink::host
