// A job handler instance under test, for the unit and the threaded tests
// of apij.
//
// The instance takes its memory from a TestAllocator; at the end of each
// test it is destroyed (if the test left it) and nothing may be left
// allocated. The log is captured from before the instance exists.
//
// Header-only; every test program may include it.
#ifndef TESTS_SUPPORT_APIJ_FIXTURE_H
#define TESTS_SUPPORT_APIJ_FIXTURE_H

#include <cstdint>

#include <gtest/gtest.h>

#include "loreg/apij.h"
#include "support/log_capture.h"
#include "support/test_allocator.h"

namespace testsupport {

class ApijFixture : public ::testing::Test {
 protected:
  // Creates the instance with the given cookie sizes and instance cookie,
  // then forgets the lines logged so far. A test that sets inst to null
  // (after destroying it itself) skips the destruction in TearDown.
  void Make(uint32_t jobCookieSize = 0, uint32_t cbCookieSize = 0, uint32_t instCookieSize = 0,
            void *cookie = nullptr) {
    apij_config config{};
    config.allocator = alloc.handle();
    config.jobCookieSize = jobCookieSize;
    config.cbCookieSize = cbCookieSize;
    config.instCookieSize = instCookieSize;
    inst = apij_InstCreate(&config, cookie);
    ASSERT_NE(inst, nullptr);
    log.clear();
  }

  void TearDown() override {
    if (inst != nullptr) {
      EXPECT_EQ(apij_InstDestroy(inst), 0);
    }
    EXPECT_EQ(alloc.live_blocks(), 0u);
  }

  LogCapture log;
  TestAllocator alloc;
  apij_inst *inst = nullptr;
};

}  // namespace testsupport

#endif
