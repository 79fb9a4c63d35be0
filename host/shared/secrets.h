// Secrets the host holds: the admin password only as a salted slow hash,
// and clear text wiped where the host itself kept it.
#pragma once

#include <json/value.h>

#include <array>
#include <string>

namespace farlink::host {

struct PasswordHash {
    std::array<unsigned char, 16> salt{};
    std::array<unsigned char, 32> hash{};  // PBKDF2-HMAC-SHA256
};

// Hashes `clear` with a fresh salt, then wipes it.
PasswordHash HashPassword(std::string& clear);

// In constant time for any `given` of the password's cost.
bool PasswordMatches(const PasswordHash& stored, const std::string& given);

// Whether a parameter's name says it is a secret (password, passwd, secret,
// token, in any case).
bool NamesSecret(std::string name);

// Whether any member of `value`, at any depth, is named as a secret. A
// worker that ran a call with one ends after its answer, so that no copy
// of the secret outlives the call in its memory; the front gives it no
// more work.
bool HoldsSecret(const Json::Value& value);

// Overwrites the text of every string held under a secret's name in
// `value`, at any depth (what jsoncpp frees is not wiped).
void WipeSecrets(Json::Value& value);

// Overwrites every byte `text` holds (its spare capacity too) and empties it.
void Wipe(std::string& text);

}  // namespace farlink::host
