#include "control_state.h"

#include <arpa/inet.h>
#include <json/reader.h>
#include <json/writer.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace farlink {
namespace controlserver {
namespace {

// Error numbers of the protocol (docs/control-protocol.md).
constexpr int kOk = 0;
constexpr int kUnknownCommand = 1;
constexpr int kBadRequest = 2;
constexpr int kAuth = 3;
constexpr int kAliasTaken = 6;
constexpr int kNotRegistered = 10;
constexpr int kInternal = 11;
constexpr int kUnsupportedVersion = 13;

constexpr int kProtocolVersion = 1;
constexpr const char kMalformedBody[] = "<html><body>this is not JSON</body></html>\n";

Json::Value Answer(int errorNumber) {
    Json::Value answer(Json::objectValue);
    answer["errno"] = errorNumber;
    return answer;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool IsAddress(const std::string& host) {
    unsigned char buffer[sizeof(in6_addr)];
    return inet_pton(AF_INET, host.c_str(), buffer) == 1 ||
           inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

// ^[a-zA-Z][a-zA-Z0-9-]*$
bool IsValidAlias(const std::string& alias) {
    if (alias.empty() || !std::isalpha(static_cast<unsigned char>(alias.front()))) {
        return false;
    }
    return std::all_of(alias.begin(), alias.end(),
                       [](unsigned char c) { return c < 0x80 && (std::isalnum(c) || c == '-'); });
}

// "global.example.test" -> "example.test"
std::string ParentDomain(const std::string& host) {
    const size_t dot = host.find('.');
    return dot == std::string::npos ? host : host.substr(dot + 1);
}

Json::Value DefaultSiteAnswer(const std::string& globalHost, const char* siteLabel,
                              const char* region) {
    const std::string domain = ParentDomain(globalHost);
    Json::Value answer = Answer(kOk);
    answer["host"] = std::string(siteLabel) + "." + domain;
    answer["region"] = region;
    answer["ddns_domain"] = "direct." + domain;
    answer["portal_domain"] = domain;
    return answer;
}

const Json::Value* StringMember(const Json::Value& object, const char* name) {
    if (!object.isObject() || !object.isMember(name) || !object[name].isString()) {
        return nullptr;
    }
    return &object[name];
}

bool IsNonEmptyString(const Json::Value& object, const char* name) {
    const Json::Value* member = StringMember(object, name);
    return member != nullptr && !member->asString().empty();
}

ControlReply ControlAnswer(int status, const Json::Value& body) {
    return ControlReply{status, ToJsonText(body) + "\n"};
}

ControlReply ControlOk() {
    Json::Value body(Json::objectValue);
    body["ok"] = true;
    return ControlAnswer(200, body);
}

ControlReply ControlFailure(int status, const std::string& error) {
    Json::Value body(Json::objectValue);
    body["ok"] = false;
    body["error"] = error;
    return ControlAnswer(status, body);
}

}  // namespace

std::string ToJsonText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

bool ParseJson(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), &out, nullptr);
    } catch (const Json::Exception&) {
        // Nested past the reader's depth limit: a body that is not JSON, not
        // a reason for the server to stop.
        out = Json::Value();
        return false;
    }
}

std::string ServerIdForSerial(const std::string& serial) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(serial.data(), serial.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        return {};
    }
    static const char kHex[] = "0123456789abcdef";
    std::string id = "fl";
    for (unsigned int i = 0; i < 8 && i < length; ++i) {
        id += kHex[digest[i] >> 4];
        id += kHex[digest[i] & 0x0f];
    }
    return id;
}

ControlState::ControlState(const std::string& primaryHost, const std::string& secondaryHost,
                           std::string recordsPath)
    : primaryHost_(Lower(primaryHost)),
      secondaryHost_(Lower(secondaryHost)),
      recordsPath_(std::move(recordsPath)) {
    Reset();
}

bool ControlState::OpenRecords(std::string& error) {
    recordsFile_.open(recordsPath_, std::ios::app);
    if (!recordsFile_) {
        error = "cannot open records file " + recordsPath_;
        return false;
    }
    return true;
}

void ControlState::Reset() {
    records_ = Json::Value(Json::arrayValue);
    nextSeq_ = 1;
    faults_.clear();
    registeredIds_.clear();
    aliasHolders_.clear();
    siteAnswers_.clear();
    siteAnswers_[primaryHost_] = DefaultSiteAnswer(primaryHost_, "rs", "eu");
    siteAnswers_[secondaryHost_] = DefaultSiteAnswer(secondaryHost_, "cnc", "cn");
    // The file mirrors the records, so it starts over with them.
    if (recordsFile_.is_open()) {
        recordsFile_.close();
        recordsFile_.open(recordsPath_, std::ios::trunc);
    }
}

