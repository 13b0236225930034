#include <gtest/gtest.h>

#include "support/isolation.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    EnterPrivateNamespaces();
    return RUN_ALL_TESTS();
}
