// Web API framework (libwebapi-OVM5): the request and response objects that
// the web API server hands to a module's handlers, and the binary layout of
// the table a module exports through GetAPITable.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace ORVO {

class APIRequest {
public:
    // `params` is the request's parameter object; anything else is treated
    // as an empty object so that handlers never see a non-object.
    APIRequest(std::string api, int version, std::string method, Json::Value params);

    const std::string& GetAPIName() const { return api_; }
    int GetAPIVersion() const { return version_; }
    const std::string& GetAPIMethod() const { return method_; }

    bool HasParam(const std::string& name) const;
    // The empty name yields the whole parameter object.
    Json::Value GetParam(const std::string& name, const Json::Value& defaultValue) const;

private:
    std::string api_;
    int version_;
    std::string method_;
    Json::Value params_;
};

class APIResponse {
public:
    void SetSuccess(const Json::Value& data);
    void SetError(int code, const Json::Value& data);

    // What the handler answered. A handler that never answers leaves
    // IsAnswered() false; one that answers twice is counted, and the first
    // answer is the one that stands.
    bool IsAnswered() const { return answers_ > 0; }
    int AnswerCount() const { return answers_; }
    bool IsSuccess() const { return success_; }
    int GetErrorCode() const { return errorCode_; }
    const Json::Value& GetData() const { return data_; }

private:
    int answers_ = 0;
    bool success_ = false;
    int errorCode_ = 0;
    Json::Value data_;
};

using APIHandler = void (*)(APIRequest*, APIResponse*);

// One row of a module's API table: four machine words. The version slot is
// a full word whose upper half stays zero; an all-zero row ends the table.
struct APITableEntry {
    const char* api;
    std::uint64_t version;
    const char* method;
    APIHandler handler;
};
static_assert(sizeof(APITableEntry) == 32, "API table rows are four 8-byte slots");

// The symbol a module exports for the loader.
using GetAPITableFn = const APITableEntry* (*)();
constexpr const char kGetAPITableSymbol[] = "GetAPITable";

}  // namespace ORVO
