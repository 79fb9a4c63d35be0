#include "secrets.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cctype>

#include "startup_error.h"

namespace farlink::host {

namespace {

// About 10 ms a check here: slow for a guesser holding a copy of the
// hash, quick enough for a login on the front's event loop.
constexpr int kIterations = 20000;

std::array<unsigned char, 32> Derive(const std::string& clear,
                                     const std::array<unsigned char, 16>& salt) {
    std::array<unsigned char, 32> hash{};
    if (PKCS5_PBKDF2_HMAC(clear.data(), static_cast<int>(clear.size()), salt.data(),
                          static_cast<int>(salt.size()), kIterations, EVP_sha256(),
                          static_cast<int>(hash.size()), hash.data()) != 1) {
        throw StartupError("cannot hash the admin password");
    }
    return hash;
}

}  // namespace

PasswordHash HashPassword(std::string& clear) {
    PasswordHash stored;
    if (RAND_bytes(stored.salt.data(), static_cast<int>(stored.salt.size())) != 1) {
        Wipe(clear);
        throw StartupError("cannot salt the admin password");
    }
    stored.hash = Derive(clear, stored.salt);
    Wipe(clear);
    return stored;
}

bool PasswordMatches(const PasswordHash& stored, const std::string& given) {
    std::array<unsigned char, 32> hash{};
    try {
        hash = Derive(given, stored.salt);
    } catch (const StartupError&) {
        return false;
    }
    return CRYPTO_memcmp(hash.data(), stored.hash.data(), hash.size()) == 0;
}

bool NamesSecret(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* marker : {"passw", "secret", "token"}) {
        if (name.find(marker) != std::string::npos) return true;
    }
    return false;
}

bool HoldsSecret(const Json::Value& value) {
    if (value.isArray()) {
        return std::any_of(value.begin(), value.end(),
                           [](const Json::Value& item) { return HoldsSecret(item); });
    }
    if (!value.isObject()) return false;
    for (auto it = value.begin(); it != value.end(); ++it) {
        if (NamesSecret(it.name()) || HoldsSecret(*it)) return true;
    }
    return false;
}

namespace {

// jsoncpp hands out its own buffer of a string value; the buffer is the
// value's, allocated writable, so writing to it is sound.
void WipeStrings(Json::Value& value) {
    if (value.isString()) {
        const char* begin = nullptr;
        const char* end = nullptr;
        if (value.getString(&begin, &end)) OPENSSL_cleanse(const_cast<char*>(begin), end - begin);
        return;
    }
    for (Json::Value& item : value) WipeStrings(item);
}

}  // namespace

void WipeSecrets(Json::Value& value) {
    if (value.isObject()) {
        for (auto it = value.begin(); it != value.end(); ++it) {
            if (NamesSecret(it.name())) {
                WipeStrings(*it);
            } else {
                WipeSecrets(*it);
            }
        }
    } else if (value.isArray()) {
        for (Json::Value& item : value) WipeSecrets(item);
    }
}

void Wipe(std::string& text) {
    text.resize(text.capacity());
    OPENSSL_cleanse(text.data(), text.size());
    text.clear();
}

}  // namespace farlink::host
