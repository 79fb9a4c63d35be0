// A web API module in a few dozen lines: API "Example.Hello", version 1,
// method "greet". It answers {"greeting":"hello, NAME"} for the parameter
// `name` (a string), and error 2901 when the parameter is missing or not a
// string. Load it with farlink-host --module libwebapi-Example.Hello.so.
#include <orvo/webapi.h>

namespace {

constexpr int kInvalidParameter = 2901;

void Greet_v1(ORVO::APIRequest* request, ORVO::APIResponse* response) {
    const Json::Value name = request->GetParam("name", Json::Value());
    if (!request->HasParam("name") || !name.isString()) {
        response->SetError(kInvalidParameter, Json::Value());
        return;
    }
    Json::Value data;
    data["greeting"] = "hello, " + name.asString();
    response->SetSuccess(data);
}

// The host reads rows until the all-zero one.
const ORVO::APITableEntry kTable[] = {
    {"Example.Hello", 1, "greet", Greet_v1},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" const ORVO::APITableEntry* GetAPITable() { return kTable; }
