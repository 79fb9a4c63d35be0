// A private system log for tests: catches what the process (and its
// children) send with syslog(3), without touching the machine's /dev/log.
//
// Usage:
//   farlink_test::PrivateSyslog log;          // after EnterPrivateRoot() is possible
//   ASSERT_TRUE(log.Ok()) << log.Error();
//   syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: ...", "utils", 42);
//   auto records = log.Records();             // records[0].priority == 35
//
// The constructor enters the private root if needed (see private_root.h: the
// process must still be single-threaded the first time), mounts a tmpfs over
// /dev in that namespace, recreates /dev/null, /dev/zero, /dev/random,
// /dev/urandom, /dev/fd, /dev/std{in,out,err} and /dev/shm, and binds a
// datagram socket at /dev/log (mode 0666, so code that has dropped its
// effective ids can still log). It calls closelog() so that the next
// syslog() call of this process connects to the new socket.
//
// A background thread drains the socket continuously: senders never block
// on a full queue. Lines() and Records() first collect whatever is already
// queued, so a line logged by this process before the call is always seen;
// lines from other processes may need WaitForLines().
//
// Only one PrivateSyslog may exist at a time; the /dev tmpfs stays for the
// rest of the process, /dev/log is removed by the destructor.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace farlink_test {

// One syslog line as glibc sends it: "<PRI>Mmm dd hh:mm:ss TAG[PID]: MESSAGE".
struct SyslogRecord {
    // facility | severity as sent, e.g. LOG_AUTH | LOG_ERR == 35; glibc puts
    // in the default facility (LOG_USER, so LOG_ERR arrives as 11).
    int priority = -1;
    std::string tag;      // "TAG" or "TAG[PID]" as sent (the program name by default)
    std::string message;  // everything after "TAG: ", unchanged (a trailing newline stays)
};

// Splits a raw line; false when it does not start with "<PRI>" and a
// timestamp (the record is then left unchanged).
bool ParseSyslogLine(const std::string& raw, SyslogRecord& record);

class PrivateSyslog {
public:
    PrivateSyslog();
    ~PrivateSyslog();
    PrivateSyslog(const PrivateSyslog&) = delete;
    PrivateSyslog& operator=(const PrivateSyslog&) = delete;

    bool Ok() const;
    const std::string& Error() const;

    // Raw lines received so far, oldest first.
    std::vector<std::string> Lines() const;
    // The same lines parsed; lines that do not parse are skipped.
    std::vector<SyslogRecord> Records() const;
    // Waits until at least `count` lines have arrived; false on time-out.
    bool WaitForLines(std::size_t count, std::chrono::milliseconds timeout) const;
    // Forgets the lines received so far.
    void Clear();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace farlink_test
