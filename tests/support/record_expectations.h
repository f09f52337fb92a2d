// GoogleTest expectations on the driver's records, shared by the unit tests.
#ifndef PLCDRIVER_RECORD_EXPECTATIONS_H
#define PLCDRIVER_RECORD_EXPECTATIONS_H

#include <gtest/gtest.h>

#include "Communication_Protocol.h"

// Every field of two variable records is equal.
inline void expect_same_var(const RW_VAR &a, const RW_VAR &b)
{
    EXPECT_EQ(a.source_type, b.source_type);
    EXPECT_EQ(a.source_id, b.source_id);
    EXPECT_EQ(a.rw_flag, b.rw_flag);
    EXPECT_EQ(a.link_mode, b.link_mode);
    EXPECT_EQ(a.link_id, b.link_id);
    EXPECT_EQ(a.status, b.status);
    EXPECT_EQ(a.name_text, b.name_text);
    EXPECT_EQ(a.address_text, b.address_text);
    EXPECT_EQ(a.reg_kind, b.reg_kind);
    EXPECT_EQ(a.start_addr, b.start_addr);
    EXPECT_EQ(a.station, b.station);
    EXPECT_EQ(a.count, b.count);
    EXPECT_EQ(a.ext_param1, b.ext_param1);
    EXPECT_EQ(a.ext_param2, b.ext_param2);
    EXPECT_EQ(a.data, b.data);
}

#endif
