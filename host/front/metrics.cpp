#include "metrics.h"

#include <prometheus/text_serializer.h>

#include <sstream>

namespace farlink::host {

namespace {

// From a file read to a control-server exchange that waits out its time-out.
const prometheus::Histogram::BucketBoundaries kLatencyBuckets = {
    0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
    0.1,    0.25,    0.5,    1,     2.5,    5,     10,   30};

// "error=110,SIGSEGV" counts as code 110: the detail is for the access log.
std::string ResultCode(const std::string& result) {
    if (result.rfind("error=", 0) != 0) return "0";
    const std::string rest = result.substr(6);
    return rest.substr(0, rest.find(','));
}

}  // namespace

HostMetrics::HostMetrics(const std::vector<RowName>& rows)
    : registry_(std::make_shared<prometheus::Registry>()),
      requests_(prometheus::BuildCounter()
                    .Name("farlink_requests_total")
                    .Help("Requests answered, by call and result code (0: success)")
                    .Register(*registry_)),
      latency_(prometheus::BuildHistogram()
                   .Name("farlink_request_duration_seconds")
                   .Help("Time from a request being read to its answer, by call")
                   .Register(*registry_)),
      workerStarts_(prometheus::BuildCounter()
                        .Name("farlink_worker_starts_total")
                        .Help("Worker processes that joined the pool")
                        .Register(*registry_)
                        .Add({})),
      workerCrashes_(prometheus::BuildCounter()
                         .Name("farlink_worker_crashes_total")
                         .Help("Workers that died while running a request")
                         .Register(*registry_)
                         .Add({})),
      handlerTimeouts_(prometheus::BuildCounter()
                           .Name("farlink_handler_timeouts_total")
                           .Help("Handlers killed for running past the handler time-out")
                           .Register(*registry_)
                           .Add({})),
      queueDepth_(prometheus::BuildGauge()
                      .Name("farlink_queue_depth")
                      .Help("Requests waiting for a worker")
                      .Register(*registry_)
                      .Add({})),
      logins_(prometheus::BuildCounter()
                  .Name("farlink_logins_total")
                  .Help("Login attempts, by outcome")
                  .Register(*registry_)) {
    rows_.emplace("-", RowLabels{"-", "-", "-"});
    for (const RowName& row : rows) {
        const std::string version = std::to_string(row.version);
        rows_.emplace(row.api + "/" + version + "/" + row.method,
                      RowLabels{row.api, version, row.method});
    }
}

const HostMetrics::RowLabels& HostMetrics::LabelsOf(const std::string& call) const {
    auto found = rows_.find(call);
    return found == rows_.end() ? rows_.at("-") : found->second;
}

void HostMetrics::CountRequest(const std::string& call, const std::string& result,
                               std::chrono::microseconds latency) {
    const RowLabels& labels = LabelsOf(call);
    requests_
        .Add({{"api", labels.api},
              {"version", labels.version},
              {"method", labels.method},
              {"code", ResultCode(result)}})
        .Increment();
    latency_
        .Add({{"api", labels.api}, {"version", labels.version}, {"method", labels.method}},
             kLatencyBuckets)
        .Observe(std::chrono::duration<double>(latency).count());
}

void HostMetrics::CountWorkerStart() { workerStarts_.Increment(); }
void HostMetrics::CountWorkerCrash() { workerCrashes_.Increment(); }
void HostMetrics::CountHandlerTimeout() { handlerTimeouts_.Increment(); }
void HostMetrics::SetQueueDepth(std::size_t depth) { queueDepth_.Set(static_cast<double>(depth)); }

void HostMetrics::CountLogin(const std::string& outcome) {
    logins_.Add({{"result", outcome}}).Increment();
}

std::string HostMetrics::Text() const {
    std::ostringstream out;
    prometheus::TextSerializer().Serialize(out, registry_->Collect());
    return out.str();
}

}  // namespace farlink::host
