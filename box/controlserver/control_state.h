// What the control server knows and answers, apart from the network: the
// commands of the global control servers and register sites, the fault
// rules, the registrations and aliases, and the record of every request.
#pragma once

#include <json/value.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace farlink {
namespace controlserver {

struct IncomingRequest {
    std::string host;  // Host header without port, lower case; may be empty
    std::string scheme;
    std::string method;
    std::string path;
    std::string body;
};

struct Reply {
    enum class Kind { kAnswer, kClose, kSilent };
    Kind kind = Kind::kAnswer;
    std::string body;  // for kAnswer
    int delayMs = 0;   // for kAnswer
};

struct ControlReply {
    int status = 200;
    std::string body;
};

class ControlState {
public:
    ControlState(const std::string& primaryHost, const std::string& secondaryHost,
                 std::string recordsPath);

    // Opens (appends to) the records file.
    bool OpenRecords(std::string& error);

    // Records the request and decides how it is answered.
    Reply Serve(const IncomingRequest& request);

    // The fault-control interface: /control/reset, /control/fault,
    // /control/site, /control/records.
    ControlReply Control(const std::string& method, const std::string& path,
                         const std::string& body);

private:
    enum class FaultMode {
        kNormal,
        kError,
        kMalformed,
        kNoHost,
        kHostNotString,
        kDelay,
        kClose,
        kSilent
    };
    struct Fault {
        std::string host;
        std::string command;
        FaultMode mode = FaultMode::kNormal;
        Json::Value errorNumber;
        int delayMs = 0;
        int remaining = -1;  // matches left; -1: no limit
    };

    void Reset();
    bool AddFault(const Json::Value& request, std::string& error);
    bool SetSiteAnswer(const Json::Value& request, std::string& error);
    void Record(const IncomingRequest& request, const Json::Value* body,
                const std::string& command);
    // Takes one use of the newest rule matching the request, if any.
    bool TakeFault(const std::string& host, const std::string& role, const std::string& command,
                   Fault& fault);
    Reply ApplyFault(const Fault& fault, const std::string& role, const Json::Value* body,
                     const std::string& command);

    // The normal answer, with its effects on registrations and aliases.
    Json::Value Execute(const std::string& role, const Json::Value* body);
    Json::Value RegisterSite(const std::string& role) const;
    Json::Value Register(const Json::Value& body);
    Json::Value Alias(const Json::Value& body, bool store);

    // The host whose part a request plays: addresses and "localhost" stand
    // for the primary global control server.
    std::string Role(const std::string& host) const;

    std::string primaryHost_;
    std::string secondaryHost_;
    std::string recordsPath_;
    std::ofstream recordsFile_;

    Json::Value records_{Json::arrayValue};
    int nextSeq_ = 1;
    std::vector<Fault> faults_;
    std::map<std::string, Json::Value> siteAnswers_;
    std::map<std::string, std::string> registeredIds_;  // server ID -> serial
    std::map<std::string, std::string> aliasHolders_;   // alias (lower case) -> server ID
};

// Compact one-line JSON.
std::string ToJsonText(const Json::Value& value);
// Parses any JSON document; false when `text` is not one.
bool ParseJson(const std::string& text, Json::Value& out);
// The server ID that registration gives the box with this serial.
std::string ServerIdForSerial(const std::string& serial);

}  // namespace controlserver
}  // namespace farlink
