// Shutting a client down while application threads are inside its API:
// calls blocked waiting for a job are woken and leave before anything is
// freed, and a call caught in the middle of its work runs to its end
// before the client goes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/lorc_notify_helpers.h"
#include "support/test_allocator.h"

namespace {

using testsupport::BulkKeys;
using testsupport::ClientFixture;
using testsupport::ClientSetup;
using testsupport::LogCapture;
using testsupport::SpyHost;
using testsupport::TestAllocator;

constexpr uint32_t kSet = 0x30400;

bool ready_within(std::future<int> &f, int ms) {
  return f.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
}

// Calls blocked in the client, counted under the client mutex.
size_t blocked_waits(lorc_client *c) {
  size_t n = 0;
  pthread_mutex_lock(&c->mutex);
  lorc_wait_node *node;
  LIST_FOREACH(node, &c->waits, link) n++;
  pthread_mutex_unlock(&c->mutex);
  return n;
}

void no_op_handler(lorc_client *, uint32_t, const lorc_key_struct *, int32_t, const lstr *,
                   void *) {}

TEST(LorcShutdownThread, CallsWaitingForTheirJobsWakeAndLeaveFirst) {
  TestAllocator alloc;
  LogCapture log;
  ClientFixture f;
  SpyHost host(f.lmq());  // takes every command and answers none
  ClientSetup setup;
  setup.allocator = alloc.handle();
  ASSERT_EQ(f.add_client(setup), 0);
  lorc_client *c = f.client();
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/b", LORC_BULKOP_SET | kSet, "1"), 0);
  int timer = lorc_job_create_timer(c, 600000, 1, 0);
  ASSERT_GT(timer, 0);

  std::future<int> query = std::async(std::launch::async, [&] {
    char buffer[8];
    return lorc_value_query(c, 0, "/com/norvi/q", buffer, sizeof buffer, 30);
  });
  std::future<int> set = std::async(std::launch::async, [&] {
    return lorc_value_set(c, 0, "/com/norvi/s", "v", 1, kSet, 30);
  });
  std::future<int> bulk =
      std::async(std::launch::async, [&] { return lorc_bulk_operation(c, keys.get(), 30); });
  std::future<int> wait =
      std::async(std::launch::async, [&] { return lorc_job_wait(c, timer, 30); });
  ASSERT_TRUE(host.next(LOREG_MSG_VALUE_QUERY));
  ASSERT_TRUE(host.next(LOREG_MSG_VALUE_SET));
  ASSERT_TRUE(host.next(LOREG_MSG_ECHO));
  ASSERT_TRUE(ClientFixture::wait_until([&] { return blocked_waits(c) == 4; }));

  ASSERT_EQ(f.stop_client(0), 0);
  ASSERT_TRUE(ready_within(query, 5000));
  ASSERT_TRUE(ready_within(set, 5000));
  ASSERT_TRUE(ready_within(bulk, 5000));
  ASSERT_TRUE(ready_within(wait, 5000));
  // A synchronous call whose job went finds no job to collect.
  EXPECT_EQ(query.get(), -14);
  EXPECT_EQ(set.get(), -14);
  EXPECT_EQ(bulk.get(), -14);
  EXPECT_EQ(wait.get(), 0);
  EXPECT_EQ(log.count("(sync job="), 3u) << log.dump();
  EXPECT_TRUE(log.contains("lorc_value_query(sync job=")) << log.dump();
  EXPECT_TRUE(log.contains("): failed re-obtaining job reference. (code=-2)\n"));
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// Shutdown may destroy a job before the thread that waits for it has got
// into the wait. That wait ends as one the destruction woke (0, -103),
// whichever came first; only a job that is gone before anybody waited on
// it reads as unknown.
TEST(LorcShutdownThread, AWaitOvertakenByShutdownEndsAsIfWoken) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(ClientSetup()), 0);
  lorc_client *c = f.client();
  int timer = lorc_job_create_timer(c, 600000, 1, 0);
  ASSERT_GT(timer, 0);

