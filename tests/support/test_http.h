// One HTTP(S) request with libcurl, for the host and box tests.
#pragma once

#include <curl/curl.h>
#include <json/reader.h>
#include <json/value.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace farlink_test {

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    std::string contentType;  // sent as its header when given
    std::string body;         // sent with POST only
    std::string cookie;
    std::vector<std::string> headers;  // "Name: value"
    std::string sourceAddress;         // a local address to connect from
    std::string caFile;                // trusted for https, besides the system's
};

struct HttpResult {
    long status = 0;    // 0: no answer
    std::string error;  // why there was no answer
    std::string body;
    std::string setCookie;
    std::map<std::string, std::string> headers;  // by lower-case name; the last one of a name
    Json::Value json;                            // null unless the body was JSON
};

inline std::string UrlEscape(const std::string& text) {
    std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_escape(text.c_str(), static_cast<int>(text.size())), curl_free);
    return escaped ? escaped.get() : "";
}

inline void TakeHeaders(CURL* curl, HttpResult& result) {
    for (curl_header* header = nullptr;
         (header = curl_easy_nextheader(curl, CURLH_HEADER, -1, header)) != nullptr;) {
        std::string name = header->name;
        for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        result.headers[name] = header->value;
    }
    const auto setCookie = result.headers.find("set-cookie");
    if (setCookie != result.headers.end()) result.setCookie = setCookie->second;
}

inline HttpResult Fetch(const HttpRequest& request) {
    static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    HttpResult result;
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(
        initialised ? curl_easy_init() : nullptr, curl_easy_cleanup);
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(nullptr,
                                                                        curl_slist_free_all);
    std::vector<std::string> lines = request.headers;
    if (!request.contentType.empty()) lines.push_back("Content-Type: " + request.contentType);
    for (const std::string& line : lines) {
        curl_slist* longer = curl_slist_append(headers.get(), line.c_str());
        if (longer == nullptr) return result;
        headers.release();
        headers.reset(longer);
    }
    if (!curl) return result;
    CURL* handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    if (request.method == "POST") {
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
    }
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    if (!request.cookie.empty()) curl_easy_setopt(handle, CURLOPT_COOKIE, request.cookie.c_str());
    if (!request.sourceAddress.empty()) {
        curl_easy_setopt(handle, CURLOPT_INTERFACE, ("host!" + request.sourceAddress).c_str());
    }
    if (!request.caFile.empty()) curl_easy_setopt(handle, CURLOPT_CAINFO, request.caFile.c_str());
    curl_easy_setopt(
        handle, CURLOPT_WRITEFUNCTION, +[](char* data, size_t size, size_t count, void* target) {
            static_cast<std::string*>(target)->append(data, size * count);
            return size * count;
        });
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &result.body);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    const CURLcode code = curl_easy_perform(handle);
    if (code != CURLE_OK) {
        result.error = curl_easy_strerror(code);
        return result;
    }
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &result.status);
    TakeHeaders(handle, result);
    std::istringstream text(result.body);
    if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &result.json, nullptr))
        result.json = Json::Value();
    return result;
}

inline HttpResult Fetch(const std::string& method, const std::string& url,
                        const std::string& contentType = "", const std::string& body = "",
                        const std::string& cookie = "") {
    HttpRequest request;
    request.method = method;
    request.url = url;
    request.contentType = contentType;
    request.body = body;
    request.cookie = cookie;
    return Fetch(request);
}

}  // namespace farlink_test
