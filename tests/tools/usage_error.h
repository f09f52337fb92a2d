// The check that plcpoll's parts refused their input as a usage error with
// the given message.
#ifndef PLCDRIVER_TEST_PLCPOLL_USAGE_ERROR_H
#define PLCDRIVER_TEST_PLCPOLL_USAGE_ERROR_H

#include "result.h"

#include <gtest/gtest.h>

#include <string>

// EXPECT_TRUE(is_usage_error(parse(...), "the message"));
template <typename T>
::testing::AssertionResult is_usage_error(const plcpoll::Result<T> &result, const std::string &message)
{
    if (result.ok())
        return ::testing::AssertionFailure() << "accepted; expected the usage error \"" << message << "\"";
    const plcpoll::Exit &exit = result.exit();
    if (exit.status != plcpoll::ExitStatus::Usage || exit.message != message)
        return ::testing::AssertionFailure() << "status " << int(exit.status) << " \"" << exit.message
                                             << "\"; expected status 2 \"" << message << "\"";
    return ::testing::AssertionSuccess();
}

#endif