  // The state shutdown leaves once it has woken the waits: every wait
  // from then on ends at once.
  pthread_mutex_lock(&c->mutex);
  c->draining = 1;
  pthread_mutex_unlock(&c->mutex);
  int32_t result = 0;
  EXPECT_EQ(lorc_client_wait(c, timer, &result, 30), 0);
  EXPECT_EQ(result, -103);
  result = 0;
  EXPECT_EQ(lorc_client_wait(c, timer, &result, 30), -2);
  EXPECT_EQ(result, -14);
  pthread_mutex_lock(&c->mutex);
  c->draining = 0;
  pthread_mutex_unlock(&c->mutex);
}

// An allocator that holds the thread of one allocation of a given size
// until it is let go.
struct HoldingAllocator {
  loreg_allocator handle{};
  TestAllocator inner;
  std::atomic<size_t> size{0};
  std::mutex mutex;
  std::condition_variable cond;
  bool held = false;
  bool released = false;

  HoldingAllocator() {
    handle.context = this;
    handle.alloc = [](void *context, size_t bytes, int zero) -> void * {
      auto *self = static_cast<HoldingAllocator *>(context);
      size_t expected = bytes;
      if (self->size.compare_exchange_strong(expected, 0)) {
        std::unique_lock<std::mutex> lock(self->mutex);
        self->held = true;
        self->cond.notify_all();
        self->cond.wait(lock, [self] { return self->released; });
      }
      return self->inner.handle()->alloc(self->inner.handle()->context, bytes, zero);
    };
    handle.free = [](void *context, void *block) {
      auto *self = static_cast<HoldingAllocator *>(context);
      self->inner.handle()->free(self->inner.handle()->context, block);
    };
  }
  bool wait_held() {
    std::unique_lock<std::mutex> lock(mutex);
    return cond.wait_for(lock, std::chrono::seconds(5), [this] { return held; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
    cond.notify_all();
  }
};

TEST(LorcShutdownThread, CallInTheMiddleOfItsWorkEndsBeforeTheClientGoes) {
  HoldingAllocator alloc;
  LogCapture log;
  ClientFixture f;
  ClientSetup setup;
  setup.allocator = &alloc.handle;
  ASSERT_EQ(f.add_client(setup), 0);
  lorc_client *c = f.client();
  struct Release {
    HoldingAllocator &a;
    ~Release() { a.release(); }
  } release{alloc};

  // The registering thread stops in the allocation of its node.
  const std::string path = "/com/norvi/held";
  alloc.size = sizeof(lorc_subscr_node) + path.size() + 1;
  std::future<int> reg = std::async(std::launch::async, [&] {
    return lorc_notification_register(c, no_op_handler, path.c_str(), nullptr);
  });
  ASSERT_TRUE(alloc.wait_held());

  std::future<int> shutdown = std::async(std::launch::async, [&] { return f.stop_client(0); });
  // The shutdown has woken every wait and now waits for the call.
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    pthread_mutex_lock(&c->mutex);
    bool draining = c->draining != 0;
    pthread_mutex_unlock(&c->mutex);
    return draining;
  }));
  EXPECT_FALSE(ready_within(shutdown, 0));
  alloc.release();
  ASSERT_TRUE(ready_within(reg, 5000));
  ASSERT_TRUE(ready_within(shutdown, 5000));
  // The call was admitted, but its node would land behind the removal of
  // all subscriptions: it is refused and given back.
  EXPECT_EQ(reg.get(), -14);
  EXPECT_TRUE(log.has_line("lorc_subscr_register(): client not yet initialized.\n")) << log.dump();
  EXPECT_EQ(shutdown.get(), 0);
  EXPECT_EQ(alloc.inner.live_blocks(), 0u);
}

}  // namespace
