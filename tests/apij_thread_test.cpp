// The API job handler across threads: waiters released by completion and
// destruction, callbacks running in other threads while callbacks are
// unregistered, and instance destruction under waiters.
//
// Several tests need to know that a thread has really gone to sleep inside
// apij_JobResultGet, linked to its job, before another thread acts: only
// then is the path "woken by a signal" exercised rather than "found the job
// already done". The handler offers no observable state for a linked
// waiter, so the tests watch the thread itself with
// testsupport::wait_until_sleeping (support/thread_state.h): the waiter
// publishes its kernel thread id right before the call. On that path the
// waiter does nothing that sleeps except the condition wait. The tests then
// check the result of the signal path itself (no "no need to wait" line),
// so a wrong guess would make them fail, not pass.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "loreg/apij.h"
#include "support/apij_fixture.h"
#include "support/thread_state.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;
using WaitResult = std::pair<int, int32_t>;  // return value, out result

constexpr auto kBound = 5s;  // upper bound of every synchronisation wait

// A thread that waits for one job with apij_JobResultGet.
struct Waiter {
  std::atomic<pid_t> tid{0};
  std::future<WaitResult> result;

  void Start(apij_inst *inst, int32_t jobId, int32_t timeOut) {
    result = std::async(std::launch::async, [this, inst, jobId, timeOut] {
      tid.store(testsupport::current_tid());
      int32_t out = 1;
      int rc = apij_JobResultGet(inst, jobId, &out, timeOut);
      return WaitResult(rc, out);
    });
  }
  bool Sleeping() const { return testsupport::wait_until_sleeping(tid, kBound); }
  bool Finished(std::chrono::milliseconds within) const {
    return result.wait_for(within) == std::future_status::ready;
  }
};

// A gate a callback can be held at, with a count of arrivals.
struct Gate {
  std::mutex mutex;
  std::condition_variable cv;
  bool open = false;
  int arrived = 0;

