// The front's decision on one HTTP request: endpoint, method, query string,
// form or JSON body, the session cookie, the Host, Origin and Sec-Fetch-Site
// headers and the version, decoded by the host's own code. The input is
//   METHOD PATH\nQUERY\nCONTENT-TYPE\nCOOKIE\nHOST\tORIGIN\tFETCH-SITE\nBODY
// and a cookie naming "@sid@" carries a live session with its anti-forgery
// token, so that the search gets past the login check to the table lookup.
#include <router.h>

#include <string>
#include <variant>

#include "fuzz_check.h"

namespace {

using namespace farlink::host;

constexpr char kSessionMark[] = "@sid@";

struct Front final : HostState {
    bool CanServe() const override { return true; }
    std::size_t QueueDepth() const override { return 0; }

    std::vector<RowName> rows = {{"ORVO.Core.Farlink", 1, "get"},
                                 {"ORVO.Core.Farlink", 2, "set"},
                                 {"ORVO.Core.Farlink.Permission", 1, "set"}};
    ApiTable table = ApiTable::FromNames(rows);
    SessionStore sessions{
        SessionLimits{std::chrono::seconds(1800), std::chrono::seconds(43200), 4}};
    LoginThrottle throttle;
    AccessLog log{farlink::UniqueFd()};
    HostMetrics metrics{rows};
    AuditLog audit{farlink::UniqueFd()};
    HostNames names{"127.0.0.1", {"nas.example.test"}};
    std::string password = "fuzz-password";
    ApiService service{table, sessions, throttle, HashPassword(password)};
    Router router{service, log, false, {metrics, audit, names, *this}};
    Session session = sessions.Create().value_or(Session{});
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

HttpExchange Exchange(const std::uint8_t* data, std::size_t size, const Session& session) {
    const auto fields = farlink_fuzz::SplitFields(data, size, 6);
    HttpExchange exchange;
    exchange.client = "127.0.0.1:1";
    exchange.address = "127.0.0.1";
    const std::string_view request = fields[0];
    const std::size_t blank = request.find(' ');
    exchange.method = std::string(request.substr(0, blank));
    if (blank != std::string_view::npos) exchange.path = std::string(request.substr(blank + 1));
    exchange.query = std::string(fields[1]);
    exchange.contentType = std::string(fields[2]);
    exchange.cookie = WithSession(std::string(fields[3]), session.id);
    if (exchange.cookie != fields[3]) exchange.token = session.token;
    const std::string headers(fields[4]);
    const std::size_t tab = headers.find('\t');
    const std::size_t secondTab = tab == std::string::npos ? tab : headers.find('\t', tab + 1);
    exchange.host = headers.substr(0, tab);
    if (tab != std::string::npos) exchange.origin = headers.substr(tab + 1, secondTab - tab - 1);
    if (secondTab != std::string::npos) exchange.fetchSite = headers.substr(secondTab + 1);
    exchange.body = std::string(fields[5]);
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
    FUZZ_CHECK(answer.status >= 200 && answer.status < 600);
    // The host's own paths answer with a body of their own (health, metrics).
    if (!answer.api.body.empty()) return;
    const Json::Value& envelope = answer.api.envelope;
    FUZZ_CHECK(envelope.isObject() && envelope["success"].isBool());
    FUZZ_CHECK(envelope["success"].asBool() || envelope["error"]["code"].isInt());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Front& front = TheFront();
    // Logins made by earlier inputs push the oldest session out.
    if (!front.sessions.TokenOf(front.session.id)) {
        front.session = front.sessions.Create().value_or(Session{});
    }
    const HttpExchange exchange = Exchange(data, size, front.session);
    auto decided = front.router.Decide(exchange);
    if (const auto* call = std::get_if<HandlerCall>(&decided)) {
        CheckCall(front, *call);
    } else {
        CheckAnswer(std::get<Router::Answer>(decided));
    }
    return 0;
}
