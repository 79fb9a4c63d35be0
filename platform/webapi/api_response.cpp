#include <orvo/webapi.h>

namespace ORVO {

// Handlers are expected to answer exactly once; a second answer is counted so
// that the server can flag the handler, but it must not overwrite the first.

void APIResponse::SetSuccess(const Json::Value& data) {
    if (answers_++ > 0) {
        return;
    }
    success_ = true;
    errorCode_ = 0;
    data_ = data;
}

void APIResponse::SetError(int code, const Json::Value& data) {
    if (answers_++ > 0) {
        return;
    }
    success_ = false;
    errorCode_ = code;
    data_ = data;
}

}  // namespace ORVO
