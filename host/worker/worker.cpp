#include <farlink/file_io.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <optional>

#include "channel.h"
#include "module_loader.h"
#include "processes.h"
#include "secrets.h"

namespace farlink::host {

namespace {

// The supervisor blocks the stop signals; a worker ignores them instead, so
// that a Ctrl-C to the process group lets its request finish: it stops when
// the front closes its channel.
void SetUpSignals() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);
}

ApiReply ReplyFromAnswer(const ORVO::APIResponse& response) {
    if (!response.IsAnswered()) return ErrorReply(CodeOf(HostError::kNoAnswer));
    ApiReply reply = response.IsSuccess() ? SuccessReply(response.GetData())
                                          : ErrorReply(response.GetErrorCode());
    reply.answers = response.AnswerCount();
    return reply;
}

ApiReply RunHandler(ORVO::APIHandler handler, const HandlerCall& call) {
    // The request object holds the version as an int; a table version above
    // INT_MAX reaches its handler wrapped.
    ORVO::APIRequest apiRequest(call.api, static_cast<int>(call.version), call.method, call.params);
    ORVO::APIResponse apiResponse;
    handler(&apiRequest, &apiResponse);

    ApiReply reply = ReplyFromAnswer(apiResponse);
    reply.call = call.Label();
    reply.body = EnvelopeText(reply.envelope);
    return reply;
}

// An exception must not end the worker; the client gets an answer.
ApiReply RunSafely(ORVO::APIHandler handler, const HandlerCall& call) {
    try {
        return RunHandler(handler, call);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "farlink-host: request failed: %s\n", error.what());
    } catch (...) {
        std::fprintf(stderr, "farlink-host: request failed with a non-standard exception\n");
    }
    ApiReply reply = HostRefusal(HostError::kUnknown);
    reply.call = call.Label();
    return reply;
}

WorkerAnswer Answer(const LoadedModule& module, const ServiceIds& ids, const Json::Value& message) {
    WorkerAnswer answer;
    std::optional<HandlerCall> call = ParseCall(message);
    if (!call) {
        answer.reply = HostRefusal(HostError::kMalformedRequest);
    } else if (ApiTable::Lookup lookup =
                   module.Table().Find(call->api, call->version, call->method);
               !lookup.found) {
        answer.reply = HostRefusal(lookup.error);
        answer.reply.call = call->Label();
    } else {
        answer.reply = RunSafely(lookup.handler, *call);
    }
    answer.ids = LogToken(CheckEffectiveIds(ids));
    if (answer.reply.body.empty()) answer.reply.body = EnvelopeText(answer.reply.envelope);
    return answer;
}

[[noreturn]] void Exit(int code) {
    std::fflush(nullptr);
    _exit(code);
}

}  // namespace

void RunWorker(const std::string& modulePath, const ServiceIds& ids, int channel) {
    SetUpSignals();
    prctl(PR_SET_NAME, "farlink-worker");
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The module's programs run with the rights the worker gives them; none
    // gains more from a set-user-id file.
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);

    std::optional<LoadedModule> module;
    try {
        module.emplace(LoadedModule::Load(modulePath));  // its initialisers run as root
        DropEffectiveIds(ids);
    } catch (const std::exception& error) {
        (void)WriteMessage(channel, HelloFailure(error.what()));  // exiting either way
        Exit(EXIT_FAILURE);
    }
    if (!WriteMessage(channel, HelloMessage(module->Table().Names()))) Exit(EXIT_FAILURE);

    MessageReader requests(channel);
    while (std::optional<Json::Value> message = requests.Next()) {
        const std::string frame = AnswerFrame(Answer(*module, ids, *message));
        if (!WriteAll(channel, frame.data(), frame.size())) break;
        if (HoldsSecret(*message)) Exit(EXIT_SUCCESS);  // a fresh worker takes over
    }
    Exit(EXIT_SUCCESS);
}

}  // namespace farlink::host
