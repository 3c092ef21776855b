// The OS layer's time functions and the uptime clock's test hook.
#include <gtest/gtest.h>

#include <atomic>

#include "platform/csp_osal.h"

namespace {

_cspOsalTime_struct T(int64_t sec, int32_t usec) { return _cspOsalTime_struct{sec, usec}; }

TEST(CspTime, AddCarriesMicroseconds) {
  _cspOsalTime_struct a = T(1, 700000), b = T(2, 400000), r{};
  cspOsalAddTime(&r, &a, &b);
  EXPECT_EQ(r.sec, 4);
  EXPECT_EQ(r.usec, 100000);
}

TEST(CspTime, AddMayAliasItsArguments) {
  _cspOsalTime_struct a = T(5, 999999), b = T(0, 1);
  cspOsalAddTime(&a, &a, &b);
  EXPECT_EQ(a.sec, 6);
  EXPECT_EQ(a.usec, 0);
}

TEST(CspTime, SubtractBorrowsAndNormalisesNegativeResults) {
  _cspOsalTime_struct a = T(10, 0), b = T(13, 500000), r{};
  cspOsalSubtractTime3(&r, &a, &b);
  // -3.5 s is -4 s + 0.5 s in normal form.
  EXPECT_EQ(r.sec, -4);
  EXPECT_EQ(r.usec, 500000);
  cspOsalSubtractTime3(&r, &b, &a);
  EXPECT_EQ(r.sec, 3);
  EXPECT_EQ(r.usec, 500000);
}

TEST(CspTime, NormaliseHandlesNegativeMicroseconds) {
  _cspOsalTime_struct t = T(0, -1);
  cspOsalNormalizeTime(&t);
  EXPECT_EQ(t.sec, -1);
  EXPECT_EQ(t.usec, 999999);
  t = T(1, 2500000);
  cspOsalNormalizeTime(&t);
  EXPECT_EQ(t.sec, 3);
  EXPECT_EQ(t.usec, 500000);
}

TEST(CspTime, CompareOrdersBySecondsThenMicroseconds) {
  _cspOsalTime_struct a = T(1, 5), b = T(1, 6), c = T(2, 0);
  EXPECT_EQ(cspOsalCompareTime(&a, &b), -1);
  EXPECT_EQ(cspOsalCompareTime(&b, &a), 1);
  EXPECT_EQ(cspOsalCompareTime(&b, &c), -1);
  EXPECT_EQ(cspOsalCompareTime(&c, &c), 0);
  EXPECT_EQ(cspOsalCompareTime(&CSP_OSAL_TIME_NEG_INFINITY, &a), -1);
}

TEST(CspTime, RelativeTimeoutOfADueTimerIsSmallButPositive) {
  _cspOsalTime_struct rel{};
  _cspOsalTime_struct zero = T(0, 0), past = T(-3, 200000), later = T(2, 250000);
  EXPECT_EQ(_cspOsalPlatform_Common_RelativeTimeout(&rel, &zero), 0);
  EXPECT_EQ(rel.sec, 0);
  EXPECT_EQ(rel.usec, CSP_OSAL_MIN_RELATIVE_USEC);
  EXPECT_GT(rel.usec, 0);
  _cspOsalPlatform_Common_RelativeTimeout(&rel, &past);
  EXPECT_EQ(rel.sec, 0);
  EXPECT_EQ(rel.usec, CSP_OSAL_MIN_RELATIVE_USEC);
  _cspOsalPlatform_Common_RelativeTimeout(&rel, &later);
  EXPECT_EQ(rel.sec, 2);
  EXPECT_EQ(rel.usec, 250000);
}

TEST(CspTime, AbsoluteTimeoutKeepsAFutureTimeAndClampsNegatives) {
  _cspOsalTime_struct now{}, abs{};
  ASSERT_EQ(cspOsalGetTime(&now), 0);
  _cspOsalTime_struct in = now;
  in.sec += 7;
  EXPECT_EQ(_cspOsalPlatform_Common_AbsoluteTimeout(&abs, &in), 0);
  EXPECT_EQ(cspOsalCompareTime(&abs, &in), 0);
  _cspOsalTime_struct negative = T(-5, 0);
  _cspOsalPlatform_Common_AbsoluteTimeout(&abs, &negative);
  EXPECT_EQ(abs.sec, 0);
  EXPECT_EQ(abs.usec, 0);
}

TEST(CspTime, ClocksReturnNormalisedValues) {
  _cspOsalTime_struct wall{}, up{};
  ASSERT_EQ(cspOsalGetTime(&wall), 0);
  ASSERT_EQ(cspOsalGetUptime(&up), 0);
  EXPECT_GT(wall.sec, 1600000000);  // after 2020
  EXPECT_GE(wall.usec, 0);
  EXPECT_LT(wall.usec, 1000000);
  EXPECT_GE(up.usec, 0);
  EXPECT_LT(up.usec, 1000000);
}

TEST(CspTime, TestHookAdvancesUptimeAndNotifiesListeners) {
  std::atomic<int> calls{0};
  auto listener = [](void *context) { static_cast<std::atomic<int> *>(context)->fetch_add(1); };
  ASSERT_EQ(cspOsalUptimeListenerAdd(listener, &calls), 0);

  _cspOsalTime_struct before{}, after{}, diff{};
  cspOsalGetUptime(&before);
  _cspOsalTime_struct delta = T(600, 0);
  ASSERT_EQ(cspOsalTestAdvanceUptime(&delta), 0);
  cspOsalGetUptime(&after);
  cspOsalSubtractTime3(&diff, &after, &before);
  EXPECT_GE(diff.sec, 600);
  EXPECT_LT(diff.sec, 660);
  EXPECT_EQ(calls.load(), 1);

  EXPECT_EQ(cspOsalUptimeListenerRemove(listener, &calls), 0);
  cspOsalTestAdvanceUptime(&delta);
  EXPECT_EQ(calls.load(), 1) << "a removed listener is not called";
  EXPECT_EQ(cspOsalUptimeListenerRemove(listener, &calls), -2);
}

TEST(CspTime, TestHookRefusesToGoBackwards) {
  _cspOsalTime_struct back = T(-1, 0);
  EXPECT_EQ(cspOsalTestAdvanceUptime(&back), -22);
  EXPECT_EQ(cspOsalTestAdvanceUptime(nullptr), -22);
}

TEST(CspTime, TestHookRefusesMoreThanAHundredYearsAndKeepsTheClock) {
  _cspOsalTime_struct before{}, after{}, diff{};
  cspOsalGetUptime(&before);
  _cspOsalTime_struct huge = T(INT64_MAX / 2, 0);
  EXPECT_EQ(cspOsalTestAdvanceUptime(&huge), -22);
  _cspOsalTime_struct century = T(3155760001LL, 0);
  EXPECT_EQ(cspOsalTestAdvanceUptime(&century), -22);
  cspOsalGetUptime(&after);
  cspOsalSubtractTime3(&diff, &after, &before);
  EXPECT_LT(diff.sec, 60) << "a refused move leaves the clock alone";
}

TEST(CspTime, TestHookMovesByMicroseconds) {
  _cspOsalTime_struct before{}, after{}, diff{};
  cspOsalGetUptime(&before);
  _cspOsalTime_struct delta = T(0, 2500000);  // normalised to 2.5 s
  ASSERT_EQ(cspOsalTestAdvanceUptime(&delta), 0);
  cspOsalGetUptime(&after);
  cspOsalSubtractTime3(&diff, &after, &before);
  EXPECT_GE(diff.sec * 1000000 + diff.usec, 2500000);
  EXPECT_LT(diff.sec, 60);
  EXPECT_GE(after.usec, 0);
  EXPECT_LT(after.usec, 1000000);
}

TEST(CspTime, ListenerTableRefusesNullAndOverflow) {
  auto listener = [](void *) {};
  EXPECT_EQ(cspOsalUptimeListenerAdd(nullptr, nullptr), -22);
  int slots[40];
  int added = 0;
  for (int &slot : slots) {
    int rc = cspOsalUptimeListenerAdd(listener, &slot);
    if (rc != 0) {
      EXPECT_EQ(rc, -12);
      break;
    }
    added++;
  }
  EXPECT_EQ(added, 32);
  for (int i = 0; i < added; i++) EXPECT_EQ(cspOsalUptimeListenerRemove(listener, &slots[i]), 0);
}

TEST(CspTime, SleepWaitsAtLeastTheGivenTime) {
  _cspOsalTime_struct a{}, b{}, d{};
  cspOsalGetUptime(&a);
  cspOsalSleep(5);
  cspOsalGetUptime(&b);
  cspOsalSubtractTime3(&d, &b, &a);
  EXPECT_TRUE(d.sec > 0 || d.usec >= 5000);
}

}  // namespace
