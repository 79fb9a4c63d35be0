// Owning handles for libevent's objects, for every event loop of the tree
// (the host's front, the box's control server and forwarder).
#pragma once

#include <event2/buffer.h>
#include <event2/event.h>
#include <event2/http.h>

#include <memory>

namespace farlink {

template <typename T, void (*Free)(T*)>
struct FreeWith {
    void operator()(T* object) const { Free(object); }
};

using EventBasePtr = std::unique_ptr<event_base, FreeWith<event_base, event_base_free>>;
using EventPtr = std::unique_ptr<event, FreeWith<event, event_free>>;
using EvhttpPtr = std::unique_ptr<evhttp, FreeWith<evhttp, evhttp_free>>;
using EvbufferPtr = std::unique_ptr<evbuffer, FreeWith<evbuffer, evbuffer_free>>;

}  // namespace farlink
