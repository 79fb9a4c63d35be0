// One HTTP request with libcurl, for the host and box tests.
#pragma once

#include <curl/curl.h>
#include <json/reader.h>
#include <json/value.h>

#include <memory>
#include <sstream>
#include <string>

namespace farlink_test {

struct HttpResult {
    long status = 0;    // 0: no answer
    std::string error;  // why there was no answer
    std::string body;
    std::string setCookie;
    Json::Value json;  // null unless the body was JSON
};

inline std::string UrlEscape(const std::string& text) {
    std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_escape(text.c_str(), static_cast<int>(text.size())), curl_free);
    return escaped ? escaped.get() : "";
}

// `body` is sent with POST only; `contentType`, when given, as its header.
inline HttpResult Fetch(const std::string& method, const std::string& url,
                        const std::string& contentType = "", const std::string& body = "",
                        const std::string& cookie = "") {
    static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    HttpResult result;
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(
        initialised ? curl_easy_init() : nullptr, curl_easy_cleanup);
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
        contentType.empty() ? nullptr
                            : curl_slist_append(nullptr, ("Content-Type: " + contentType).c_str()),
        curl_slist_free_all);
    if (!curl) return result;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
    if (method == "POST") {
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(body.size()));
    }
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    if (!cookie.empty()) curl_easy_setopt(curl.get(), CURLOPT_COOKIE, cookie.c_str());
    curl_easy_setopt(
        curl.get(), CURLOPT_WRITEFUNCTION,
        +[](char* data, size_t size, size_t count, void* target) {
            static_cast<std::string*>(target)->append(data, size * count);
            return size * count;
        });
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &result.body);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    const CURLcode code = curl_easy_perform(curl.get());
    if (code != CURLE_OK) {
        result.error = curl_easy_strerror(code);
        return result;
    }
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &result.status);
    curl_header* setCookie = nullptr;
    if (curl_easy_header(curl.get(), "Set-Cookie", 0, CURLH_HEADER, -1, &setCookie) == CURLHE_OK)
        result.setCookie = setCookie->value;
    std::istringstream text(result.body);
    if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &result.json, nullptr))
        result.json = Json::Value();
    return result;
}

}  // namespace farlink_test
