// farlink-controlserver: the global control servers and register sites of
// the relay service, played by one process for the emulated box.
#include <event2/event.h>
#include <farlink/tls_server.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "control_state.h"
#include "event_handles.h"
#include "http_front.h"
#include "options.h"

namespace farlink {
namespace controlserver {
namespace {

const std::vector<std::string> kAllAddresses = {"0.0.0.0", "::"};

std::string OpenSslError() {
    char text[256] = "unknown TLS error";
    const unsigned long code = ERR_get_error();
    if (code != 0) {
        ERR_error_string_n(code, text, sizeof text);
    }
    return text;
}

SslCtxPtr LoadTls(const Options& options, std::string& error) {
    SslCtxPtr context(SSL_CTX_new(TLS_server_method()));
    if (!context || !farlink::ApplyServerTlsPolicy(context.get()) ||
        SSL_CTX_use_certificate_chain_file(context.get(), options.certPath.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context.get(), options.keyPath.c_str(), SSL_FILETYPE_PEM) !=
            1 ||
        SSL_CTX_check_private_key(context.get()) != 1) {
        error = "TLS set-up failed: " + OpenSslError();
        return nullptr;
    }
    return context;
}

bool WritePorts(const std::string& path, int https, int http, int control) {
    Json::Value ports(Json::objectValue);
    ports["https"] = https;
    ports["http"] = http;
    ports["control"] = control;
    std::ofstream out(path, std::ios::trunc);
    out << ToJsonText(ports) << '\n';
    return static_cast<bool>(out.flush());
}

void StopLoop(evutil_socket_t, short, void* base) {
    event_base_loopbreak(static_cast<event_base*>(base));
}

int Run(const Options& options) {
    std::string error;
    const SslCtxPtr tls = LoadTls(options, error);
    ControlState state(options.primaryHost, options.secondaryHost, options.recordsPath);
    const EventBasePtr base(event_base_new());
    if (!tls || !state.OpenRecords(error) || !base) {
        std::cerr << "farlink-controlserver: " << (error.empty() ? "no event base" : error) << '\n';
        return 1;
    }

    HttpFront front(base.get(), state, tls.get());
    const std::vector<std::string>& addresses =
        options.bindAddresses.empty() ? kAllAddresses : options.bindAddresses;
    int httpsPort = options.httpsPort;
    int httpPort = options.httpPort;
    int controlPort = options.controlPort;
    std::vector<std::string> warnings;
    const bool listening = front.ListenService(true, addresses, httpsPort, warnings, error) &&
                           front.ListenService(false, addresses, httpPort, warnings, error) &&
                           front.ListenControl(options.controlAddress, controlPort, error);
    for (const std::string& warning : warnings) {
        std::cerr << "farlink-controlserver: not listening on " << warning << '\n';
    }
    if (!listening) {
        std::cerr << "farlink-controlserver: " << error << '\n';
        return 1;
    }
    if (!options.portsPath.empty() &&
        !WritePorts(options.portsPath, httpsPort, httpPort, controlPort)) {
        std::cerr << "farlink-controlserver: cannot write " << options.portsPath << '\n';
        return 1;
    }

    const EventPtr onTerm(evsignal_new(base.get(), SIGTERM, StopLoop, base.get()));
    const EventPtr onInt(evsignal_new(base.get(), SIGINT, StopLoop, base.get()));
    if (!onTerm || !onInt || event_add(onTerm.get(), nullptr) != 0 ||
        event_add(onInt.get(), nullptr) != 0) {
        std::cerr << "farlink-controlserver: cannot watch signals\n";
        return 1;
    }

    std::cout << "ready" << std::endl;
    event_base_dispatch(base.get());
    return 0;
}

}  // namespace
}  // namespace controlserver
}  // namespace farlink

int main(int argc, char** argv) {
    using namespace farlink::controlserver;
    // A client that hangs up mid-answer must not end the server.
    std::signal(SIGPIPE, SIG_IGN);
    std::string error;
    const auto options = ParseOptions(std::vector<std::string>(argv + 1, argv + argc), error);
    if (!options) {
        std::cerr << "farlink-controlserver: " << error << '\n' << Usage();
        return 2;
    }
    return Run(*options);
}