  // Called by the held thread: announces itself and waits for the opening.
  bool Pass() {
    std::unique_lock<std::mutex> lock(mutex);
    arrived++;
    cv.notify_all();
    return cv.wait_for(lock, kBound, [this] { return open; });
  }
  bool WaitArrived(int n) {
    std::unique_lock<std::mutex> lock(mutex);
    return cv.wait_for(lock, kBound, [this, n] { return arrived >= n; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    cv.notify_all();
  }
};

// Callback cookie: counts calls and holds the callback at a gate.
struct HeldCallback {
  std::atomic<int> calls{0};
  std::atomic<bool> passed{true};
  Gate gate;
};

int HeldRoutine(apij_inst *, apij_job_ref *, void *cookie) {
  auto *held = static_cast<HeldCallback *>(cookie);
  held->calls++;
  if (!held->gate.Pass()) held->passed = false;
  return 0;
}

std::future<int> DoneInThread(apij_inst *inst, int32_t jobId, int32_t result) {
  return std::async(std::launch::async, [=] { return apij_JobDone(inst, jobId, result); });
}

class ApijThreadTest : public testsupport::ApijFixture {
 protected:
  void SetUp() override { Make(); }
};

TEST_F(ApijThreadTest, WaiterIsReleasedByJobDoneInAnotherThread) {
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  Waiter waiter;
  waiter.Start(inst, 1, 10);
  ASSERT_TRUE(waiter.Sleeping());
  EXPECT_FALSE(waiter.Finished(0ms));
  log.clear();
  EXPECT_EQ(apij_JobDone(inst, 1, 42), 0);
  ASSERT_TRUE(waiter.Finished(kBound));
  EXPECT_EQ(waiter.result.get(), WaitResult(0, 42));
  // The waiter logged nothing: it was woken, it did not find the job done.
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDone_nolock(1), result=42\n"}));
  // It also unlinked cleanly: a destroy finds no waiter to wake.
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
}

TEST_F(ApijThreadTest, SeveralWaitersOnOneJobAllGetTheResult) {
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  Waiter waiters[3];
  for (auto &w : waiters) w.Start(inst, 1, 10);
  for (auto &w : waiters) ASSERT_TRUE(w.Sleeping());
  auto done = DoneInThread(inst, 1, -7);
  ASSERT_EQ(done.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(done.get(), 0);
  for (auto &w : waiters) {
    ASSERT_TRUE(w.Finished(kBound));
    EXPECT_EQ(w.result.get(), WaitResult(0, -7));
  }
  EXPECT_EQ(log.count("no need to wait"), 0u);
}

TEST_F(ApijThreadTest, ManyJobsWaitersCompletersAndCallbacks) {
  constexpr int kJobs = 64;
  constexpr int kWaiters = 4;
  constexpr int kCompleters = 3;
  std::atomic<int> callbacks{0};
  auto destroying = [](apij_inst *i, apij_job_ref *ref, void *cookie) -> int {
    static_cast<std::atomic<int> *>(cookie)->fetch_add(1);
    return apij_JobDestroy(i, ref->id);
  };
  int cb = apij_CbRegister(inst, destroying, &callbacks);
  ASSERT_EQ(cb, 1);
  std::vector<int32_t> waited;     // jobs with waiters and no callback
  std::vector<int32_t> callbacked; // jobs with the callback and no waiter
  for (int i = 0; i < kJobs; i++) {
    int id = apij_JobCreate(inst, nullptr, -1, i % 2 ? cb : 0, nullptr);
    ASSERT_GT(id, 0);
    (i % 2 ? callbacked : waited).push_back(id);
  }
  // Every waited job has two waiters in two different threads.
  std::atomic<int> bad_waits{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kWaiters; t++) {
    threads.emplace_back([&, t] {
      for (size_t k = static_cast<size_t>(t % 2); k < waited.size(); k += 2) {
        int32_t out = 0;
        int rc = apij_JobResultGet(inst, waited[k], &out, 10);
        if (rc != 0 || out != waited[k] * 3) bad_waits++;
      }
    });
  }
  std::vector<int32_t> all(waited);
  all.insert(all.end(), callbacked.begin(), callbacked.end());
  std::shuffle(all.begin(), all.end(), std::mt19937(7));
  std::atomic<int> bad_done{0};
  for (int c = 0; c < kCompleters; c++) {
    threads.emplace_back([&, c] {
      for (size_t k = static_cast<size_t>(c); k < all.size(); k += kCompleters) {
        if (apij_JobDone(inst, all[k], all[k] * 3) != 0) bad_done++;
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(bad_waits.load(), 0);
  EXPECT_EQ(bad_done.load(), 0);
  EXPECT_EQ(callbacks.load(), kJobs / 2);
  for (int32_t id : callbacked) EXPECT_EQ(apij_JobRefGet(inst, id, nullptr), -2) << id;
  for (int32_t id : waited) {
    int32_t out = 0;
    EXPECT_EQ(apij_JobResultGet(inst, id, &out, 0), 0);
    EXPECT_EQ(out, id * 3);
  }
  // Instance, callback node and the waited jobs remain.
  EXPECT_EQ(alloc.live_blocks(), 2u + kJobs / 2);
}

TEST_F(ApijThreadTest, DestroyWhileWaitingGivesZeroAndMinus103) {
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  Waiter waiter;
  waiter.Start(inst, 1, 10);
  ASSERT_TRUE(waiter.Sleeping());
  log.clear();
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
  ASSERT_TRUE(waiter.Finished(kBound));
  EXPECT_EQ(waiter.result.get(), WaitResult(0, -103));
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_node_nolock(1), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(1)\n"}));
}

TEST_F(ApijThreadTest, WaiterOnADeletedHeldJobStaysUntilTheNodeIsFreed) {
  apij_job_ref ref;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &ref), 1);
  ASSERT_EQ(apij_JobDestroy(inst, 1), 0);  // deleted, held by ref
  Waiter waiter;
  waiter.Start(inst, 1, 10);
  ASSERT_TRUE(waiter.Sleeping());
  EXPECT_FALSE(waiter.Finished(0ms));
  log.clear();
  EXPECT_EQ(apij_JobRefRelease(inst, &ref), 0);
  ASSERT_TRUE(waiter.Finished(kBound));
  EXPECT_EQ(waiter.result.get(), WaitResult(0, -103));
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobRefRelease_nolock(1), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(1)\n"}));
}

TEST_F(ApijThreadTest, CallbackDestroysItsJobWhileTheWaiterAlreadyRuns) {
  Waiter waiter;
  std::atomic<bool> waiter_was_done{false};
  struct Ctx {
    Waiter *waiter;
    std::atomic<bool> *waiter_was_done;
  } ctx{&waiter, &waiter_was_done};
  auto routine = [](apij_inst *i, apij_job_ref *ref, void *cookie) -> int {
    auto *c = static_cast<Ctx *>(cookie);
    // Waiters are signalled before the callback: the waiter can finish
    // while the callback still runs.
    c->waiter_was_done->store(c->waiter->Finished(kBound));
    return apij_JobDestroy(i, ref->id);
  };
  ASSERT_EQ(apij_CbRegister(inst, routine, &ctx), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 2);
  waiter.Start(inst, 2, 10);
  ASSERT_TRUE(waiter.Sleeping());
  log.clear();
  auto done = DoneInThread(inst, 2, 9);
  ASSERT_EQ(done.wait_for(kBound * 2), std::future_status::ready);
  EXPECT_EQ(done.get(), 0);
  EXPECT_TRUE(waiter_was_done.load());
  EXPECT_EQ(waiter.result.get(), WaitResult(0, 9));
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDone_nolock(2), result=9\n",
                                "_apij_JobDestroy_node_nolock(2), refcount=1\n",
                                "_apij_JobRefRelease_nolock(2), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(2)\n"}));
  EXPECT_EQ(alloc.live_blocks(), 2u);  // instance and callback node
}

TEST_F(ApijThreadTest, UnregisterWhileAnotherThreadsCallbackRuns) {
  HeldCallback held;
  ASSERT_EQ(apij_CbRegister(inst, HeldRoutine, &held), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 2);
  auto running = DoneInThread(inst, 2, 0);
  ASSERT_TRUE(held.gate.WaitArrived(1));

  log.clear();
  int delay = apij_CbUnregister(inst, 1, 0);
  EXPECT_EQ(delay, 3);
  EXPECT_EQ(log.texts(), (Lines{"apij_CbUnregister() delay unregistering of callback id 1 (jobid=3).\n"}));
  EXPECT_EQ(apij_CbUnregister(inst, 1, 0), -2);

  // A job completed meanwhile with that callback id does not call it.
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 4);
  log.clear();
  EXPECT_EQ(apij_JobDone(inst, 4, 5), 0);
  EXPECT_EQ(held.calls.load(), 1);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDone_nolock(4), result=5\n"}));

  int32_t out = 0;
  EXPECT_EQ(apij_JobResultGet(inst, delay, &out, 0), 110);
  EXPECT_EQ(out, -14);

  Waiter waiter;
  waiter.Start(inst, delay, 10);
  ASSERT_TRUE(waiter.Sleeping());
  EXPECT_FALSE(waiter.Finished(0ms));
  EXPECT_FALSE(log.contains("late unregistering"));

  log.clear();
  held.gate.Open();
  ASSERT_EQ(running.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(running.get(), 0);
  EXPECT_TRUE(held.passed.load());
  ASSERT_TRUE(waiter.Finished(kBound));
  EXPECT_EQ(waiter.result.get(), WaitResult(0, 0));
  EXPECT_EQ(log.texts(),
            (Lines{"_apij_JobRefRelease_nolock(2), refcount=0\n",
                   "_apij_callback_cleanup_nolock(): late unregistering callback_id 1 (jobid=3).\n",
                   "_apij_JobDone_nolock(3), result=0\n",
                   "_apij_JobDestroy_node_nolock(3), refcount=0\n",
                   "_apij_jobnode_destroy_nolock(3)\n"}));
  EXPECT_EQ(apij_CbUnregister(inst, 1, 0), -2);
  EXPECT_EQ(apij_JobRefGet(inst, delay, nullptr), -2);
  EXPECT_EQ(alloc.live_blocks(), 3u);  // instance, jobs 2 and 4
}

TEST_F(ApijThreadTest, UnregisterWithRemoveJobsWakesWaitersOfItsJobs) {
  HeldCallback held;
  ASSERT_EQ(apij_CbRegister(inst, HeldRoutine, &held), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 3);
  Waiter waiter;
  waiter.Start(inst, 3, 10);
  ASSERT_TRUE(waiter.Sleeping());
  auto running = DoneInThread(inst, 2, 0);
  ASSERT_TRUE(held.gate.WaitArrived(1));

  log.clear();
  EXPECT_EQ(apij_CbUnregister(inst, 1, 1), 4);
  ASSERT_TRUE(waiter.Finished(kBound));
  EXPECT_EQ(waiter.result.get(), WaitResult(0, -103));
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_node_nolock(3), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(3)\n",
                                "apij_CbUnregister() delay unregistering of callback id 1 (jobid=4).\n"}));
  held.gate.Open();
  ASSERT_EQ(running.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(running.get(), 0);
  EXPECT_TRUE(log.has_line("_apij_callback_cleanup_nolock(): late unregistering callback_id 1 (jobid=4).\n"));
  EXPECT_EQ(alloc.live_blocks(), 2u);  // instance and the done job 2
}

