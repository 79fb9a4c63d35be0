// A private system log for tests: catches what the process (and its
// children) send with syslog(3), without touching the machine's /dev/log.
//
// The constructor enters the private root if needed (see private_root.h: the
// process must still be single-threaded the first time), mounts a tmpfs over
// /dev in that namespace with the basic devices, and binds a datagram socket
// at /dev/log (mode 0666, so code that has dropped its effective ids can
// still log). It calls closelog() so that the next syslog() call of this
// process connects to the new socket. The socket queues what is sent until
// Records() reads it, which suits the few lines a test logs.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace farlink_test {

// One line as glibc sends it, "<PRI>Mmm dd hh:mm:ss TAG[PID]: MESSAGE", as
// {priority (facility | severity, e.g. LOG_AUTH | LOG_ERR == 35), MESSAGE}.
using SyslogRecord = std::pair<int, std::string>;

class PrivateSyslog {
public:
    PrivateSyslog();
    ~PrivateSyslog();
    PrivateSyslog(const PrivateSyslog&) = delete;
    PrivateSyslog& operator=(const PrivateSyslog&) = delete;

    bool Ok() const { return error_.empty(); }
    const std::string& Error() const { return error_; }

    // The lines received so far, oldest first, after waiting up to `limit`
    // for at least `count` of them.
    std::vector<SyslogRecord> Records(std::size_t count = 0,
                                      std::chrono::milliseconds limit = std::chrono::seconds(5));

private:
    int socket_ = -1;
    std::string error_;
    std::vector<SyslogRecord> records_;
};

}  // namespace farlink_test
