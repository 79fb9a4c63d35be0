// The account tool of the emulated box. `--query_account` stands for a fresh
// query of the account service: it clears the account state's refresh flag.
// With `--cache` the cached data is deemed good enough and nothing changes.
// Either way the run is recorded in the query log, last, so that whoever sees
// the record also sees the state it left.
//
// Exit status: 0 done, 1 the state or the log could not be updated, 2 usage.
#include <json/writer.h>
#include <orvo/paths.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform_files.h"

namespace {

using orvo::platform::JsonReadResult;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

bool ParseArguments(int argc, char** argv, bool& useCache) {
    if (argc < 2 || argc > 3 || std::strcmp(argv[1], "--query_account") != 0) {
        return false;
    }
    useCache = argc == 3;
    return !useCache || std::strcmp(argv[2], "--cache") == 0;
}

// A missing state file means no account is bound: nothing to refresh.
bool ClearRefreshFlag() {
    Json::Value state;
    JsonReadResult read = orvo::platform::ReadJsonFile(ORVO::Paths::kKivoAccount, state);
    if (read == JsonReadResult::kMissing) {
        return true;
    }
    if (read != JsonReadResult::kOk || !state.isObject()) {
        std::fprintf(stderr, "orvokivo: %s is not a readable account state\n",
                     ORVO::Paths::kKivoAccount);
        return false;
    }
    const Json::Value* refresh = orvo::platform::FindMember(state, "refresh");
    if (refresh == nullptr || (refresh->isInt() && refresh->asInt() == 0)) {
        return true;
    }
    state["refresh"] = 0;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    if (!orvo::platform::WriteFileAtomically(ORVO::Paths::kKivoAccount,
                                             Json::writeString(writer, state) + "\n")) {
        std::fprintf(stderr, "orvokivo: cannot rewrite %s\n", ORVO::Paths::kKivoAccount);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    bool useCache = false;
    if (!ParseArguments(argc, argv, useCache)) {
        std::fprintf(stderr, "usage: orvokivo --query_account [--cache]\n");
        return kExitUsage;
    }
    int status = kExitOk;
    if (!useCache && !ClearRefreshFlag()) {
        status = kExitFailure;
    }
    if (!orvo::platform::AppendLine(ORVO::Paths::kKivoQueryLog,
                                    useCache ? "--query_account --cache" : "--query_account")) {
        std::fprintf(stderr, "orvokivo: cannot write %s\n", ORVO::Paths::kKivoQueryLog);
        status = kExitFailure;
    }
    return status;
}
