// The request method of a libevent HTTP request as its protocol word.
#pragma once

#include <event2/http.h>

namespace farlink {

inline const char* HttpMethodName(evhttp_cmd_type command) {
    switch (command) {
        case EVHTTP_REQ_GET:
            return "GET";
        case EVHTTP_REQ_POST:
            return "POST";
        case EVHTTP_REQ_HEAD:
            return "HEAD";
        case EVHTTP_REQ_PUT:
            return "PUT";
        case EVHTTP_REQ_DELETE:
            return "DELETE";
        case EVHTTP_REQ_OPTIONS:
            return "OPTIONS";
        case EVHTTP_REQ_TRACE:
            return "TRACE";
        case EVHTTP_REQ_CONNECT:
            return "CONNECT";
        case EVHTTP_REQ_PATCH:
            return "PATCH";
    }
    return "?";
}

}  // namespace farlink