std::string ControlState::Role(const std::string& host) const {
    if (host.empty() || host == "localhost" || IsAddress(host)) {
        return primaryHost_;
    }
    return host;
}

Reply ControlState::Serve(const IncomingRequest& request) {
    Json::Value parsed;
    const bool isJson = ParseJson(request.body, parsed);
    const Json::Value* body = isJson ? &parsed : nullptr;
    const Json::Value* commandMember = isJson ? StringMember(parsed, "command") : nullptr;
    const std::string command = commandMember != nullptr ? commandMember->asString() : "";
    Record(request, body, command);

    const std::string role = Role(request.host);
    Fault fault;
    if (TakeFault(request.host, role, command, fault)) {
        return ApplyFault(fault, role, body, command);
    }
    Reply reply;
    reply.body = ToJsonText(Execute(role, body));
    return reply;
}

void ControlState::Record(const IncomingRequest& request, const Json::Value* body,
                          const std::string& command) {
    Json::Value record(Json::objectValue);
    record["seq"] = nextSeq_++;
    record["host"] = request.host;
    record["scheme"] = request.scheme;
    record["method"] = request.method;
    record["path"] = request.path;
    record["command"] = command;
    record["body"] = body != nullptr ? *body : Json::Value(request.body);
    if (recordsFile_.is_open()) {
        recordsFile_ << ToJsonText(record) << '\n' << std::flush;
    }
    records_.append(std::move(record));
}

bool ControlState::TakeFault(const std::string& host, const std::string& role,
                             const std::string& command, Fault& fault) {
    for (auto it = faults_.rbegin(); it != faults_.rend(); ++it) {
        const bool hostMatches = it->host == "*" || it->host == host || it->host == role;
        const bool commandMatches = it->command == "*" || it->command == command;
        if (!hostMatches || !commandMatches) {
            continue;
        }
        fault = *it;
        if (it->remaining > 0 && --it->remaining == 0) {
            faults_.erase(std::next(it).base());
        }
        return true;
    }
    return false;
}

Reply ControlState::ApplyFault(const Fault& fault, const std::string& role, const Json::Value* body,
                               const std::string& command) {
    Reply reply;
    switch (fault.mode) {
        case FaultMode::kError: {
            Json::Value answer(Json::objectValue);
            answer["errno"] = fault.errorNumber;
            reply.body = ToJsonText(answer);
            return reply;
        }
        case FaultMode::kMalformed:
            reply.body = kMalformedBody;
            return reply;
        case FaultMode::kClose:
            reply.kind = Reply::Kind::kClose;
            return reply;
        case FaultMode::kSilent:
            reply.kind = Reply::Kind::kSilent;
            return reply;
        case FaultMode::kDelay:
            reply.delayMs = fault.delayMs;
            break;
        case FaultMode::kNoHost:
        case FaultMode::kHostNotString:
        case FaultMode::kNormal:
            break;
    }
    Json::Value answer = Execute(role, body);
    if (command == "get_register_site" && answer.isMember("host")) {
        if (fault.mode == FaultMode::kNoHost) {
            answer.removeMember("host");
        } else if (fault.mode == FaultMode::kHostNotString) {
            answer["host"] = 42;
        }
    }
    reply.body = ToJsonText(answer);
    return reply;
}

Json::Value ControlState::Execute(const std::string& role, const Json::Value* body) {
    if (body == nullptr || !body->isObject()) {
        return Answer(kBadRequest);
    }
    if (body->isMember("version") && (*body)["version"] != Json::Value(kProtocolVersion)) {
        return Answer(kUnsupportedVersion);
    }
    const Json::Value* commandMember = StringMember(*body, "command");
    if (commandMember == nullptr) {
        return Answer(kBadRequest);
    }
    const std::string command = commandMember->asString();
    if (command == "get_register_site") {
        return RegisterSite(role);
    }
    if (command == "register") {
        return Register(*body);
    }
    if (command == "set_alias" || command == "query_alias") {
        return Alias(*body, command == "set_alias");
    }
    if (command == "heartbeat") {
        return Answer(kOk);
    }
    return Answer(kUnknownCommand);
}

Json::Value ControlState::RegisterSite(const std::string& role) const {
    const auto own = siteAnswers_.find(role);
    return own != siteAnswers_.end() ? own->second : siteAnswers_.at(primaryHost_);
}

Json::Value ControlState::Register(const Json::Value& body) {
    const Json::Value& auth = body["auth"];
    if (!IsNonEmptyString(auth, "serial") || !IsNonEmptyString(auth, "api_key")) {
        return Answer(kAuth);
    }
    const std::string serial = auth["serial"].asString();
    const std::string serverId = ServerIdForSerial(serial);
    if (serverId.empty()) {
        return Answer(kInternal);
    }
    registeredIds_[serverId] = serial;
    Json::Value answer = Answer(kOk);
    answer["serverID"] = serverId;
    return answer;
}

