// The relay killed (SIGKILL) and started again many times under a C and a
// Python ring reader, while the simulator streams a counter-stamped video:
// clients/python/tests/restart_stress.py drives it and checks what the
// readers wrote; it runs here inside this process's private namespaces.
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/isolation.h"

TEST(RingRestartStress, ReadersNeverHandOutAnEarlierRunAfterALaterOneAndEveryRunDecodes)
{
    REQUIRE_ISOLATION();
    const std::string source = TARNWICK_SOURCE_DIR;
    ChildProcess stress;
    ASSERT_TRUE(stress.Start("/usr/bin/python3",
                             {source + "/clients/python/tests/restart_stress.py", DaemonPath(), CamsimPath(),
                              source + "/tools/camsim/sample.h264", TARNWICK_RING_FOLLOW_PATH,
                              std::to_string(TARNWICK_STRESS_RESTARTS)}));
    EXPECT_EQ(stress.WaitExit(800000), 0) << stress.Stdout() << stress.Stderr();
    std::cout << stress.Stdout();
}
