// A small web API module for exercising farlink-host: each handler breaks
// the handler contract, or keeps it, in one particular way.
#include <orvo/webapi.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace {

using ORVO::APIRequest;
using ORVO::APIResponse;

void Echo(APIRequest* request, APIResponse* response) {
    Json::Value data;
    data["api"] = request->GetAPIName();
    data["version"] = request->GetAPIVersion();
    data["method"] = request->GetAPIMethod();
    data["params"] = request->GetParam("", Json::Value());
    response->SetSuccess(data);
}

void Fail(APIRequest*, APIResponse* response) { response->SetError(2901, Json::Value()); }

void SucceedEmpty(APIRequest*, APIResponse* response) { response->SetSuccess(Json::Value()); }

void AnswerTwice(APIRequest*, APIResponse* response) {
    Json::Value first;
    first["first"] = true;
    response->SetSuccess(first);
    response->SetError(2900, Json::Value());
}

void AnswerNothing(APIRequest*, APIResponse*) {}

void LeakRoot(APIRequest*, APIResponse* response) {
    if (setresuid(-1, 0, -1) != 0) {
        response->SetError(2900, Json::Value());
        return;
    }
    response->SetSuccess(Json::Value());
}

// Writes `started` (a file path), if given, once it is running, so that a
// test knows the request is inside the handler.
void Slow(APIRequest* request, APIResponse* response) {
    if (request->HasParam("started")) {
        std::ofstream(request->GetParam("started", Json::Value()).asString()) << "started\n";
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    response->SetSuccess(Json::Value());
}

void Throw(APIRequest*, APIResponse*) { throw std::runtime_error("handler threw"); }

// Handlers that take their whole process down, or never come back.
void Crash(APIRequest*, APIResponse*) { raise(SIGSEGV); }
void Abort(APIRequest*, APIResponse*) { std::abort(); }
void Hang(APIRequest*, APIResponse*) {
    for (;;) pause();
}

// Counts calls in a file the test names (`counter`), so that a test can see
// whether two calls ever overlapped: the file holds "running" while one runs.
void Exclusive(APIRequest* request, APIResponse* response) {
    const std::string path = request->GetParam("counter", Json::Value()).asString();
    std::ifstream in(path);
    std::string state;
    in >> state;
    if (state == "running") {
        response->SetError(2900, Json::Value());
        return;
    }
    std::ofstream(path) << "running\n";
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::ofstream(path) << "idle\n";
    response->SetSuccess(Json::Value());
}

const ORVO::APITableEntry kTable[] = {
    {"Test.Echo", 1, "echo", Echo},
    {"Test.Echo", 2, "echo", Echo},
    {"Test.Host", 1, "fail", Fail},
    {"Test.Host", 1, "succeed_empty", SucceedEmpty},
    {"Test.Host", 1, "answer_twice", AnswerTwice},
    {"Test.Host", 1, "answer_nothing", AnswerNothing},
    {"Test.Host", 1, "leak_root", LeakRoot},
    {"Test.Host", 1, "slow", Slow},
    {"Test.Host", 1, "throw", Throw},
    {"Test.Host", 1, "crash", Crash},
    {"Test.Host", 1, "abort", Abort},
    {"Test.Host", 1, "hang", Hang},
    {"Test.Host", 1, "set_exclusive", Exclusive},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" const ORVO::APITableEntry* GetAPITable() { return kTable; }
