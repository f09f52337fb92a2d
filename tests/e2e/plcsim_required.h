// The simulator binary the end-to-end tests start, and a skip when this
// build has none (PLCSIM_PATH comes from the build of the test).
#ifndef PLCDRIVER_E2E_PLCSIM_REQUIRED_H
#define PLCDRIVER_E2E_PLCSIM_REQUIRED_H

#include <gtest/gtest.h>

#ifdef PLCSIM_PATH
#define REQUIRE_PLCSIM() (void)0
static const char *const kPlcsim = PLCSIM_PATH;
#else
#define REQUIRE_PLCSIM() GTEST_SKIP() << "plcsim is not part of this build"
static const char *const kPlcsim = "";
#endif

#endif
