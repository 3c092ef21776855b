// Timer queue: ordering, ids and indexes, firing rules, callbacks that
// change the queue, argument checks, log lines and out-of-memory handling.

#include "loreg/tmrq.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "loreg/common/loreg_debug.h"
#include "support/log_capture.h"
#include "support/test_allocator.h"
#include "support/tmrq_fixture.h"

namespace {

using testsupport::LogCapture;
using testsupport::T;
using testsupport::TestAllocator;

bool SameTime(const _cspOsalTime_struct &a, const _cspOsalTime_struct &b) {
  return a.sec == b.sec && a.usec == b.usec;
}

std::string Str(const _cspOsalTime_struct &t) {
  return std::to_string(t.sec) + "s+" + std::to_string(t.usec) + "us";
}

#define EXPECT_TIME(expected, actual) \
  EXPECT_TRUE(SameTime((expected), (actual))) << "expected " << Str(expected) << ", got " << Str(actual)

std::string Ptr(const void *p) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%p", p);
  return buf;
}

// One firing as a callback saw it.
struct Fired {
  tmrq_info info;
  _cspOsalTime_struct now;
};

// Records the firings of every timer whose user pointer names it, and runs
// an optional action per timer id from inside the callback.
struct Recorder {
  std::vector<Fired> fired;
  std::map<int32_t, std::function<void(tmrq_inst *, const tmrq_info &, const _cspOsalTime_struct &)>>
      actions;

  std::vector<int32_t> ids() const {
    std::vector<int32_t> out;
    for (const auto &f : fired) out.push_back(f.info.id);
    return out;
  }
};

int RecordCallback(tmrq_inst *queue, const tmrq_info *info, const _cspOsalTime_struct *now) {
  auto *rec = static_cast<Recorder *>(info->user.ptr);
  rec->fired.push_back(Fired{*info, *now});
  auto it = rec->actions.find(info->id);
  if (it != rec->actions.end()) it->second(queue, *info, *now);
  return -1;  // ignored by the queue
}

tmrq_info Info(_cspOsalTime_struct timeout, _cspOsalTime_struct period = T(0), int32_t inactive = 0,
               Recorder *rec = nullptr) {
  tmrq_info info;
  std::memset(&info, 0, sizeof info);
  info.timeout = timeout;
  info.period = period;
  info.inactive = inactive;
  if (rec != nullptr) {
    info.callback = &RecordCallback;
    info.user.ptr = rec;
  }
  return info;
}

class TmrqTest : public testsupport::TmrqFixture {
 protected:
  void SetUp() override {
    TmrqFixture::SetUp();
    if (HasFatalFailure()) return;
    context_bytes = alloc.live_bytes();
    log.clear();
  }

  using TmrqFixture::Create;
  // Creates a timer and returns its id; expects the given index.
  int32_t Create(tmrq_info info, int expected_index) {
    int rc = tmrq_TimerCreate(queue, &info);
    EXPECT_EQ(rc, expected_index);
    return info.id;
  }

  int IndexOf(int32_t id) { return tmrq_TimerGet(queue, id, nullptr); }

  tmrq_info Get(int32_t id) {
    tmrq_info info;
    std::memset(&info, 0xA5, sizeof info);
    EXPECT_GE(tmrq_TimerGet(queue, id, &info), 0) << "timer " << id;
    return info;
  }

  // The ids in queue order, found by asking for the index of every id up
  // to the last one handed out.
  std::vector<int32_t> Order(int32_t max_id) {
    std::map<int, int32_t> by_index;
    for (int32_t id = 1; id <= max_id; id++) {
      int index = IndexOf(id);
      if (index >= 0) {
        EXPECT_EQ(by_index.count(index), 0u) << "two timers at index " << index;
        by_index[index] = id;
      }
    }
    std::vector<int32_t> out;
    int expected = 0;
    for (const auto &entry : by_index) {
      EXPECT_EQ(entry.first, expected++) << "indexes are not dense";
      out.push_back(entry.second);
    }
    return out;
  }

  LogCapture log;
  size_t context_bytes = 0;
};

// ---------------------------------------------------------------------------
// Instances

TEST(TmrqInstance, NullParamsUsesPlainMalloc) {
  tmrq_inst *queue = tmrq_InstCreate(nullptr);
  ASSERT_NE(queue, nullptr);
  tmrq_info info = Info(T(1));
  EXPECT_EQ(tmrq_TimerCreate(queue, &info), 0);
  EXPECT_EQ(info.id, 1);
  EXPECT_EQ(tmrq_InstDestroy(queue), 0);
}

TEST(TmrqInstance, NullAllocatorFieldUsesPlainMalloc) {
  tmrq_params params;
  params.allocator = nullptr;
  tmrq_inst *queue = tmrq_InstCreate(&params);
  ASSERT_NE(queue, nullptr);
  EXPECT_EQ(tmrq_InstDestroy(queue), 0);
  params.allocator = LOREG_ALLOCATOR_DEFAULT;
  queue = tmrq_InstCreate(&params);
  ASSERT_NE(queue, nullptr);
  EXPECT_EQ(tmrq_InstDestroy(queue), 0);
}

