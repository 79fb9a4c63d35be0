// Costs of the module's building blocks, measured in a process the size of
// a small host (run as root: the privileged section needs saved ids 0).
#include <benchmark/benchmark.h>
#include <orvo/core.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "api_table.h"
#include "critical_section.h"
#include "utils.h"

namespace {

constexpr char kLogSource[] = "bench";

void BM_MapRelayErrorCode(benchmark::State& state) {
    int code = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(MapRelayErrorCode(ORVO::Relay::RELAYD_RET(code)));
        code = (code + 1) % 32;
    }
}
BENCHMARK(BM_MapRelayErrorCode);

// Enter and leave with the effective ids dropped, as in the host. The trace
// lines go to syslog; without a listener glibc drops them at once.
void BM_PrivilegedSection(benchmark::State& state) {
    if (geteuid() != 0) {
        state.SkipWithError("needs root");
        return;
    }
    setresgid(-1, 65534, -1);
    setresuid(-1, 65534, -1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(AS_ROOT(geteuid()));
    }
    setresuid(-1, 0, -1);
    setresgid(-1, 0, -1);
}
BENCHMARK(BM_PrivilegedSection);

// Program runs from a process whose resident size is state.range(0) MiB:
// posix_spawn keeps the cost flat as the host grows.
void BM_ExecFromLargeProcess(benchmark::State& state) {
    std::vector<char> ballast(static_cast<std::size_t>(state.range(0)) << 20);
    std::memset(ballast.data(), 1, ballast.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(OLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr));
    }
}
BENCHMARK(BM_ExecFromLargeProcess)->Arg(0)->Arg(512)->Arg(2048)->Unit(benchmark::kMicrosecond);

void BM_PopenReadLine(benchmark::State& state) {
    char line[32];
    for (auto _ : state) {
        FILE* stream = OLIBCPopen("/bin/echo", "r", "on", nullptr);
        if (stream == nullptr) {
            state.SkipWithError("popen failed");
            return;
        }
        benchmark::DoNotOptimize(std::fgets(line, sizeof(line), stream));
        std::fclose(stream);
    }
}
BENCHMARK(BM_PopenReadLine)->Unit(benchmark::kMicrosecond);

// A relay configuration of the usual size, read and parsed as every status
// and settings request does.
void BM_ReadJsonFile(benchmark::State& state) {
    char dir[] = "/tmp/farlink-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    const std::string path = std::string(dir) + "/orvorelayd.conf";
    std::ofstream(path) << R"({"server_alias": {"alias": "mybox", "enabled": true},
        "server_control": {"host": "rs.farlink.test", "port": 443, "region": "eu"},
        "server_global": {"host": "global.farlink.test", "port": 443},
        "server_id": "0123456789abcdef", "kivo": {"account": "user@example.test"}})";
    Json::Value document;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ReadJsonFile(path, document));
    }
    unlink(path.c_str());
    rmdir(dir);
}
BENCHMARK(BM_ReadJsonFile)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
