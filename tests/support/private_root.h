// Private views of the box's fixed paths for tests that run as root on the
// build machine.
//
// EnterPrivateRoot() moves the calling process into its own mount namespace
// in which
//   - /usr and /etc are overlays: the machine's files are visible, every
//     change stays private to the process and vanishes with it (files that
//     were mount points under /etc, such as a container's resolv.conf, are
//     copied in so that they stay readable and privately writable);
//   - /usr/orvo is an empty tmpfs holding only the skeleton bin/, sbin/,
//     etc/ and var/run/.
// It needs root and must be called while the process is still
// single-threaded (before anything starts a thread): a mount namespace
// entered later applies to the calling thread only. Children started
// afterwards inherit the private view. Calling it again is a no-op.
#pragma once

#include <string>

namespace farlink_test {

// False (with the reason in `error` when given) when the private view could
// not be set up; the process may then be half-way and should stop testing.
bool EnterPrivateRoot(std::string* error = nullptr);

}  // namespace farlink_test