TEST(TmrqInstance, MemoryComesFromTheAllocator) {
  TestAllocator alloc;
  tmrq_params params;
  params.allocator = alloc.handle();
  tmrq_inst *queue = tmrq_InstCreate(&params);
  ASSERT_NE(queue, nullptr);
  EXPECT_EQ(alloc.live_blocks(), 1u);
  tmrq_info info = Info(T(1));
  ASSERT_EQ(tmrq_TimerCreate(queue, &info), 0);
  ASSERT_EQ(tmrq_TimerCreate(queue, &info), 1);
  EXPECT_EQ(alloc.live_blocks(), 3u);
  EXPECT_EQ(tmrq_TimerDestroy(queue, 1), 0);
  EXPECT_EQ(alloc.live_blocks(), 2u);
  EXPECT_EQ(tmrq_InstDestroy(queue), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
  EXPECT_EQ(alloc.allocations(), alloc.frees());
}

TEST(TmrqInstance, CreateFailsForEveryAllocation) {
  TestAllocator alloc;
  tmrq_params params;
  params.allocator = alloc.handle();
  // The size of the context, to build the exact message.
  tmrq_inst *probe = tmrq_InstCreate(&params);
  ASSERT_NE(probe, nullptr);
  size_t context_bytes = alloc.live_bytes();
  ASSERT_EQ(tmrq_InstDestroy(probe), 0);

  int failures = 0;
  for (uint64_t n = 1;; n++) {
    LogCapture log;
    alloc.fail_at(n);
    tmrq_inst *queue = tmrq_InstCreate(&params);
    if (!alloc.failed()) {
      ASSERT_NE(queue, nullptr);
      EXPECT_EQ(log.texts().size(), 0u) << log.dump();
      EXPECT_EQ(tmrq_InstDestroy(queue), 0);
      break;
    }
    failures++;
    EXPECT_EQ(queue, nullptr);
    EXPECT_EQ(log.texts(), std::vector<std::string>{"tmrq_InstCreate(): failed to allocate " +
                                                    std::to_string(context_bytes) +
                                                    " bytes context\n"});
    EXPECT_EQ(alloc.live_blocks(), 0u);
  }
  EXPECT_EQ(failures, 1);
  alloc.disarm();
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(TmrqInstance, DestroyReportsDeletedTimersWithoutFiringThem) {
  TestAllocator alloc;
  tmrq_params params;
  params.allocator = alloc.handle();
  tmrq_inst *queue = tmrq_InstCreate(&params);
  ASSERT_NE(queue, nullptr);
  Recorder rec;
  tmrq_info a = Info(T(1), T(0), 0, &rec);
  tmrq_info b = Info(T(2), T(1), 0, &rec);
  tmrq_info c = Info(T(3), T(0), 1, &rec);
  ASSERT_EQ(tmrq_TimerCreate(queue, &a), 0);
  ASSERT_EQ(tmrq_TimerCreate(queue, &b), 1);
  ASSERT_EQ(tmrq_TimerCreate(queue, &c), 2);
  LogCapture log;
  EXPECT_EQ(tmrq_InstDestroy(queue), 0);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"tmrq_InstDestroy(): 3 timers deleted.\n"});
  EXPECT_EQ(log.lines().at(0).module, LOREG_MOD_TMRQ);
  EXPECT_EQ(log.lines().at(0).channel, 0x6Bu);
  EXPECT_TRUE(rec.fired.empty());
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(TmrqInstance, DestroyOfEmptyQueueIsSilent) {
  tmrq_inst *queue = tmrq_InstCreate(nullptr);
  ASSERT_NE(queue, nullptr);
  LogCapture log;
  EXPECT_EQ(tmrq_InstDestroy(queue), 0);
  EXPECT_TRUE(log.texts().empty()) << log.dump();
}

// ---------------------------------------------------------------------------
// Argument checks

TEST(TmrqChecks, NullInstanceIsRefusedByEveryOperation) {
  LogCapture log;
  tmrq_info info = Info(T(1));
  _cspOsalTime_struct now = T(5);
  EXPECT_EQ(tmrq_InstDestroy(nullptr), -22);
  EXPECT_EQ(tmrq_TimerCreate(nullptr, &info), -22);
  EXPECT_EQ(tmrq_TimerDestroy(nullptr, 1), -22);
  EXPECT_EQ(tmrq_TimerGet(nullptr, 0, &info), -22);
  EXPECT_EQ(tmrq_TimerUpdate(nullptr, &info), -22);
  EXPECT_EQ(tmrq_Process(nullptr, &now), -22);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "tmrq_InstDestroy(NULL): need context pointer\n",
                             "tmrq_TimerCreate(NULL): need context pointer\n",
                             "tmrq_TimerDestroy(NULL): need context pointer\n",
                             "tmrq_TimerGet(NULL): need context pointer\n",
                             "tmrq_TimerUpdate(NULL): need context pointer\n",
                             "tmrq_Process(NULL): need context pointer\n",
                         }));
  for (const auto &line : log.lines()) EXPECT_EQ(line.module, LOREG_MOD_TMRQ);
}

TEST(TmrqChecks, WrongMagicIsRefusedByEveryOperation) {
  // Memory that is not a live queue: its first word is not the magic.
  alignas(16) static unsigned char fake[512];
  std::memset(fake, 0, sizeof fake);
  auto *bad = reinterpret_cast<tmrq_inst *>(fake);
  LogCapture log;
  tmrq_info info = Info(T(1));
  info.id = 1;
  _cspOsalTime_struct now = T(5);
  EXPECT_EQ(tmrq_InstDestroy(bad), -22);
  EXPECT_EQ(tmrq_TimerCreate(bad, &info), -22);
  EXPECT_EQ(tmrq_TimerDestroy(bad, 1), -22);
  EXPECT_EQ(tmrq_TimerGet(bad, 0, &info), -22);
  EXPECT_EQ(tmrq_TimerUpdate(bad, &info), -22);
  EXPECT_EQ(tmrq_Process(bad, &now), -22);
  std::string p = Ptr(bad);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "tmrq_InstDestroy(" + p + "): invalid context\n",
                             "tmrq_TimerCreate(" + p + "): invalid context\n",
                             "tmrq_TimerDestroy(" + p + "): invalid context\n",
                             "tmrq_TimerGet(" + p + "): invalid context\n",
                             "tmrq_TimerUpdate(" + p + "): invalid context\n",
                             "tmrq_Process(" + p + "): invalid context\n",
                         }));
}

