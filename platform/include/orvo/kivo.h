// Account library (liborvokivo): the kivo account bound to the box.
// State lives in Paths::kKivoAccount (see docs/platform-base.md).
#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>

struct _tag_kivo_INFO_ {
    char account[8192];  // account name
    char kivoId[4096];   // account identifier
    char authKey[4096];  // authentication key of the box for this account
    char email[3840];
    std::int32_t refreshFlag;  // 1: the cached account data is stale
    char reserved[28];
};
static_assert(sizeof(_tag_kivo_INFO_) == 20256, "account record size is fixed");
static_assert(offsetof(_tag_kivo_INFO_, kivoId) == 8192, "account record layout is fixed");
static_assert(offsetof(_tag_kivo_INFO_, authKey) == 12288, "account record layout is fixed");
static_assert(offsetof(_tag_kivo_INFO_, refreshFlag) == 20224, "account record layout is fixed");

// Error codes of the account library (ORVOKIVOErrGet).
constexpr int KIVO_ERR_NONE = 0;
constexpr int KIVO_ERR_INTERNAL = 1;
constexpr int KIVO_ERR_STATE = 2;      // the account state file cannot be read
constexpr int KIVO_ERR_NOT_BOUND = 3;  // no account is bound to the box
constexpr int KIVO_ERR_NETWORK = 4;    // the account service cannot be reached

// Fills `info` from the account state; 0 on success.
int ORVOKIVOAccountGet(_tag_kivo_INFO_* info);
// Fills `info` with the account's details ("email", ...); 0 on success.
int ORVOKIVOAccountQueryInfo(Json::Value& info, bool online, bool full);
// Error code of the calling thread's last failed call.
int ORVOKIVOErrGet();

namespace orvokivo {

class User {
public:
    User();
    bool GetIsRealnameValidationPass() const;

private:
    bool validated_ = false;
};

}  // namespace orvokivo