TEST_F(ApijThreadTest, CleanupWaitsForTheLastOfTwoConcurrentCallbacks) {
  HeldCallback first;
  HeldCallback second;
  ASSERT_EQ(apij_CbRegister(inst, HeldRoutine, &first), 1);
  ASSERT_EQ(apij_CbRegister(inst, HeldRoutine, &second), 2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 3);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 2, nullptr), 4);
  auto run_first = DoneInThread(inst, 3, 0);
  auto run_second = DoneInThread(inst, 4, 0);
  ASSERT_TRUE(first.gate.WaitArrived(1));
  ASSERT_TRUE(second.gate.WaitArrived(1));

  EXPECT_EQ(apij_CbUnregister(inst, 1, 0), 5);
  first.gate.Open();
  ASSERT_EQ(run_first.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(run_first.get(), 0);
  // The second callback still runs: the depth is not 0, nothing is removed.
  EXPECT_FALSE(log.contains("late unregistering"));
  EXPECT_EQ(apij_CbUnregister(inst, 1, 0), -2);
  int32_t out = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 5, &out, 0), 110);

  second.gate.Open();
  ASSERT_EQ(run_second.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(run_second.get(), 0);
  EXPECT_TRUE(log.has_line("_apij_callback_cleanup_nolock(): late unregistering callback_id 1 (jobid=5).\n"));
  EXPECT_EQ(apij_JobRefGet(inst, 5, nullptr), -2);
  // The second callback was never unregistered and stays.
  EXPECT_EQ(apij_CbUnregister(inst, 2, 0), 0);
}

TEST_F(ApijThreadTest, InstDestroyWakesAllWaitersWithMinus103) {
  apij_job_ref ref;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &ref), 3);
  Waiter waiters[3];
  for (int i = 0; i < 3; i++) waiters[i].Start(inst, i + 1, 30);
  for (auto &w : waiters) ASSERT_TRUE(w.Sleeping());
  log.clear();
  EXPECT_EQ(apij_InstDestroy(inst), 0);
  inst = nullptr;
  for (auto &w : waiters) {
    ASSERT_TRUE(w.Finished(kBound));
    EXPECT_EQ(w.result.get(), WaitResult(0, -103));
  }
  EXPECT_EQ(log.texts(), (Lines{"_apij_jobnode_destroy_nolock(3)\n", "_apij_jobnode_destroy_nolock(2)\n",
                                "_apij_jobnode_destroy_nolock(1)\n",
                                "apij_InstDestroy(): 3 jobs with 1 outstanding references deleted.\n",
                                "apij_InstDestroy(): 0 callback subscriptions deleted.\n"}));
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

}  // namespace