TEST(TmrqChecks, NullInfoIsRefusedBeforeTheInstanceCheck) {
  LogCapture log;
  EXPECT_EQ(tmrq_TimerCreate(nullptr, nullptr), -22);
  EXPECT_EQ(tmrq_TimerUpdate(nullptr, nullptr), -22);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "tmrq_TimerCreate(): 'info' parameter must not be NULL.\n",
                             "tmrq_TimerUpdate(): 'info' parameter must not be NULL.\n",
                         }));
}

TEST(TmrqChecks, NullNowIsRefusedBeforeTheInstanceCheck) {
  LogCapture log;
  EXPECT_EQ(tmrq_Process(nullptr, nullptr), -22);
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{"tmrq_Process(): 'now' parameter must not be NULL.\n"});
}

TEST_F(TmrqTest, NullInfoOnLiveQueueChangesNothing) {
  Create(Info(T(1)), 0);
  log.clear();
  EXPECT_EQ(tmrq_TimerCreate(queue, nullptr), -22);
  EXPECT_EQ(tmrq_TimerUpdate(queue, nullptr), -22);
  _cspOsalTime_struct *no_now = nullptr;
  EXPECT_EQ(tmrq_Process(queue, no_now), -22);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "tmrq_TimerCreate(): 'info' parameter must not be NULL.\n",
                             "tmrq_TimerUpdate(): 'info' parameter must not be NULL.\n",
                             "tmrq_Process(): 'now' parameter must not be NULL.\n",
                         }));
  EXPECT_EQ(Order(3), std::vector<int32_t>{1});
  // The queue is still usable: the failed create took no id.
  EXPECT_EQ(Create(Info(T(2)), 1), 2);
}

// ---------------------------------------------------------------------------
// Ids, indexes and order

TEST_F(TmrqTest, IdsAreAssignedInOrderAndWrittenBack) {
  tmrq_info info = Info(T(1));
  info.id = 77;  // ignored on create
  EXPECT_EQ(tmrq_TimerCreate(queue, &info), 0);
  EXPECT_EQ(info.id, 1);
  EXPECT_EQ(tmrq_TimerCreate(queue, &info), 1);
  EXPECT_EQ(info.id, 2);
  EXPECT_EQ(tmrq_TimerDestroy(queue, 2), 1);
  // Ids are never reused.
  EXPECT_EQ(tmrq_TimerCreate(queue, &info), 1);
  EXPECT_EQ(info.id, 3);
  EXPECT_EQ(IndexOf(2), -2);
}

TEST_F(TmrqTest, InsertionKeepsActiveFirstThenInactiveEachByTimeout) {
  EXPECT_EQ(Create(Info(T(5)), 0), 1);        // A
  EXPECT_EQ(Create(Info(T(3)), 0), 2);        // B, in front of A
  EXPECT_EQ(Create(Info(T(7)), 2), 3);        // C, behind A
  EXPECT_EQ(Create(Info(T(3)), 1), 4);        // D, behind B (equal timeout)
  EXPECT_EQ(Create(Info(T(1), T(0), 1), 4), 5);  // E inactive: behind all active ones
  EXPECT_EQ(Create(Info(T(9), T(0), 1), 5), 6);  // F inactive
  EXPECT_EQ(Create(Info(T(1), T(0), 1), 5), 7);  // G inactive, behind E
  EXPECT_EQ(Create(Info(T(100)), 4), 8);      // H active: in front of the inactive ones
  EXPECT_EQ(Create(Info(T(5, 1)), 3), 9);     // I: microseconds count
  EXPECT_EQ(Create(Info(T(-1, 999999)), 0), 10);  // J: before every positive time
  EXPECT_EQ(Order(10), (std::vector<int32_t>{10, 2, 4, 1, 9, 3, 8, 5, 7, 6}));
}

TEST_F(TmrqTest, CreateAndUpdateLogTheirInsertion) {
  Recorder rec;
  EXPECT_EQ(Create(Info(T(5, 250), T(1, 5)), 0), 1);
  EXPECT_EQ(Create(Info(T(-3, 7), T(0), 1), 1), 2);
  tmrq_info upd = Info(T(2), T(0, 999999), 0, &rec);
  upd.id = 2;
  EXPECT_EQ(tmrq_TimerUpdate(queue, &upd), 0);
  upd.inactive = 1;
  EXPECT_EQ(tmrq_TimerUpdate(queue, &upd), 1);
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{
                "_tmrq_node_create_nolock(), id=1, active, timeout=[5s+000250us] "
                "period=[1s+000005us] @idx=0\n",
                "_tmrq_node_create_nolock(), id=2, inactive, timeout=[-3s+000007us] "
                "period=[0s+000000us] @idx=1\n",
                "_tmrq_node_update_nolock(), id=2, active, timeout=[2s+000000us] "
                "period=[0s+999999us] now @idx=0\n",
                "_tmrq_node_update_nolock(), id=2, inactive, timeout=[2s+000000us] "
                "period=[0s+999999us] now @idx=1\n",
            }));
  for (const auto &line : log.lines()) {
    EXPECT_EQ(line.module, LOREG_MOD_TMRQ);
    EXPECT_EQ(line.level, LOREG_LVL_TRACE);
  }
}

