// The Python client module against the real daemon and the camera simulator: the script
// clients/python/tests/daemon_check.py reads the status, sends a command, reads the ring and drives a
// remote-control slot; it runs here inside this process's private namespaces.
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/isolation.h"

TEST(PythonClientTest, StatusCommandRingAndRemoteControlAgainstTheDaemon)
{
    REQUIRE_ISOLATION();
    const std::string source = TARNWICK_SOURCE_DIR;
    ChildProcess check;
    ASSERT_TRUE(check.Start("/usr/bin/python3", {source + "/clients/python/tests/daemon_check.py", DaemonPath(),
                                                 CamsimPath(), source + "/tools/camsim/sample.h264"}));
    EXPECT_EQ(check.WaitExit(90000), 0) << check.Stdout() << check.Stderr();
}
