#pragma once
// System tests run the real daemon, which binds fixed ports (9004), writes
// under /run/tarnwickrelay and creates shared memory. Each test process puts
// itself into a private network namespace (its own loopback) and a private
// mount namespace with fresh tmpfs on /dev/shm and /run, so tests run in
// parallel and leave nothing on the host. This needs root; elsewhere the
// system tests skip.

// Enters the private namespaces; call once, before any thread starts.
// Returns true when the process is isolated.
bool EnterPrivateNamespaces();
bool IsIsolated();

#define REQUIRE_ISOLATION()                                                                            \
    do {                                                                                               \
        if (!IsIsolated())                                                                             \
            GTEST_SKIP() << "needs root: the daemon runs in private network and mount namespaces";     \
    } while (0)
