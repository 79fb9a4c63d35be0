// JSON exchanges with the control servers over HTTP(S), through libcurl.
#include <curl/curl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <orvo/paths.h>
#include <orvo/relayd.h>

#include <memory>
#include <mutex>
#include <sstream>

#include "request_internal.h"
#include "trust_store.h"

namespace ORVO {
namespace Relay {
namespace {

// Without a bound on the whole exchange a server that accepts the
// connection and then says nothing would hold the caller's thread forever.
constexpr long kDefaultTimeoutSeconds = 30;
// Answers are small JSON objects; anything far larger is not one of them.
constexpr size_t kMaxResponseBytes = 1 << 20;

constexpr long kAliasConnectTimeoutSeconds = 5;
constexpr long kAliasTimeoutSeconds = 30;
constexpr int kProtocolVersion = 1;

struct CurlEasyCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyCleanup>;

struct CurlSlistFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHeaders = std::unique_ptr<curl_slist, CurlSlistFree>;

void InitCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

CurlHeaders JsonRequestHeaders() {
    CurlHeaders headers;
    for (const char* line : {"Content-Type: application/json", "Accept: application/json",
                             // No 100-continue round trip for our small bodies.
                             "Expect:"}) {
        curl_slist* grown = curl_slist_append(headers.get(), line);
        if (grown == nullptr) {
            return nullptr;
        }
        headers.release();
        headers.reset(grown);
    }
    return headers;
}

size_t AppendToString(char* data, size_t size, size_t count, void* target) {
    auto* received = static_cast<std::string*>(target);
    const size_t bytes = size * count;
    if (received->size() + bytes > kMaxResponseBytes) {
        return 0;  // aborts the transfer with CURLE_WRITE_ERROR
    }
    received->append(data, bytes);
    return bytes;
}

RELAYD_RET FromCurlResult(CURLcode code) {
    switch (code) {
        case CURLE_OK:
            return RELAYD_OK;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return RELAYD_ERR_RESOLVE;
        case CURLE_COULDNT_CONNECT:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
            return RELAYD_ERR_NETWORK;
        case CURLE_OPERATION_TIMEDOUT:
            return RELAYD_ERR_TIMEOUT;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_CLIENTCERT:
        case CURLE_USE_SSL_FAILED:
            return RELAYD_ERR_TLS;
        case CURLE_URL_MALFORMAT:
        case CURLE_UNSUPPORTED_PROTOCOL:
            return RELAYD_ERR_INVALID_ARG;
        case CURLE_WRITE_ERROR:
            return RELAYD_ERR_BAD_RESPONSE;  // only our size cap refuses data
        default:
            return RELAYD_ERR_UNKNOWN;
    }
}

RELAYD_RET FromHttpStatus(long status) {
    switch (status) {
        case 429:
        case 503:
            return RELAYD_ERR_SERVER_BUSY;
        case 404:
        case 405:
        case 501:
            return RELAYD_ERR_UNSUPPORTED;
        default:
            // Redirects are not followed, so a 3xx is no answer either.
            return status >= 400 ? RELAYD_ERR_SERVER_INTERNAL : RELAYD_ERR_BAD_RESPONSE;
    }
}

bool IsSuccessStatus(long status) { return status >= 200 && status < 300; }

bool ParseObject(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value parsed;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr) ||
            !parsed.isObject()) {
            return false;
        }
    } catch (const Json::Exception&) {
        return false;  // nested deeper than the reader's stack limit
    }
    out = std::move(parsed);
    return true;
}

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

const char* AliasCommandName(ALIAS_REQUEST_CMD command) {
    return command == ALIAS_REQUEST_QUERY ? "query_alias" : "set_alias";
}

}  // namespace

Request::Request(const std::string& url, const Json::Value& body, bool post) {
    // Callers construct with a body still to be filled and Set it later, so
    // an unusable first value is not an error here.
    Set(url, body, post);
}

Request::~Request() = default;