TEST_F(TmrqTest, UpdateReplacesEveryFieldAndResorts) {
  Recorder rec;
  int32_t a = Create(Info(T(1)), 0);
  int32_t b = Create(Info(T(2)), 1);
  int32_t c = Create(Info(T(3)), 2);
  tmrq_info upd = Info(T(10, 5), T(2, 3), 0, &rec);
  upd.id = a;
  upd.user.word[0] = 0xDEADBEEFu;
  upd.user.word[1] = 0x01234567u;
  EXPECT_EQ(tmrq_TimerUpdate(queue, &upd), 2);
  EXPECT_EQ(Order(3), (std::vector<int32_t>{b, c, a}));
  tmrq_info got = Get(a);
  EXPECT_EQ(got.id, a);
  EXPECT_TIME(T(10, 5), got.timeout);
  EXPECT_TIME(T(2, 3), got.period);
  EXPECT_EQ(got.inactive, 0);
  EXPECT_EQ(got.callback, &RecordCallback);
  EXPECT_EQ(got.user.word[0], 0xDEADBEEFu);
  EXPECT_EQ(got.user.word[1], 0x01234567u);

  // Parking moves it behind every active timer, even later ones.
  upd.timeout = T(0);
  upd.inactive = 1;
  upd.id = b;
  EXPECT_EQ(tmrq_TimerUpdate(queue, &upd), 2);
  EXPECT_EQ(Order(3), (std::vector<int32_t>{c, a, b}));
  // Equal timeout on update: behind the existing one.
  upd.id = c;
  upd.inactive = 0;
  upd.timeout = T(10, 5);
  EXPECT_EQ(tmrq_TimerUpdate(queue, &upd), 1);
  EXPECT_EQ(Order(3), (std::vector<int32_t>{a, c, b}));
}

TEST_F(TmrqTest, UpdateOfUnknownIdIsRefused) {
  Create(Info(T(1)), 0);
  log.clear();
  tmrq_info upd = Info(T(1));
  upd.id = 99;
  EXPECT_EQ(tmrq_TimerUpdate(queue, &upd), -2);
  upd.id = 0;
  EXPECT_EQ(tmrq_TimerUpdate(queue, &upd), -2);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "tmrq_TimerUpdate() sorry, timer id=99 not found.\n",
                             "tmrq_TimerUpdate() sorry, timer id=0 not found.\n",
                         }));
  EXPECT_EQ(log.lines().at(0).level, LOREG_LVL_FAIL);
}

TEST_F(TmrqTest, DestroyReturnsFormerIndex) {
  int32_t a = Create(Info(T(1)), 0);
  int32_t b = Create(Info(T(2)), 1);
  int32_t c = Create(Info(T(3)), 2);
  size_t blocks = alloc.live_blocks();
  EXPECT_EQ(tmrq_TimerDestroy(queue, b), 1);
  EXPECT_EQ(alloc.live_blocks(), blocks - 1);
  EXPECT_EQ(IndexOf(c), 1);
  EXPECT_EQ(tmrq_TimerDestroy(queue, c), 1);
  EXPECT_EQ(tmrq_TimerDestroy(queue, a), 0);
  EXPECT_EQ(alloc.live_blocks(), 1u);  // the context only
  log.clear();
  EXPECT_EQ(tmrq_TimerDestroy(queue, a), -2);
  EXPECT_EQ(tmrq_TimerDestroy(queue, -4), -2);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "tmrq_TimerDestroy() sorry, timer id=1 not found.\n",
                             "tmrq_TimerDestroy() sorry, timer id=-4 not found.\n",
                         }));
}

TEST_F(TmrqTest, GetByIdCopiesTheWholeInfo) {
  Recorder rec;
  tmrq_info in = Info(T(4, 44), T(1, 11), 1, &rec);
  in.user.word[0] = 1u;
  in.user.word[1] = 0xFFFFFFFFu;
  int32_t parked = Create(in, 0);
  int32_t active = Create(Info(T(9)), 0);
  tmrq_info got;
  std::memset(&got, 0, sizeof got);
  EXPECT_EQ(tmrq_TimerGet(queue, parked, &got), 1);
  EXPECT_EQ(got.id, parked);
  EXPECT_TIME(T(4, 44), got.timeout);
  EXPECT_TIME(T(1, 11), got.period);
  EXPECT_EQ(got.inactive, 1);
  EXPECT_EQ(got.callback, &RecordCallback);
  EXPECT_EQ(got.user.word[0], 1u);
  EXPECT_EQ(got.user.word[1], 0xFFFFFFFFu);
  EXPECT_EQ(tmrq_TimerGet(queue, active, nullptr), 0);
  EXPECT_EQ(log.texts().size(), 2u);  // the two create lines only
}

TEST_F(TmrqTest, GetIdZeroReportsTheActiveHead) {
  Create(Info(T(8)), 0);
  int32_t head = Create(Info(T(6)), 0);
  tmrq_info got;
  std::memset(&got, 0, sizeof got);
  EXPECT_EQ(tmrq_TimerGet(queue, 0, &got), 0);
  EXPECT_EQ(got.id, head);
  EXPECT_TIME(T(6), got.timeout);
  std::memset(&got, 0, sizeof got);
  EXPECT_EQ(tmrq_TimerGet(queue, -1, &got), 0);
  EXPECT_EQ(got.id, head);
  EXPECT_EQ(tmrq_TimerGet(queue, 0, nullptr), 0);
}

TEST_F(TmrqTest, GetIdZeroOnEmptyQueueIsSilentNotFound) {
  tmrq_info got;
  std::memset(&got, 0x5A, sizeof got);
  tmrq_info untouched = got;
  EXPECT_EQ(tmrq_TimerGet(queue, 0, &got), -2);
  EXPECT_EQ(std::memcmp(&got, &untouched, sizeof got), 0);
  EXPECT_EQ(tmrq_TimerGet(queue, 3, &got), -2);
  EXPECT_TRUE(log.texts().empty()) << log.dump();
}

TEST_F(TmrqTest, InactiveHeadMeansNothingIsActive) {
  int32_t a = Create(Info(T(1), T(0), 1), 0);
  Create(Info(T(2), T(0), 1), 1);
  log.clear();
  EXPECT_EQ(tmrq_TimerGet(queue, 0, nullptr), -2);
  // The parked timers are there by id.
  EXPECT_EQ(tmrq_TimerGet(queue, a, nullptr), 0);
  EXPECT_TRUE(log.texts().empty()) << log.dump();
  // Nothing fires, however late.
  _cspOsalTime_struct now = T(1000);
  EXPECT_EQ(tmrq_Process(queue, &now), 0);
  // An active timer, however late, goes in front of them.
  int32_t c = Create(Info(T(500)), 0);
  tmrq_info got;
  EXPECT_EQ(tmrq_TimerGet(queue, 0, &got), 0);
  EXPECT_EQ(got.id, c);
}

