// Owners of libevent objects, freed in reverse order of their declaration.
#pragma once

#include <event2/event.h>
#include <event2/http.h>

#include <memory>

namespace farlink::host {

struct EventBaseDeleter {
    void operator()(event_base* base) const { event_base_free(base); }
};
struct EvhttpDeleter {
    void operator()(evhttp* http) const { evhttp_free(http); }
};
struct EventDeleter {
    void operator()(event* ev) const { event_free(ev); }
};
using EventBasePtr = std::unique_ptr<event_base, EventBaseDeleter>;
using EvhttpPtr = std::unique_ptr<evhttp, EvhttpDeleter>;
using EventPtr = std::unique_ptr<event, EventDeleter>;

}  // namespace farlink::host