bool Request::Set(const std::string& url, const Json::Value& body, bool post) {
    if (url.empty() || !body.isObject()) {
        return false;
    }
    url_ = url;
    body_ = CompactJson(body);
    post_ = post;
    return true;
}

bool Request::SetConnectionTimeout(long seconds) {
    if (seconds <= 0) {
        return false;
    }
    connectTimeout_ = seconds;
    return true;
}

bool Request::SetTimeout(long seconds) {
    if (seconds <= 0) {
        return false;
    }
    timeout_ = seconds;
    return true;
}

bool Request::Send() {
    received_.clear();
    httpStatus_ = 0;
    curlResult_ = CURLE_OK;
    if (url_.empty() || body_.empty()) {
        error_ = RELAYD_ERR_INVALID_ARG;
        return false;
    }

    InitCurlOnce();
    CurlEasy curl(curl_easy_init());
    CurlHeaders headers = JsonRequestHeaders();
    if (!curl || !headers) {
        error_ = RELAYD_ERR_UNKNOWN;
        return false;
    }
    CURL* handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, timeout_ > 0 ? timeout_ : kDefaultTimeoutSeconds);
    if (connectTimeout_ > 0) {
        curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, connectTimeout_);
    }
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    const detail::TrustStore trust = detail::UseCachedTrustStore(handle);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    if (post_) {
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body_.c_str());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(body_.size()));
    } else {
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    }
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, AppendToString);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &received_);

    const CURLcode code = curl_easy_perform(handle);
    curlResult_ = code;
    if (code != CURLE_OK) {
        error_ = FromCurlResult(code);
        return false;
    }
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &httpStatus_);
    if (!IsSuccessStatus(httpStatus_)) {
        error_ = FromHttpStatus(httpStatus_);
        return false;
    }
    // The exchange itself worked; whether the answer is usable is told by
    // GetResponse, with this error for the caller to report.
    Json::Value answer;
    error_ = ParseObject(received_, answer) ? RELAYD_OK : RELAYD_ERR_BAD_RESPONSE;
    return true;
}

bool Request::GetResponse(Json::Value& response) const {
    return IsSuccessStatus(httpStatus_) && ParseObject(received_, response);
}

AliasRequest::AliasRequest() : body_(Json::objectValue) {}

bool AliasRequest::SetRequest(ALIAS_REQUEST_CMD command, const Json::Value& body) {
    if (!body.isObject() || (command != ALIAS_REQUEST_SET && command != ALIAS_REQUEST_QUERY)) {
        return false;
    }
    command_ = command;
    body_ = body;
    ready_ = true;
    return true;
}

bool AliasRequest::Send(ALIAS_RET& ret) {
    if (!ready_) {
        ret = ALIAS_ERR_PARAM;
        return false;
    }
    // Read at send time: the daemon or a register-site discovery may have
    // moved the register site since this object was made.
    const RelaydConf conf(Paths::kRelaydConf);
    Json::Value body = body_;
    body["version"] = kProtocolVersion;
    body["command"] = AliasCommandName(command_);

    Request request(conf.serverControl.GetUrl(nullptr), body, true);
    request.SetConnectionTimeout(kAliasConnectTimeoutSeconds);
    request.SetTimeout(kAliasTimeoutSeconds);
    if (!request.Send()) {
        ret = detail::AliasRetFromTransport(request.GetError());
        return false;
    }
    Json::Value answer;
    if (!request.GetResponse(answer)) {
        ret = ALIAS_ERR_UNKNOWN;
        return false;
    }
    ret = detail::AliasRetFromServerError(ParseServerError(answer));
    return ret == ALIAS_OK;
}

bool AliasRequest::ResponseToString(ALIAS_RET ret, std::string& text) const {
    const char* known = detail::AliasRetText(ret);
    text = known != nullptr ? known : "unknown error";
    return known != nullptr;
}

}  // namespace Relay
}  // namespace ORVO
