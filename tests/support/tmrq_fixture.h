// A timer queue under test, for the unit and the threaded tests of tmrq.
//
// The queue takes its memory from a TestAllocator; at the end of each test
// it is destroyed (if the test left it) and nothing may be left allocated.
//
// Header-only; every test program may include it.
#ifndef TESTS_SUPPORT_TMRQ_FIXTURE_H
#define TESTS_SUPPORT_TMRQ_FIXTURE_H

#include <cstdint>

#include <gtest/gtest.h>

#include "loreg/tmrq.h"
#include "platform/csp_osal.h"
#include "support/test_allocator.h"

namespace testsupport {

// A time of sec seconds and usec microseconds.
inline _cspOsalTime_struct T(int64_t sec, int32_t usec = 0) {
  _cspOsalTime_struct t;
  t.sec = sec;
  t.usec = usec;
  return t;
}

class TmrqFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    tmrq_params params;
    params.allocator = alloc.handle();
    queue = tmrq_InstCreate(&params);
    ASSERT_NE(queue, nullptr);
  }

  // A test that sets queue to null (after destroying it itself) skips the
  // destruction.
  void TearDown() override {
    if (queue != nullptr) {
      EXPECT_EQ(tmrq_InstDestroy(queue), 0);
    }
    EXPECT_EQ(alloc.live_blocks(), 0u);
  }

  // Creates a timer and returns its id, expecting success.
  int32_t Create(tmrq_info info) {
    EXPECT_GE(tmrq_TimerCreate(queue, &info), 0);
    return info.id;
  }

  TestAllocator alloc;
  tmrq_inst *queue = nullptr;
};

}  // namespace testsupport

#endif