Json::Value ControlState::Alias(const Json::Value& body, bool store) {
    const Json::Value* serverIdMember = StringMember(body, "serverID");
    const Json::Value* aliasMember = StringMember(body, "alias");
    if (serverIdMember == nullptr || aliasMember == nullptr ||
        !IsValidAlias(aliasMember->asString())) {
        return Answer(kBadRequest);
    }
    const std::string serverId = serverIdMember->asString();
    if (registeredIds_.count(serverId) == 0) {
        return Answer(kNotRegistered);
    }
    // Aliases are host-name labels: "Box" and "box" are the same alias.
    const std::string alias = Lower(aliasMember->asString());
    const auto holder = aliasHolders_.find(alias);
    const bool heldByOther = holder != aliasHolders_.end() && holder->second != serverId;
    const Json::Value* force = StringMember(body, "force");
    if (heldByOther && (force == nullptr || force->asString() != "true")) {
        return Answer(kAliasTaken);
    }
    if (store) {
        // A box has one alias: taking a new one gives up the old one.
        for (auto it = aliasHolders_.begin(); it != aliasHolders_.end();) {
            it = it->second == serverId ? aliasHolders_.erase(it) : std::next(it);
        }
        aliasHolders_[alias] = serverId;
    }
    return Answer(kOk);
}

ControlReply ControlState::Control(const std::string& method, const std::string& path,
                                   const std::string& body) {
    if (path == "/control/records") {
        if (method != "GET") {
            return ControlFailure(405, "use GET");
        }
        return ControlAnswer(200, records_);
    }
    if (method != "POST") {
        return ControlFailure(405, "use POST");
    }
    if (path == "/control/reset") {
        Reset();
        return ControlOk();
    }
    Json::Value request;
    if (!ParseJson(body, request) || !request.isObject()) {
        return ControlFailure(400, "body is not a JSON object");
    }
    std::string error;
    if (path == "/control/fault") {
        return AddFault(request, error) ? ControlOk() : ControlFailure(400, error);
    }
    if (path == "/control/site") {
        return SetSiteAnswer(request, error) ? ControlOk() : ControlFailure(400, error);
    }
    return ControlFailure(404, "no such control: " + path);
}

bool ControlState::AddFault(const Json::Value& request, std::string& error) {
    static const std::map<std::string, FaultMode> kModes = {
        {"normal", FaultMode::kNormal},
        {"error", FaultMode::kError},
        {"malformed", FaultMode::kMalformed},
        {"no_host", FaultMode::kNoHost},
        {"host_not_string", FaultMode::kHostNotString},
        {"delay", FaultMode::kDelay},
        {"close", FaultMode::kClose},
        {"silent", FaultMode::kSilent},
    };
    const Json::Value* mode = StringMember(request, "mode");
    const auto found = mode != nullptr ? kModes.find(mode->asString()) : kModes.end();
    if (found == kModes.end()) {
        error =
            "\"mode\" must be one of normal, error, malformed, no_host, host_not_string, "
            "delay, close, silent";
        return false;
    }
    Fault fault;
    fault.mode = found->second;
    for (const char* name : {"host", "command"}) {
        if (request.isMember(name) && StringMember(request, name) == nullptr) {
            error = std::string("\"") + name + "\" must be a string";
            return false;
        }
    }
    fault.host = Lower(request.get("host", "*").asString());
    fault.command = request.get("command", "*").asString();
    fault.errorNumber = request.isMember("errno") ? request["errno"] : Json::Value(kInternal);
    for (const char* name : {"delay_ms", "count"}) {
        if (request.isMember(name) && (!request[name].isInt() || request[name].asInt() < 0)) {
            error = std::string("\"") + name + "\" must be a non-negative integer";
            return false;
        }
    }
    fault.delayMs = request.get("delay_ms", 0).asInt();
    if (request.isMember("count")) {
        fault.remaining = request["count"].asInt();
        if (fault.remaining == 0) {
            return true;  // a rule for no request at all
        }
    }
    // A new rule for the same requests replaces the old one.
    faults_.erase(std::remove_if(faults_.begin(), faults_.end(),
                                 [&](const Fault& old) {
                                     return old.host == fault.host && old.command == fault.command;
                                 }),
                  faults_.end());
    faults_.push_back(std::move(fault));
    return true;
}

bool ControlState::SetSiteAnswer(const Json::Value& request, std::string& error) {
    const Json::Value* host = StringMember(request, "global_host");
    if (host == nullptr || host->asString().empty() || !request["answer"].isObject()) {
        error = "needs a string \"global_host\" and an object \"answer\"";
        return false;
    }
    siteAnswers_[Lower(host->asString())] = request["answer"];
    return true;
}

}  // namespace controlserver
}  // namespace farlink
