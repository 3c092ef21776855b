// Subscriptions under concurrency: application threads subscribe and
// unsubscribe while key updates flow and handlers unsubscribe themselves.
// An external unregister must return only when its handler will never run
// again, and nothing may deadlock.
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"

namespace {

using testsupport::ClientFixture;
using testsupport::LogCapture;

constexpr uint32_t kSet = 0x30400;
constexpr int kWorkers = 4;
constexpr int kRounds = 100;

// Removed from another thread; it counts every call, and the count taken
// when unregistering returned must stay the final count.
struct External {
  std::atomic<int> calls{0};
  std::atomic<bool> returned{false};
  std::atomic<int> late{0};
  int calls_at_return = -1;
  static void handler(lorc_client *, uint32_t, const lorc_key_struct *, int32_t, const lstr *,
                      void *cookie) {
    auto *self = static_cast<External *>(cookie);
    if (self->returned.load()) self->late++;
    self->calls++;
  }
};

// Removes itself at its first call; it must never be called again.
struct SelfRemoving {
  lorc_client *client = nullptr;
  std::string path;
  std::atomic<int> calls{0};
  std::atomic<int> rc{1};
  static void handler(lorc_client *client, uint32_t, const lorc_key_struct *, int32_t, const lstr *,
                      void *cookie) {
    auto *self = static_cast<SelfRemoving *>(cookie);
    if (self->calls.fetch_add(1) == 0)
      self->rc = lorc_notification_unregister(client, handler, self->path.c_str(), self);
  }
};

TEST(LorcSubscrThread, SubscribeAndUnsubscribeWhileUpdatesFlow) {
  // Failures and warnings only: the run produces thousands of detail lines.
  LogCapture log({0x6B}, 3000);
  // The handlers' records outlive the client.
  std::deque<External> externals(kWorkers * kRounds);
  std::deque<SelfRemoving> selves(kWorkers * kRounds);

  ClientFixture f;
  ASSERT_EQ(f.add_server(), 0);
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  ASSERT_TRUE(f.wait_roots(0, 1));

  // Updates for every subscriber, all the time.
  std::atomic<bool> stop{false};
  std::atomic<int> updaterErrors{0};
  std::atomic<int> updates{0};
  std::thread updater([&] {
    for (int i = 0; !stop.load(); i++, updates++) {
      std::string v = std::to_string(i);
      if (lorc_value_set(c, 0, "/com/norvi/th/all", v.data(), static_cast<uint32_t>(v.size()), kSet,
                         5) != 0)
        updaterErrors++;
    }
  });

  std::atomic<int> errors{0};
  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; w++) {
    workers.emplace_back([&, w] {
      const std::string mine = "/com/norvi/th/" + std::to_string(w) + "/";
      for (int r = 0; r < kRounds; r++) {
        External &e = externals[static_cast<size_t>(w * kRounds + r)];
        SelfRemoving &s = selves[static_cast<size_t>(w * kRounds + r)];
        s.client = c;
        s.path = mine + "self" + std::to_string(r);
        // Alternately at the shared path and at the worker's own.
        const std::string path = (r % 2 == 0) ? std::string("/com/norvi/th/") : mine;
        if (lorc_notification_register(c, External::handler, path.c_str(), &e) != 0) errors++;
        if (lorc_notification_register(c, SelfRemoving::handler, s.path.c_str(), &s) != 0) errors++;
        std::string key = mine + "k";
        std::string v = std::to_string(r);
        if (lorc_value_set(c, 0, key.c_str(), v.data(), static_cast<uint32_t>(v.size()), kSet, 5) !=
            0)
          errors++;
        if (lorc_notification_unregister(c, External::handler, path.c_str(), &e) != 0) errors++;
        e.calls_at_return = e.calls.load();
        e.returned = true;
      }
    });
  }
  for (auto &t : workers) t.join();
  // A few more updates after the last removal.
  for (int i = 0; i < 5; i++) {
    for (int w = 0; w < kWorkers; w++) {
      std::string key = "/com/norvi/th/" + std::to_string(w) + "/k";
      EXPECT_EQ(lorc_value_set(c, 0, key.c_str(), "x", 1, kSet, 5), 0);
    }
  }
  stop = true;
  updater.join();
  ASSERT_TRUE(f.sync());

  EXPECT_EQ(errors.load(), 0);
  EXPECT_EQ(updaterErrors.load(), 0);
  EXPECT_GT(updates.load(), 0);
  for (size_t i = 0; i < externals.size(); i++) {
    SCOPED_TRACE("external subscription " + std::to_string(i));
    // Its own worker's update came before the worker unregistered it.
    EXPECT_GE(externals[i].calls_at_return, 1);
    EXPECT_EQ(externals[i].calls.load(), externals[i].calls_at_return);
    EXPECT_EQ(externals[i].late.load(), 0);
  }
  for (size_t i = 0; i < selves.size(); i++) {
    SCOPED_TRACE("self-removing subscription " + std::to_string(i));
    EXPECT_EQ(selves[i].calls.load(), 1);
    EXPECT_EQ(selves[i].rc.load(), 0);
  }
  EXPECT_FALSE(log.contains("FATAL")) << log.dump();
  EXPECT_FALSE(log.contains("WARNING")) << log.dump();
  ASSERT_EQ(f.stop_client(0), 0);
}

}  // namespace
