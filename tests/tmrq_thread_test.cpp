// Timer queue under several threads: passes that overlap, callbacks that
// change the queue, and other threads that change it while a pass runs.

#include "loreg/tmrq.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/tmrq_fixture.h"

namespace {

using testsupport::LogCapture;
using testsupport::T;

constexpr auto kWaitLimit = std::chrono::seconds(10);

tmrq_info Info(_cspOsalTime_struct timeout, _cspOsalTime_struct period, tmrq_callback cb,
               void *user) {
  tmrq_info info;
  std::memset(&info, 0, sizeof info);
  info.timeout = timeout;
  info.period = period;
  info.callback = cb;
  info.user.ptr = user;
  return info;
}

// A one-way signal with a bounded wait.
class Signal {
 public:
  void set() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_set = true;
    m_cond.notify_all();
  }
  bool wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, kWaitLimit, [this] { return m_set; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  bool m_set = false;
};

// Fire counts per timer id, and a check that no two callbacks ever run at
// the same time (passes never overlap, and callbacks run inside passes).
struct FireLog {
  static constexpr int kMaxId = 32768;
  std::atomic<int> counts[kMaxId] = {};
  std::atomic<int> in_callback{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> early{0};  // fired before its timeout

  void fired(const tmrq_info *info, const _cspOsalTime_struct *now) {
    if (in_callback.fetch_add(1) != 0) overlaps++;
    if (info->id > 0 && info->id < kMaxId) counts[info->id]++;
    // A one-shot timer keeps the timeout it fell due at.
    if (info->inactive && cspOsalCompareTime(&info->timeout, now) > 0) early++;
    std::this_thread::yield();
    in_callback.fetch_sub(1);
  }
};

int CountingCallback(tmrq_inst *, const tmrq_info *info, const _cspOsalTime_struct *now) {
  static_cast<FireLog *>(info->user.ptr)->fired(info, now);
  return 0;
}

class TmrqThreadTest : public testsupport::TmrqFixture {};

// ---------------------------------------------------------------------------
// While one thread's pass waits inside a callback, another thread is
// refused a pass of its own, and changes the queue under the running pass.

struct Handshake {
  Signal in_callback;
  Signal go_on;
  bool released = false;
  std::vector<int32_t> fired;  // only the pass's thread writes it
};

int BlockingCallback(tmrq_inst *, const tmrq_info *info, const _cspOsalTime_struct *) {
  auto *h = static_cast<Handshake *>(info->user.ptr);
  h->fired.push_back(info->id);
  if (h->fired.size() == 1) {
    h->in_callback.set();
    h->released = h->go_on.wait();
  }
  return 0;
}

TEST_F(TmrqThreadTest, OtherThreadIsRefusedAndChangesQueueDuringPass) {
  LogCapture log;
  Handshake h;
  // All due at 10, fired in this order unless changed meanwhile.
  int32_t first = Create(Info(T(1), T(0), &BlockingCallback, &h));
  int32_t destroyed = Create(Info(T(2), T(0), &BlockingCallback, &h));
  int32_t postponed = Create(Info(T(3), T(0), &BlockingCallback, &h));
  int32_t parked = Create(Info(T(4), T(0), &BlockingCallback, &h));
  int32_t untouched = Create(Info(T(5), T(0), &BlockingCallback, &h));

  _cspOsalTime_struct now = T(10);
  int pass_result = 0;
  std::thread pass([&] { pass_result = tmrq_Process(queue, &now); });

  ASSERT_TRUE(h.in_callback.wait()) << "the pass never reached its first callback";
  log.clear();
  _cspOsalTime_struct other_now = T(10);
  EXPECT_EQ(tmrq_Process(queue, &other_now), -11);
  EXPECT_EQ(log.texts(), std::vector<std::string>{
                             "tmrq_Process(): timer queue is being processed already.\n"});

  EXPECT_GE(tmrq_TimerDestroy(queue, destroyed), 0);
  tmrq_info info;
  ASSERT_GE(tmrq_TimerGet(queue, postponed, &info), 0);
  info.timeout = T(11);
  EXPECT_GE(tmrq_TimerUpdate(queue, &info), 0);
  ASSERT_GE(tmrq_TimerGet(queue, parked, &info), 0);
  info.inactive = 1;
  EXPECT_GE(tmrq_TimerUpdate(queue, &info), 0);
  int32_t created = Create(Info(T(0), T(0), &BlockingCallback, &h));  // overdue, but new

  h.go_on.set();
  pass.join();
  EXPECT_TRUE(h.released);
  EXPECT_EQ(pass_result, 2);
  EXPECT_EQ(h.fired, (std::vector<int32_t>{first, untouched}));

  // The next pass fires the new timer only; the postponed one at 11.
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_EQ(h.fired.back(), created);
  now = T(11);
  EXPECT_EQ(tmrq_Process(queue, &now), 1);
  EXPECT_EQ(h.fired.back(), postponed);
  EXPECT_EQ(tmrq_TimerGet(queue, 0, nullptr), -2);
}

// ---------------------------------------------------------------------------
// Two threads process the same queue: passes never overlap, and every due
// timer fires exactly once overall.

TEST_F(TmrqThreadTest, TwoProcessingThreadsFireEachTimerOnce) {
  constexpr int kTimers = 400;
  FireLog fires;
  std::vector<int32_t> ids;
  for (int i = 0; i < kTimers; i++) {
    // Spread over 0..99.75 s, several timers on each time.
    ids.push_back(Create(Info(T(i % 100, (i % 4) * 250000), T(0), &CountingCallback, &fires)));
  }

  std::atomic<int> ready{0};
  std::atomic<int> fired_total{0};
  std::atomic<int> busy{0};
  std::atomic<int> odd_results{0};
  auto run = [&](int32_t step_usec) {
    ready++;
    auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (ready.load() < 2 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    _cspOsalTime_struct step = T(0, step_usec);
    for (_cspOsalTime_struct now = T(0); now.sec <= 100; cspOsalAddTime(&now, &now, &step)) {
      int rc = tmrq_Process(queue, &now);
      if (rc >= 0) {
        fired_total += rc;
      } else if (rc == -11) {
        busy++;
      } else {
        odd_results++;
      }
    }
  };
  std::thread a(run, 250000);
  std::thread b(run, 100000);
  a.join();
  b.join();
  // Whatever a refused thread skipped, a last pass at the end picks up.
  _cspOsalTime_struct end = T(1000);
  int last = tmrq_Process(queue, &end);
  ASSERT_GE(last, 0);
  fired_total += last;

  EXPECT_EQ(odd_results.load(), 0);
  EXPECT_EQ(fires.overlaps.load(), 0);
  EXPECT_EQ(fires.early.load(), 0);
  EXPECT_EQ(fired_total.load(), kTimers);
  for (int32_t id : ids) EXPECT_EQ(fires.counts[id].load(), 1) << "timer " << id;
  EXPECT_EQ(tmrq_TimerGet(queue, 0, nullptr), -2);
  // Informational: how often the guard turned a thread away.
  RecordProperty("busy_refusals", busy.load());
}

// ---------------------------------------------------------------------------
// Callbacks create, re-arm and destroy timers in every pass while another
// thread keeps creating and destroying timers of its own.

struct Scheme {
  FireLog *fires = nullptr;
  int32_t victim = 0;              // pushed one second ahead on every tick
  std::vector<int32_t> doomed;     // doomed[k] is due at k, destroyed at k
  std::vector<int32_t> children;   // children[k] created at tick k, due at k
  std::vector<int64_t> child_fired_at;
  std::atomic<int> ticks{0};
};

int ChildCallback(tmrq_inst *, const tmrq_info *info, const _cspOsalTime_struct *now) {
  auto *s = static_cast<Scheme *>(info->user.ptr);
  s->fires->fired(info, now);
  for (size_t k = 0; k < s->children.size(); k++) {
    if (s->children[k] == info->id) s->child_fired_at[k] = now->sec;
  }
  return 0;
}

int TickCallback(tmrq_inst *queue, const tmrq_info *info, const _cspOsalTime_struct *now) {
  auto *s = static_cast<Scheme *>(info->user.ptr);
  s->fires->fired(info, now);
  int64_t k = now->sec;
  s->ticks++;
  // A child due right now: not fired in this pass, since it was not due
  // when the pass began.
  tmrq_info child = Info(*now, T(0), &ChildCallback, s);
  EXPECT_GE(tmrq_TimerCreate(queue, &child), 0);
  s->children[k] = child.id;
  // The timer doomed for this tick is due and marked; it must not fire.
  EXPECT_GE(tmrq_TimerDestroy(queue, s->doomed[k]), 0);
  // The victim is due too; moved past now, it must not fire either.
  tmrq_info victim;
  EXPECT_GE(tmrq_TimerGet(queue, s->victim, &victim), 0);
  victim.timeout = T(k + 1);
  EXPECT_GE(tmrq_TimerUpdate(queue, &victim), 0);
  return 0;
}

TEST_F(TmrqThreadTest, CallbacksChangeQueueWhileAnotherThreadChurns) {
  constexpr int kTicks = 50;
  FireLog fires;
  Scheme s;
  s.fires = &fires;
  s.doomed.assign(kTicks + 2, 0);
  s.children.assign(kTicks + 2, 0);
  s.child_fired_at.assign(kTicks + 2, -1);
  // Ticks at k - 1 us, so that the tick fires before the timers due at k.
  int32_t tick = Create(Info(T(0, 999999), T(1), &TickCallback, &s));
  s.victim = Create(Info(T(1), T(0), &CountingCallback, &fires));
  for (int k = 1; k <= kTicks + 1; k++) s.doomed[k] = Create(Info(T(k), T(0), &CountingCallback, &fires));

  std::atomic<bool> done{false};
  std::atomic<bool> churn_finished{false};
  std::atomic<int> churn_created{0};
  std::atomic<int> churn_failures{0};
  std::vector<int32_t> churn_ids;
  std::thread churn([&] {
    for (int i = 0; i < 20000 && !done.load(); i++) {
      // Far in the future: these must never fire.
      tmrq_info info = Info(T(1000000 + i % 7), T(0), &CountingCallback, &fires);
      if (tmrq_TimerCreate(queue, &info) < 0) churn_failures++;
      churn_ids.push_back(info.id);
      churn_created++;
      if (tmrq_TimerGet(queue, 0, nullptr) != 0) churn_failures++;  // the tick is always active
      if (i % 8 != 0 && tmrq_TimerDestroy(queue, info.id) < 0) churn_failures++;
      std::this_thread::yield();
    }
    churn_finished = true;
  });
  // Let the churn begin before the ticks do.
  auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
  while (churn_created.load() == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  ASSERT_GT(churn_created.load(), 0);

  for (int k = 1; k <= kTicks; k++) {
    // Each tick waits for some churn in between, as long as there is any.
    int seen = churn_created.load();
    deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (churn_created.load() == seen && !churn_finished.load() &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    _cspOsalTime_struct now = T(k);
    int expected = k == 1 ? 1 : 2;  // the tick, and the child of the last tick
    EXPECT_EQ(tmrq_Process(queue, &now), expected) << "at " << k;
  }
  done = true;
  churn.join();

  EXPECT_EQ(churn_failures.load(), 0);
  EXPECT_GT(churn_created.load(), 0);
  EXPECT_EQ(s.ticks.load(), kTicks);
  EXPECT_EQ(fires.counts[tick].load(), kTicks);
  EXPECT_EQ(fires.counts[s.victim].load(), 0);
  for (int k = 1; k <= kTicks; k++) {
    EXPECT_EQ(fires.counts[s.doomed[k]].load(), 0) << "doomed " << k;
    EXPECT_EQ(tmrq_TimerGet(queue, s.doomed[k], nullptr), -2);
  }
  for (int k = 1; k < kTicks; k++) {
    EXPECT_EQ(fires.counts[s.children[k]].load(), 1) << "child " << k;
    EXPECT_EQ(s.child_fired_at[k], k + 1) << "child " << k;
  }
  EXPECT_EQ(fires.counts[s.children[kTicks]].load(), 0);
  for (int32_t id : churn_ids) {
    ASSERT_LT(id, FireLog::kMaxId);
    EXPECT_EQ(fires.counts[id].load(), 0) << "churn timer " << id;
  }
  EXPECT_EQ(fires.overlaps.load(), 0);
  RecordProperty("churn_created", churn_created.load());
}

// ---------------------------------------------------------------------------
// Many threads create, re-arm and destroy timers while one thread keeps
// processing; afterwards every timer that was left armed has fired.

TEST_F(TmrqThreadTest, ManyThreadsChangeTimersWhileOneProcesses) {
  constexpr int kWorkers = 4;
  constexpr int kRounds = 300;
  FireLog fires;
  std::atomic<int> workers_left{kWorkers};
  std::atomic<int> failures{0};
  std::vector<std::vector<int32_t>> keepers(kWorkers);
  std::vector<std::vector<int32_t>> churned(kWorkers);

  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; w++) {
    workers.emplace_back([&, w] {
      uint32_t x = 2463534242u + static_cast<uint32_t>(w) * 7919u;
      auto next = [&x]() {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        return x;
      };
      for (int i = 0; i < kRounds; i++) {
        tmrq_info keep = Info(T(next() % 50, static_cast<int32_t>(next() % 1000000)), T(0),
                              &CountingCallback, &fires);
        if (tmrq_TimerCreate(queue, &keep) < 0) failures++;
        keepers[w].push_back(keep.id);
        // Re-arm it once: it may have fired meanwhile, so it fires once or
        // twice in all.
        keep.timeout = T(next() % 50);
        keep.inactive = 0;
        if (tmrq_TimerUpdate(queue, &keep) < 0) failures++;

        tmrq_info churn = Info(T(next() % 50), T(0), &CountingCallback, &fires);
        if (tmrq_TimerCreate(queue, &churn) < 0) failures++;
        churned[w].push_back(churn.id);
        if (tmrq_TimerDestroy(queue, churn.id) < 0) failures++;
      }
      workers_left--;
    });
  }

  int passes = 0;
  int fired = 0;
  _cspOsalTime_struct now = T(0);
  _cspOsalTime_struct step = T(0, 50000);
  while (workers_left.load() > 0) {
    int rc = tmrq_Process(queue, &now);
    if (rc < 0) failures++;
    else fired += rc;
    passes++;
    if (now.sec < 60) cspOsalAddTime(&now, &now, &step);
    std::this_thread::yield();
  }
  for (auto &t : workers) t.join();
  _cspOsalTime_struct end = T(1000);
  int last = tmrq_Process(queue, &end);
  ASSERT_GE(last, 0);
  fired += last;

  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(fires.overlaps.load(), 0);
  EXPECT_EQ(fires.early.load(), 0);
  int counted = 0;
  for (int w = 0; w < kWorkers; w++) {
    ASSERT_EQ(keepers[w].size(), static_cast<size_t>(kRounds));
    for (int32_t id : keepers[w]) {
      ASSERT_LT(id, FireLog::kMaxId);
      int n = fires.counts[id].load();
      EXPECT_TRUE(n == 1 || n == 2) << "keeper " << id << " fired " << n << " times";
      counted += n;
      tmrq_info info;
      ASSERT_GE(tmrq_TimerGet(queue, id, &info), 0);
      EXPECT_EQ(info.inactive, 1);
    }
    for (int32_t id : churned[w]) {
      ASSERT_LT(id, FireLog::kMaxId);
      int n = fires.counts[id].load();
      EXPECT_LE(n, 1) << "churn timer " << id;
      counted += n;
      EXPECT_EQ(tmrq_TimerGet(queue, id, nullptr), -2);
    }
  }
  EXPECT_EQ(counted, fired);
  EXPECT_EQ(tmrq_TimerGet(queue, 0, nullptr), -2);
  RecordProperty("passes", passes);
}

}  // namespace
