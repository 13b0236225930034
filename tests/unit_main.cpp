// The unit tests' main: each test process gets a /dev/shm of its own when it can (see support/isolation.h).
#include <gtest/gtest.h>

#include "support/isolation.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    EnterPrivateSharedMemory();
    return RUN_ALL_TESTS();
}
