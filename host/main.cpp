// farlink-host: loads a web API module as the platform's server does and
// serves it over HTTP. See docs/host.md.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "access_log.h"
#include "api_service.h"
#include "http_server.h"
#include "listen_socket.h"
#include "module_loader.h"
#include "options.h"
#include "privileges.h"
#include "router.h"
#include "sessions.h"
#include "startup_error.h"

namespace farlink::host {
namespace {

// How long requests in flight get to finish once asked to stop.
constexpr std::chrono::seconds kShutdownGrace{10};

ListenSocket OpenListenSocket(const Options& options) {
    return options.listenFd ? AdoptListenSocket(*options.listenFd)
                            : BindListenSocket(*options.listenAddress);
}

// Written with root rights before they are dropped; removed with them
// regained, once the workers are gone.
class PidFile {
public:
    explicit PidFile(std::string path) : path_(std::move(path)) {
        if (path_.empty()) return;
        std::ofstream file(path_, std::ios::trunc);
        if (!(file << getpid() << '\n') || !file.flush()) {
            throw StartupError("cannot write pid file " + path_);
        }
    }
    ~PidFile() {
        if (path_.empty()) return;
        RegainRoot();
        unlink(path_.c_str());
    }
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

private:
    std::string path_;
};

// Blocked in every thread, so that only the main thread's sigwait sees them.
sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

void WaitForStopSignal(const sigset_t& signals) {
    int received = 0;
    while (sigwait(&signals, &received) != 0) {
    }
}

int Serve(const Options& options) {
    RequireRoot();
    const sigset_t stopSignals = StopSignals();
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    // Everything that needs root happens before the ids drop.
    AccessLog accessLog(options.accessLogPath.empty() ? UniqueFd()
                                                      : OpenAccessLog(options.accessLogPath));
    LoadedModule module = LoadedModule::Load(options.modulePath);
    ServiceIds serviceIds = LookupServiceUser(options.user);
    ListenSocket listener = OpenListenSocket(options);
    PidFile pidFile(options.pidFile);
    DropEffectiveIds(serviceIds);

    SessionStore sessions;
    ApiService service(module.Table(), sessions, options.password);
    IdsWarden warden(serviceIds);
    Router router(service, warden, accessLog);
    HttpLimits limits;
    limits.maxBody = options.maxBody;
    limits.timeout = options.requestTimeout;
    HttpServer server([&router](const HttpExchange& exchange) { return router.Handle(exchange); },
                      limits);
    server.Start(listener.fd, options.threads);
    listener.fd.Reset();  // the workers hold their own copies

    std::printf("farlink-host: listening on http://%s\n", listener.address.c_str());
    std::fflush(stdout);

    WaitForStopSignal(stopSignals);
    if (!server.Stop(kShutdownGrace)) {
        std::fprintf(stderr, "farlink-host: requests still running after %lds; exiting anyway\n",
                     static_cast<long>(kShutdownGrace.count()));
        std::_Exit(EXIT_FAILURE);
    }
    if (warden.RestoreCount() > 0) {
        std::fprintf(stderr, "farlink-host: effective ids were restored %lu times\n",
                     warden.RestoreCount());
    }
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace farlink::host

int main(int argc, char** argv) {
    using namespace farlink::host;
    try {
        return Serve(ParseOptions(std::vector<std::string>(argv + 1, argv + argc)));
    } catch (const StartupError& error) {
        std::fprintf(stderr, "farlink-host: %s\n", error.what());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "farlink-host: %s\n", error.what());
    }
    return EXIT_FAILURE;
}