TEST_F(TmrqTest, TimerCreateFailsForEveryAllocationAndLeavesQueueUnchanged) {
  Recorder rec;
  EXPECT_EQ(Create(Info(T(5), T(0), 0, &rec), 0), 1);
  EXPECT_EQ(Create(Info(T(7), T(0), 1, &rec), 1), 2);
  size_t before_bytes = alloc.live_bytes();
  size_t before_blocks = alloc.live_blocks();
  // The size of one node, to build the exact message.
  size_t node_bytes = before_bytes - context_bytes;
  ASSERT_EQ(node_bytes % 2, 0u);
  node_bytes /= 2;

  int failures = 0;
  for (uint64_t n = 1;; n++) {
    log.clear();
    alloc.fail_at(n);
    tmrq_info info = Info(T(1), T(0), 0, &rec);
    info.id = 555;
    int rc = tmrq_TimerCreate(queue, &info);
    if (!alloc.failed()) {
      alloc.disarm();
      // The id counter did not move for the failed attempts.
      EXPECT_EQ(rc, 0);
      EXPECT_EQ(info.id, 3);
      break;
    }
    failures++;
    EXPECT_EQ(rc, -12);
    EXPECT_EQ(info.id, 555);
    EXPECT_EQ(log.texts(), std::vector<std::string>{"_tmrq_node_create_nolock() failed to alloc " +
                                                    std::to_string(node_bytes) +
                                                    " bytes timer  node\n"});
    EXPECT_EQ(log.lines().at(0).level, LOREG_LVL_FAIL);
    EXPECT_EQ(alloc.live_blocks(), before_blocks);
    EXPECT_EQ(alloc.live_bytes(), before_bytes);
    EXPECT_EQ(Order(10), (std::vector<int32_t>{1, 2}));
  }
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(Order(10), (std::vector<int32_t>{3, 1, 2}));
  _cspOsalTime_struct now = T(100);
  EXPECT_EQ(tmrq_Process(queue, &now), 2);
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{3, 1}));
}

// ---------------------------------------------------------------------------
// Firing

TEST_F(TmrqTest, NothingDueFiresNothing) {
  Recorder rec;
  Create(Info(T(10), T(0), 0, &rec), 0);
  log.clear();
  _cspOsalTime_struct now = T(9, 999999);
  EXPECT_EQ(tmrq_Process(queue, &now), 0);
  EXPECT_EQ(tmrq_Process(queue, &now), 0);  // the pass left no guard behind
  EXPECT_TRUE(rec.fired.empty());
  EXPECT_TRUE(log.texts().empty()) << log.dump();
}

TEST_F(TmrqTest, EmptyQueueProcessesToZero) {
  _cspOsalTime_struct now = T(3);
  EXPECT_EQ(tmrq_Process(queue, &now), 0);
}

TEST_F(TmrqTest, OneShotFiresOnceAndStaysParked) {
  Recorder rec;
  int32_t id = Create(Info(T(10), T(0), 0, &rec), 0);
  log.clear();
  _cspOsalTime_struct now = T(10);  // due exactly at its time
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  ASSERT_EQ(rec.fired.size(), 1u);
  EXPECT_EQ(rec.fired[0].info.id, id);
  EXPECT_EQ(rec.fired[0].info.inactive, 1);  // the callback sees it parked
  EXPECT_TIME(T(10), rec.fired[0].info.timeout);
  EXPECT_TIME(T(10), rec.fired[0].now);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"_tmrq_node_update_nolock(), id=1, inactive, "
                                                  "timeout=[10s+000000us] period=[0s+000000us] "
                                                  "now @idx=0\n"});

  // Still in the queue, under its id, inactive.
  tmrq_info got = Get(id);
  EXPECT_EQ(got.inactive, 1);
  EXPECT_TIME(T(10), got.timeout);
  EXPECT_EQ(tmrq_TimerGet(queue, 0, nullptr), -2);

  now = T(20);
  EXPECT_EQ(tmrq_Process(queue, &now), 0);
  EXPECT_EQ(rec.fired.size(), 1u);

  // Update arms it again.
  tmrq_info again = got;
  again.inactive = 0;
  again.timeout = T(25);
  EXPECT_EQ(tmrq_TimerUpdate(queue, &again), 0);
  now = T(30);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_EQ(rec.fired.size(), 2u);
  EXPECT_EQ(tmrq_TimerDestroy(queue, id), 0);
}

TEST_F(TmrqTest, TimerWithoutCallbackFiresAndCounts) {
  int32_t once = Create(Info(T(1)), 0);
  int32_t every = Create(Info(T(2), T(3)), 1);
  _cspOsalTime_struct now = T(2);
  EXPECT_EQ(tmrq_Process(queue, &now), 2);
  EXPECT_EQ(Get(once).inactive, 1);
  EXPECT_TIME(T(5), Get(every).timeout);
  EXPECT_EQ(Order(2), (std::vector<int32_t>{every, once}));
}

TEST_F(TmrqTest, LatePeriodicTimerSkipsMissedTicksAndFiresOnce) {
  Recorder rec;
  int32_t id = Create(Info(T(10), T(1), 0, &rec), 0);
  _cspOsalTime_struct now = T(13, 500000);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  ASSERT_EQ(rec.fired.size(), 1u);
  // The callback sees the next timeout already.
  EXPECT_TIME(T(14), rec.fired[0].info.timeout);
  EXPECT_EQ(rec.fired[0].info.inactive, 0);
  tmrq_info got = Get(id);
  EXPECT_TIME(T(14), got.timeout);
  EXPECT_EQ(got.inactive, 0);
  EXPECT_EQ(tmrq_TimerGet(queue, 0, nullptr), 0);

  now = T(13, 999999);
  EXPECT_EQ(tmrq_Process(queue, &now), 0);
  now = T(14);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_TIME(T(15), Get(id).timeout);
  EXPECT_EQ(rec.fired.size(), 2u);
}

