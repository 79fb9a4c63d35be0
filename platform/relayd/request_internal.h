// Decoding shared by Request and AliasRequest; not part of the library's
// public interface.
#pragma once

#include <orvo/relayd.h>

namespace ORVO {
namespace Relay {
namespace detail {

// Outcome of an alias request whose answer carried `error`.
ALIAS_RET AliasRetFromServerError(RELAYSERVER_ERR error);
// Outcome of an alias request that failed before an answer arrived.
ALIAS_RET AliasRetFromTransport(RELAYD_RET error);
// Short text of an alias outcome; null for values that are not outcomes.
const char* AliasRetText(ALIAS_RET ret);

}  // namespace detail
}  // namespace Relay
}  // namespace ORVO
