// Eight application threads on one client against one server: synchronous
// and asynchronous calls (with and without job callbacks), cancels, timer
// jobs and expired synchronous waits, all at once. Every asynchronous job
// must reach exactly one collector, nothing may hang, and the client's
// allocator must be empty after shutdown.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "loreg/lorc.h"
#include "support/client_fixture.h"
#include "support/test_allocator.h"

using testsupport::ClientFixture;
using testsupport::ServerSetup;
using testsupport::ClientSetup;
using testsupport::TestAllocator;

namespace {

constexpr int kThreads = 8;
constexpr int kIterations = 150;
constexpr uint32_t kPlain = 0x30400;

// Who collected which job, and how often.
struct Ledger {
  std::mutex mutex;
  std::map<int, int> collected;  // job id -> collections
  std::set<int> created;         // asynchronous jobs created
  std::set<int> withCallback;    // ... of which with a callback
  std::atomic<int> callbacks{0};
  std::atomic<int> results{0};
  std::atomic<int> cancels{0};
  std::atomic<int> syncCalls{0};
  std::atomic<int> syncTimeouts{0};
  std::atomic<int> errors{0};

  void create(int job, bool callback) {
    std::lock_guard<std::mutex> lock(mutex);
    created.insert(job);
    if (callback) withCallback.insert(job);
  }
  void collect(int job) {
    std::lock_guard<std::mutex> lock(mutex);
    collected[job]++;
  }
  void error(const std::string &what) {
    errors.fetch_add(1);
    std::lock_guard<std::mutex> lock(mutex);
    ADD_FAILURE() << what;
  }
};

void on_job(lorc_client *, int32_t, int32_t jobId, int32_t result, void *cookie) {
  auto *ledger = static_cast<Ledger *>(cookie);
  if (result < 0 && result != -2) ledger->error("callback job result " + std::to_string(result));
  ledger->collect(jobId);
  ledger->callbacks.fetch_add(1);
}

void worker(lorc_client *c, int index, int callbackId, Ledger *ledger) {
  std::mt19937 rng(1000u + static_cast<unsigned>(index));
  std::vector<int> pending;  // asynchronous jobs without callback, to collect
  const std::string base = "/com/norvi/t" + std::to_string(index) + "/k";

  auto collect_pending = [&] {
    for (int job : pending) {
      int rc = lorc_job_wait(c, job, 5);
      int32_t value = 0;
      // A wake-up without completion is possible; poll until done.
      int result = lorc_job_get_result(c, job, &value);
      for (int tries = 0; result == -115 && tries < 5000; tries++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        result = lorc_job_get_result(c, job, &value);
      }
      if (result != 0) {
        ledger->error("collect " + std::to_string(job) + ": wait " + std::to_string(rc) +
                      ", result " + std::to_string(result));
        continue;
      }
      ledger->collect(job);
      ledger->results.fetch_add(1);
    }
    pending.clear();
  };

  for (int i = 0; i < kIterations; i++) {
    std::string path = base + std::to_string(i % 4);
    std::string value = std::to_string(i);
    int op = static_cast<int>(rng() % 8);
    switch (op) {
      case 0: {
        int rc = lorc_value_set(c, 0, path.c_str(), value.data(), static_cast<uint32_t>(value.size()),
                                kPlain, 5);
        if (rc != 0) ledger->error("sync set " + std::to_string(rc));
        ledger->syncCalls.fetch_add(1);
        break;
      }
      case 1: {
        char buffer[16];
        int rc = lorc_value_query(c, 0, path.c_str(), buffer, sizeof buffer, 5);
        if (rc < 0 && rc != -2) ledger->error("sync query " + std::to_string(rc));
        ledger->syncCalls.fetch_add(1);
        break;
      }
      case 2: {
        int job = lorc_value_set(c, 0, path.c_str(), value.data(),
                                 static_cast<uint32_t>(value.size()), kPlain, 0);
        if (job <= 0) {
          ledger->error("async set " + std::to_string(job));
          break;
        }
        ledger->create(job, false);
        pending.push_back(job);
        break;
      }
      case 3: {
        int job = (rng() % 2) ? lorc_value_query(c, 0, path.c_str(), nullptr, 0, -callbackId)
                              : lorc_value_set(c, 0, path.c_str(), value.data(),
                                               static_cast<uint32_t>(value.size()), kPlain,
                                               -callbackId);
        if (job <= 0) {
          ledger->error("callback job " + std::to_string(job));
          break;
        }
        ledger->create(job, true);
        break;
      }
      case 4: {
        int job = lorc_value_set(c, 0, path.c_str(), value.data(),
                                 static_cast<uint32_t>(value.size()), kPlain, 0);
        if (job <= 0) {
          ledger->error("async set to cancel " + std::to_string(job));
          break;
        }
        ledger->create(job, false);
        int rc = lorc_job_cancel(c, job);
        if (rc != 0) {
          ledger->error("cancel " + std::to_string(rc));
          break;
        }
        ledger->collect(job);
        ledger->cancels.fetch_add(1);
        break;
      }
      case 5: {
        int job = lorc_job_create_timer(c, rng() % 4, i, 0);
        if (job <= 0) {
          ledger->error("timer job " + std::to_string(job));
          break;
        }
        ledger->create(job, false);
        if (rng() % 3 == 0) {
          if (lorc_job_cancel(c, job) != 0) {
            ledger->error("cancel timer job");
            break;
          }
          ledger->collect(job);
          ledger->cancels.fetch_add(1);
        } else {
          pending.push_back(job);
        }
        break;
      }
      case 6: {
        int job = lorc_job_create_timer(c, rng() % 4, i, -callbackId);
        if (job <= 0) {
          ledger->error("timer callback job " + std::to_string(job));
          break;
        }
        ledger->create(job, true);
        break;
      }
      default:
        collect_pending();
        break;
    }
  }
  // Two threads also meet a synchronous wait that expires: the server
  // drops a path outside its root without an answer.
  if (index < 2) {
    char buffer[8];
    int rc = lorc_value_query(c, 0, "/other/root/key", buffer, sizeof buffer, 1);
    if (rc != -110) ledger->error("expired wait gave " + std::to_string(rc));
    ledger->syncTimeouts.fetch_add(1);
  }
  collect_pending();
}

TEST(LorcApiThreads, EveryJobReachesExactlyOneCollector) {
  TestAllocator alloc;
  Ledger ledger;
  {
    ClientFixture f;
    ServerSetup server;
    server.queue_kib = 1024;
    ASSERT_EQ(f.add_server(server), 0);
    ClientSetup setup;
    setup.allocator = alloc.handle();
    setup.queue_kib = 1024;
    ASSERT_EQ(f.add_client(setup), 0);
    lorc_client *c = f.client();
    ASSERT_TRUE(f.wait_roots(0, 1));
    int callbackId = lorc_job_cb_register(c, on_job, &ledger);
    ASSERT_GT(callbackId, 0);

    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
      threads.emplace_back([&, i] {
        worker(c, i, callbackId, &ledger);
        finished.fetch_add(1);
      });
    }
    // The uptime clock moves meanwhile, so timers fall due through the
    // clock as well as by real time.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (finished.load() < kThreads && std::chrono::steady_clock::now() < deadline) {
      _cspOsalTime_struct step = {0, 1000};
      cspOsalTestAdvanceUptime(&step);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (finished.load() < kThreads) {
      std::fprintf(stderr, "deadlock: only %d of %d threads finished\n", finished.load(), kThreads);
      std::abort();
    }
    for (auto &t : threads) t.join();

    size_t withCallback = 0;
    {
      std::lock_guard<std::mutex> lock(ledger.mutex);
      withCallback = ledger.withCallback.size();
    }
    // Callbacks run on the client thread: wait for the last of them.
    ASSERT_TRUE(ClientFixture::wait_until(
        [&] { return static_cast<size_t>(ledger.callbacks.load()) == withCallback; }, 10000))
        << ledger.callbacks.load() << " of " << withCallback << " callbacks";

    EXPECT_EQ(lorc_job_cb_unregister(c, callbackId, 1), 0);
    ASSERT_EQ(f.stop_client(0), 0);
  }
  EXPECT_EQ(ledger.errors.load(), 0);
  EXPECT_EQ(ledger.syncTimeouts.load(), 2);
  std::lock_guard<std::mutex> lock(ledger.mutex);
  EXPECT_GT(ledger.created.size(), 300u);
  EXPECT_GT(ledger.callbacks.load(), 0);
  EXPECT_GT(ledger.results.load(), 0);
  EXPECT_GT(ledger.cancels.load(), 0);
  EXPECT_GT(ledger.syncCalls.load(), 0);
  EXPECT_EQ(ledger.collected.size(), ledger.created.size());
  for (int job : ledger.created) {
    auto it = ledger.collected.find(job);
    ASSERT_NE(it, ledger.collected.end()) << "job " << job << " never collected";
    EXPECT_EQ(it->second, 1) << "job " << job << " collected " << it->second << " times";
  }
  EXPECT_EQ(static_cast<size_t>(ledger.callbacks.load() + ledger.results.load() +
                                ledger.cancels.load()),
            ledger.created.size());
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

}  // namespace
