// The front's decision on one HTTP request: endpoint, method, query string,
// form or JSON body, the session cookie and the version, decoded by the
// host's own code. The input is
//   METHOD PATH\nQUERY\nCONTENT-TYPE\nCOOKIE\nBODY
// and a cookie naming "@sid@" carries a live session, so that the search
// gets past the login check to the table lookup.
#include <router.h>

#include <string>
#include <variant>

#include "fuzz_check.h"

namespace {

using namespace farlink::host;

constexpr char kSessionMark[] = "@sid@";

struct Front {
    ApiTable table = ApiTable::FromNames({{"ORVO.Core.Farlink", 1, "get"},
                                          {"ORVO.Core.Farlink", 2, "set"},
                                          {"ORVO.Core.Farlink.Permission", 1, "set"}});
    SessionStore sessions{4};
    AccessLog log{farlink::UniqueFd()};
    ApiService service{table, sessions, "fuzz-password"};
    Router router{service, log};
    std::string session = sessions.Create().value_or("");
};

Front& TheFront() {
    static Front front;
    return front;
}

std::string WithSession(std::string cookie, const std::string& session) {
    for (std::size_t at = cookie.find(kSessionMark); at != std::string::npos;
         at = cookie.find(kSessionMark, at + session.size())) {
        cookie.replace(at, sizeof kSessionMark - 1, session);
    }
    return cookie;
}

HttpExchange Exchange(const std::uint8_t* data, std::size_t size, const std::string& session) {
    const auto fields = farlink_fuzz::SplitFields(data, size, 5);
    HttpExchange exchange;
    exchange.client = "127.0.0.1:1";
    const std::string_view request = fields[0];
    const std::size_t blank = request.find(' ');
    exchange.method = std::string(request.substr(0, blank));
    if (blank != std::string_view::npos) exchange.path = std::string(request.substr(blank + 1));
    exchange.query = std::string(fields[1]);
    exchange.contentType = std::string(fields[2]);
    exchange.cookie = WithSession(std::string(fields[3]), session);
    exchange.body = std::string(fields[4]);
    return exchange;
}

// A call leaves the front only for a row of the table, with the names the
// host reads itself taken out of what the handler sees.
void CheckCall(const Front& front, const HandlerCall& call) {
    FUZZ_CHECK(front.table.Find(call.api, call.version, call.method).found);
    FUZZ_CHECK(call.params.isObject());
    for (const std::string& own : ApiService::kCallNames) FUZZ_CHECK(!call.params.isMember(own));
}

void CheckAnswer(const Router::Answer& answer) {
    const Json::Value& envelope = answer.api.envelope;
    FUZZ_CHECK(envelope.isObject() && envelope["success"].isBool());
    FUZZ_CHECK(envelope["success"].asBool() || envelope["error"]["code"].isInt());
    FUZZ_CHECK(answer.status >= 200 && answer.status < 600);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Front& front = TheFront();
    // Logins made by earlier inputs push the oldest session out.
    if (!front.sessions.IsValid(front.session))
        front.session = front.sessions.Create().value_or("");
    const HttpExchange exchange = Exchange(data, size, front.session);
    auto decided = front.router.Decide(exchange);
    if (const auto* call = std::get_if<HandlerCall>(&decided)) {
        CheckCall(front, *call);
    } else {
        CheckAnswer(std::get<Router::Answer>(decided));
    }
    return 0;
}
