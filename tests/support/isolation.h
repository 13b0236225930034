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

// Unit tests make shared-memory objects of their own and remove them at the end; one that ends early (a fatal
// signal, a sanitizer's report, a death test's child, a time-out) would leave them in the host's /dev/shm. As root
// they get a private mount namespace with a fresh tmpfs on /dev/shm, which goes with the process whatever ends it;
// elsewhere they use the host's. Call once, before any thread starts. Returns true when /dev/shm is private.
bool EnterPrivateSharedMemory();
// True when this process's /dev/shm is its own: a test may then use the relay's fixed object names.
bool IsSharedMemoryPrivate();

#define REQUIRE_ISOLATION()                                                                            \
    do {                                                                                               \
        if (!IsIsolated())                                                                             \
            GTEST_SKIP() << "needs root: the daemon runs in private network and mount namespaces";     \
    } while (0)
