// The exported entry points link from the static build and answer.
#include <gtest/gtest.h>

#include "driver_test_support.h"

TEST(ExportedInterface, QueryFinishFlagAlwaysOne)
{
    EXPECT_EQ(QueryFinishFlag(), 1);
}