TEST_F(TmrqTest, PeriodicTimerExactlyOnTickMovesOnePeriod) {
  Recorder rec;
  int32_t id = Create(Info(T(10), T(0, 1), 0, &rec), 0);  // 1 us is periodic
  _cspOsalTime_struct now = T(10);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_TIME(T(10, 1), Get(id).timeout);
  EXPECT_EQ(Get(id).inactive, 0);
}

TEST_F(TmrqTest, PeriodsOfZeroOrLessAreOneShot) {
  Recorder rec;
  int32_t zero = Create(Info(T(1), T(0, 0), 0, &rec));
  int32_t minus_us = Create(Info(T(1), T(0, -1), 0, &rec));
  int32_t minus_sec = Create(Info(T(1), T(-1, 500000), 0, &rec));
  int32_t minus_both = Create(Info(T(1), T(-5, 0), 0, &rec));
  int32_t periodic = Create(Info(T(1), T(0, 250000), 0, &rec));
  _cspOsalTime_struct now = T(2);
  EXPECT_EQ(tmrq_Process(queue, &now), 5);
  for (int32_t id : {zero, minus_us, minus_sec, minus_both}) {
    tmrq_info got = Get(id);
    EXPECT_EQ(got.inactive, 1) << "timer " << id;
    EXPECT_TIME(T(1), got.timeout);
  }
  EXPECT_EQ(Get(periodic).inactive, 0);
  EXPECT_TIME(T(2, 250000), Get(periodic).timeout);
  now = T(100);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);  // only the periodic one again
  EXPECT_EQ(rec.fired.size(), 6u);
}

TEST_F(TmrqTest, LongOverduePeriodicTimerLandsOnFirstTickAfterNow) {
  // A reference: add the period tick by tick.
  auto reference = [](_cspOsalTime_struct t, _cspOsalTime_struct p, _cspOsalTime_struct now) {
    while (cspOsalCompareTime(&t, &now) <= 0) cspOsalAddTime(&t, &t, &p);
    return t;
  };
  struct Case {
    _cspOsalTime_struct timeout, period, now;
  };
  std::vector<Case> cases = {
      {T(10), T(0, 300000), T(20, 100000)},
      {T(10), T(0, 300000), T(19, 900000)},  // now exactly on a tick
      {T(0, 1), T(0, 7), T(3, 3)},
      {T(-50, 999999), T(2, 500001), T(1000, 0)},
      {T(5), T(86400), T(5)},
      {T(5), T(1), T(5, 999999)},
  };
  // Pseudo-random cases, the same on every run.
  uint64_t x = 0x9E3779B97F4A7C15ull;
  auto next = [&x]() {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    return x;
  };
  for (int i = 0; i < 200; i++) {
    _cspOsalTime_struct timeout = T(static_cast<int64_t>(next() % 1000), static_cast<int32_t>(next() % 1000000));
    _cspOsalTime_struct period = T(static_cast<int64_t>(next() % 3), static_cast<int32_t>(next() % 1000000));
    if (period.sec == 0 && period.usec < 1000) period.usec += 1000;
    _cspOsalTime_struct gap = T(static_cast<int64_t>(next() % 200), static_cast<int32_t>(next() % 1000000));
    _cspOsalTime_struct now;
    cspOsalAddTime(&now, &timeout, &gap);
    cases.push_back({timeout, period, now});
  }
  Recorder rec;
  for (const auto &c : cases) {
    int32_t id = Create(Info(c.timeout, c.period, 0, &rec));
    _cspOsalTime_struct now = c.now;
    rec.fired.clear();
    EXPECT_EQ(tmrq_Process(queue, &now), 1);
    ASSERT_EQ(rec.fired.size(), 1u);
    _cspOsalTime_struct want = reference(c.timeout, c.period, c.now);
    EXPECT_TIME(want, Get(id).timeout) << " timeout " << Str(c.timeout) << " period "
                                       << Str(c.period) << " now " << Str(c.now);
    EXPECT_TIME(want, rec.fired[0].info.timeout);
    EXPECT_EQ(tmrq_TimerDestroy(queue, id), 0);
  }
}

TEST_F(TmrqTest, HugelyOverdueShortPeriodIsCheap) {
  // A millisecond timer last due at 0 and processed a million seconds later
  // (a thousand million ticks) lands on the first tick after now.
  Recorder rec;
  int32_t id = Create(Info(T(0), T(0, 1000), 0, &rec), 0);
  _cspOsalTime_struct now = T(1000000, 123);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_TIME(T(1000000, 1000), Get(id).timeout);
  now = T(1000000, 1000);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_TIME(T(1000000, 2000), Get(id).timeout);
}

TEST_F(TmrqTest, DueTimersFireInQueueOrderAndLaterOnesWait) {
  Recorder rec;
  int32_t late = Create(Info(T(9), T(0), 0, &rec));
  int32_t b = Create(Info(T(3), T(0), 0, &rec));
  int32_t a = Create(Info(T(2), T(0), 0, &rec));
  int32_t parked = Create(Info(T(1), T(0), 1, &rec));
  int32_t c = Create(Info(T(5), T(0), 0, &rec));
  _cspOsalTime_struct now = T(5);
  EXPECT_EQ(tmrq_Process(queue, &now), 3);
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{a, b, c}));
  for (const auto &f : rec.fired) EXPECT_TIME(T(5), f.now);
  EXPECT_EQ(Get(late).inactive, 0);
  EXPECT_EQ(Get(parked).inactive, 1);
  tmrq_info head;
  EXPECT_EQ(tmrq_TimerGet(queue, 0, &head), 0);
  EXPECT_EQ(head.id, late);
}

