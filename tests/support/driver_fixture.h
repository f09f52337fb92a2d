// GoogleTest fixtures shared by the driver's unit tests: every test starts
// from a freshly reset driver holding a usual communication-info record.
#ifndef PLCDRIVER_DRIVER_FIXTURE_H
#define PLCDRIVER_DRIVER_FIXTURE_H

#include <gtest/gtest.h>

#include "exchange_test_support.h"

// A reset driver with the record of make_com_info in info (adjust it in the
// test; the driver keeps a pointer to it).
class DriverTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        info = make_com_info();
        reset_driver(&info);
    }
    void TearDown() override { reset_driver(nullptr); }

    ComInfo info;
};

// The same with the recording callbacks of exchange_test_support.h registered.
class ExchangeTest : public DriverTest {
protected:
    void SetUp() override
    {
        info = make_com_info();
        reset_with_callbacks(&info);
    }
};

// Table-driven forms of both: one test per row of a case table.
template <typename Case> class DriverTableTest : public DriverTest, public ::testing::WithParamInterface<Case> {
};
template <typename Case> class ExchangeTableTest : public ExchangeTest, public ::testing::WithParamInterface<Case> {
};

#endif
