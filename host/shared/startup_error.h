// Anything that keeps the server from starting. The message is the one-line
// reason printed before exiting.
#pragma once

#include <stdexcept>

namespace farlink::host {

class StartupError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace farlink::host