TEST_F(TmrqTest, EqualTimeoutsFireInCreationOrder) {
  Recorder rec;
  std::vector<int32_t> ids;
  for (int i = 0; i < 5; i++) ids.push_back(Create(Info(T(7, 7), T(0), 0, &rec), i));
  // Re-sort one to the same timeout: it goes behind the others.
  tmrq_info upd = Get(ids[0]);
  EXPECT_EQ(tmrq_TimerUpdate(queue, &upd), 4);
  _cspOsalTime_struct now = T(8);
  EXPECT_EQ(tmrq_Process(queue, &now), 5);
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{ids[1], ids[2], ids[3], ids[4], ids[0]}));
}

TEST_F(TmrqTest, PeriodicTimersInterleaveByNextTimeout) {
  Recorder rec;
  int32_t fast = Create(Info(T(1), T(1), 0, &rec));
  int32_t slow = Create(Info(T(1), T(3), 0, &rec));
  for (int64_t s = 1; s <= 6; s++) {
    _cspOsalTime_struct now = T(s);
    int fired = tmrq_Process(queue, &now);
    EXPECT_EQ(fired, (s == 1 || s == 4) ? 2 : 1) << "at " << s;
  }
  // At 4 both are due again; slow was sorted in at 4 before fast was, so
  // it goes first.
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{fast, slow, fast, fast, slow, fast, fast, fast}));
}

// ---------------------------------------------------------------------------
// Callbacks that change the queue

TEST_F(TmrqTest, CallbackDestroyingAnotherDueTimerStopsIt) {
  Recorder rec;
  int32_t a = Create(Info(T(1), T(0), 0, &rec));
  int32_t b = Create(Info(T(2), T(0), 0, &rec));
  int32_t c = Create(Info(T(3), T(0), 0, &rec));
  int destroyed = 99;
  rec.actions[a] = [&](tmrq_inst *q, const tmrq_info &, const _cspOsalTime_struct &) {
    destroyed = tmrq_TimerDestroy(q, b);
  };
  _cspOsalTime_struct now = T(3);
  EXPECT_EQ(tmrq_Process(queue, &now), 2);
  // b was at index 0 once a (fired, parked) moved behind it.
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{a, c}));
  EXPECT_EQ(IndexOf(b), -2);
}

TEST_F(TmrqTest, CallbackDestroyingItsOwnTimerIsFine) {
  Recorder rec;
  int32_t a = Create(Info(T(1), T(1), 0, &rec));
  int32_t b = Create(Info(T(1), T(0), 0, &rec));
  int result = 99;
  rec.actions[a] = [&](tmrq_inst *q, const tmrq_info &info, const _cspOsalTime_struct &) {
    result = tmrq_TimerDestroy(q, info.id);
  };
  _cspOsalTime_struct now = T(1);
  EXPECT_EQ(tmrq_Process(queue, &now), 2);
  EXPECT_GE(result, 0);
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{a, b}));
  EXPECT_EQ(IndexOf(a), -2);
}

TEST_F(TmrqTest, CallbackPostponingOrParkingADueTimerStopsIt) {
  Recorder rec;
  int32_t a = Create(Info(T(1), T(0), 0, &rec));
  int32_t postponed = Create(Info(T(2), T(0), 0, &rec));
  int32_t parked = Create(Info(T(2), T(0), 0, &rec));
  int32_t d = Create(Info(T(3), T(0), 0, &rec));
  rec.actions[a] = [&](tmrq_inst *q, const tmrq_info &, const _cspOsalTime_struct &now) {
    tmrq_info p = Get(postponed);
    cspOsalAddTime(&p.timeout, &now, &p.timeout);  // later than now
    EXPECT_GE(tmrq_TimerUpdate(q, &p), 0);
    tmrq_info k = Get(parked);
    k.inactive = 1;
    EXPECT_GE(tmrq_TimerUpdate(q, &k), 0);
  };
  _cspOsalTime_struct now = T(3);
  EXPECT_EQ(tmrq_Process(queue, &now), 2);
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{a, d}));
  EXPECT_TIME(T(5), Get(postponed).timeout);
  EXPECT_EQ(Get(postponed).inactive, 0);
  EXPECT_EQ(Get(parked).inactive, 1);
}

TEST_F(TmrqTest, CallbackCallingProcessGetsBusyAndPassGoesOn) {
  Recorder rec;
  int32_t a = Create(Info(T(1), T(0), 0, &rec));
  int32_t b = Create(Info(T(2), T(5), 0, &rec));
  int32_t c = Create(Info(T(3), T(0), 0, &rec));
  std::vector<int> inner;
  rec.actions[a] = [&](tmrq_inst *q, const tmrq_info &, const _cspOsalTime_struct &) {
    _cspOsalTime_struct later = T(100);
    inner.push_back(tmrq_Process(q, &later));
  };
  rec.actions[b] = rec.actions[a];
  log.clear();
  _cspOsalTime_struct now = T(3);
  EXPECT_EQ(tmrq_Process(queue, &now), 3);
  EXPECT_EQ(inner, (std::vector<int>{-11, -11}));
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{a, b, c}));
  EXPECT_EQ(log.count("tmrq_Process(): timer queue is being processed already.\n"), 2u);
  EXPECT_TRUE(log.has_line("tmrq_Process(): timer queue is being processed already.\n"));
  // The guard is gone after the pass.
  now = T(7);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_EQ(rec.ids().back(), b);
}

