// The account bound to the box, as kept in the account state file. The file
// also carries fault controls ("get_error", "query_error") through which a
// test or an emulated box makes the account service fail on purpose.
#include <orvo/kivo.h>
#include <orvo/paths.h>

#include <string>

#include "platform_files.h"

namespace {

using orvo::platform::FindMember;
using orvo::platform::JsonReadResult;

thread_local int lastError = KIVO_ERR_NONE;

int Fail(int code) {
    lastError = code;
    return -1;
}

// An injected failure code, or 0 when `control` is absent or not positive.
int InjectedFault(const Json::Value& state, const char* control) {
    const Json::Value* fault = control ? FindMember(state, control) : nullptr;
    return fault != nullptr && fault->isInt() && fault->asInt() > 0 ? fault->asInt() : 0;
}

// Reads the state of the bound account. Returns KIVO_ERR_NONE or the error
// code that the caller reports; an injected fault takes precedence over what
// the file says about the binding.
int LoadBoundAccount(Json::Value& state, const char* faultControl) {
    switch (orvo::platform::ReadJsonFile(ORVO::Paths::kKivoAccount, state)) {
        case JsonReadResult::kOk:
            break;
        case JsonReadResult::kMissing:
            return KIVO_ERR_NOT_BOUND;
        default:
            return KIVO_ERR_STATE;
    }
    if (!state.isObject()) {
        return KIVO_ERR_STATE;
    }
    if (int fault = InjectedFault(state, faultControl)) {
        return fault;
    }
    const Json::Value* bound = FindMember(state, "bound");
    if (bound != nullptr && bound->isBool() && !bound->asBool()) {
        return KIVO_ERR_NOT_BOUND;
    }
    return KIVO_ERR_NONE;
}

template <std::size_t N>
void CopyText(const Json::Value& state, const char* name, char (&field)[N]) {
    const Json::Value* text = FindMember(state, name);
    if (text != nullptr && text->isString()) {
        orvo::platform::CopyTerminated(text->asString(), field, N);
    }
}

}  // namespace

int ORVOKIVOAccountGet(_tag_kivo_INFO_* info) {
    if (info == nullptr) {
        return Fail(KIVO_ERR_INTERNAL);
    }
    Json::Value state;
    if (int error = LoadBoundAccount(state, "get_error")) {
        return Fail(error);
    }
    CopyText(state, "account", info->account);
    CopyText(state, "kivo_id", info->kivoId);
    CopyText(state, "auth_key", info->authKey);
    CopyText(state, "email", info->email);
    const Json::Value* refresh = FindMember(state, "refresh");
    if (refresh != nullptr && refresh->isInt()) {
        info->refreshFlag = refresh->asInt();
    }
    return 0;
}

int ORVOKIVOAccountQueryInfo(Json::Value& info, bool /*online*/, bool /*full*/) {
    Json::Value state;
    if (int error = LoadBoundAccount(state, "query_error")) {
        return Fail(error);
    }
    Json::Value details(Json::objectValue);
    for (const char* name : {"email", "account", "kivo_id"}) {
        const Json::Value* text = FindMember(state, name);
        if (text != nullptr && text->isString()) {
            details[name] = *text;
        }
    }
    info = details;
    return 0;
}

int ORVOKIVOErrGet() { return lastError; }

namespace orvokivo {

User::User() {
    Json::Value state;
    if (LoadBoundAccount(state, nullptr) == KIVO_ERR_NONE) {
        const Json::Value* validated = FindMember(state, "realname_validated");
        validated_ = validated != nullptr && validated->isBool() && validated->asBool();
    }
}

bool User::GetIsRealnameValidationPass() const { return validated_; }

}  // namespace orvokivo