TEST_F(TmrqTest, TimerRearmedByCallbackToNowDoesNotFireAgainInThisPass) {
  Recorder rec;
  int32_t a = Create(Info(T(1), T(0), 0, &rec));
  int32_t b = Create(Info(T(2), T(0), 0, &rec));
  int rearms = 0;
  // a re-arms itself to now; b re-arms a (already fired) to before now.
  rec.actions[a] = [&](tmrq_inst *q, const tmrq_info &info, const _cspOsalTime_struct &now) {
    tmrq_info again = info;
    again.inactive = 0;
    again.timeout = now;
    EXPECT_GE(tmrq_TimerUpdate(q, &again), 0);
    rearms++;
  };
  rec.actions[b] = [&](tmrq_inst *q, const tmrq_info &, const _cspOsalTime_struct &) {
    tmrq_info again = Get(a);
    again.inactive = 0;
    again.timeout = T(0);
    EXPECT_EQ(tmrq_TimerUpdate(q, &again), 0);
  };
  _cspOsalTime_struct now = T(5);
  EXPECT_EQ(tmrq_Process(queue, &now), 2);
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{a, b}));
  EXPECT_EQ(rearms, 1);
  // It is due, and fires in the next pass.
  EXPECT_EQ(Get(a).inactive, 0);
  rec.actions.clear();
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{a, b, a}));
}

TEST_F(TmrqTest, TimerCreatedByCallbackWaitsForTheNextPass) {
  Recorder rec;
  int32_t a = Create(Info(T(1), T(0), 0, &rec));
  int32_t made = 0;
  int made_index = 99;
  rec.actions[a] = [&](tmrq_inst *q, const tmrq_info &, const _cspOsalTime_struct &) {
    tmrq_info child = Info(T(0), T(0), 0, &rec);  // long overdue
    made_index = tmrq_TimerCreate(q, &child);
    made = child.id;
  };
  _cspOsalTime_struct now = T(1);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_EQ(made_index, 0);
  EXPECT_EQ(made, 2);
  EXPECT_EQ(rec.ids(), std::vector<int32_t>{a});
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_EQ(rec.ids(), (std::vector<int32_t>{a, made}));
}

TEST_F(TmrqTest, CallbackSeesTheQueueAlreadyUpdated) {
  Recorder rec;
  int32_t p = Create(Info(T(10), T(2), 0, &rec));
  int32_t o = Create(Info(T(11), T(0), 0, &rec));
  std::vector<tmrq_info> seen;
  auto look = [&](tmrq_inst *q, const tmrq_info &info, const _cspOsalTime_struct &) {
    tmrq_info in_queue;
    EXPECT_GE(tmrq_TimerGet(q, info.id, &in_queue), 0);
    seen.push_back(in_queue);
  };
  rec.actions[p] = look;
  rec.actions[o] = look;
  _cspOsalTime_struct now = T(11);
  EXPECT_EQ(tmrq_Process(queue, &now), 2);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].id, p);
  EXPECT_TIME(T(12), seen[0].timeout);
  EXPECT_EQ(seen[1].id, o);
  EXPECT_EQ(seen[1].inactive, 1);
  // The user words came through the callback unchanged.
  EXPECT_EQ(rec.fired[0].info.user.ptr, &rec);
}

TEST_F(TmrqTest, CallbackDestroyingEverythingEndsThePass) {
  Recorder rec;
  int32_t a = Create(Info(T(1), T(0), 0, &rec));
  Create(Info(T(1), T(0), 0, &rec));
  Create(Info(T(1), T(0), 0, &rec));
  rec.actions[a] = [&](tmrq_inst *q, const tmrq_info &, const _cspOsalTime_struct &) {
    for (int32_t id = 1; id <= 3; id++) EXPECT_GE(tmrq_TimerDestroy(q, id), 0);
  };
  _cspOsalTime_struct now = T(1);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_EQ(rec.ids(), std::vector<int32_t>{a});
  EXPECT_EQ(tmrq_TimerGet(queue, 0, nullptr), -2);
  EXPECT_EQ(tmrq_Process(queue, &now), 0);
}

// ---------------------------------------------------------------------------
// Failure to take the lock back after a callback

TEST_F(TmrqTest, FailedRelockAfterCallbackAbandonsThePassForGood) {
  // A long-lived record begins with its 32-bit magic. Spoiling it from the
  // callback makes the re-lock after the callback fail its check, which is
  // the only way to reach this path from outside.
  Recorder rec;
  int32_t a = Create(Info(T(1), T(0), 0, &rec));
  int32_t b = Create(Info(T(2), T(0), 0, &rec));
  uint32_t saved = 0;
  rec.actions[a] = [&](tmrq_inst *q, const tmrq_info &, const _cspOsalTime_struct &) {
    std::memcpy(&saved, q, sizeof saved);
    uint32_t spoiled = 0;
    std::memcpy(q, &spoiled, sizeof spoiled);
  };
  log.clear();
  _cspOsalTime_struct now = T(5);
  EXPECT_EQ(tmrq_Process(queue, &now), -22);
  EXPECT_EQ(rec.ids(), std::vector<int32_t>{a});
  std::string p = Ptr(queue);
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{
                "_tmrq_node_update_nolock(), id=1, inactive, timeout=[1s+000000us] "
                "period=[0s+000000us] now @idx=1\n",
                "tmrq_Process(" + p + "): invalid context\n",
                "tmrq_Process() FATAL: failed to re-lock instance after callback - aborting!\n",
                "tmrq_Process(): FATAL failure after callback - aborting!\n",
            }));
  auto lines = log.lines();
  EXPECT_EQ(lines.at(2).level, LOREG_LVL_SEVERE);
  EXPECT_EQ(lines.at(3).level, LOREG_LVL_SEVERE);

  // With the magic back, the queue works, but refuses every pass.
  EXPECT_EQ(saved, 0x51524D54u);
  std::memcpy(queue, &saved, sizeof saved);
  log.clear();
  EXPECT_EQ(tmrq_Process(queue, &now), -11);
  EXPECT_EQ(log.texts(), std::vector<std::string>{
                             "tmrq_Process(): timer queue is being processed already.\n"});
  EXPECT_EQ(rec.ids(), std::vector<int32_t>{a});
  EXPECT_EQ(IndexOf(b), 0);
  EXPECT_EQ(Create(Info(T(3)), 1), 3);
}

}  // namespace
