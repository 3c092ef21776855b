// Tests of the client's notification subscriptions: registering, the
// matching of updates, delivery on the client thread, and removal from the
// client thread and from other threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "loreg/lors.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/lorc_notify_helpers.h"
#include "support/test_allocator.h"

namespace {

using testsupport::ClientFixture;
using testsupport::ClientSetup;
using testsupport::inject_key_update;
using testsupport::LogCapture;
using testsupport::NotifyRecorder;
using testsupport::SpyHost;
using testsupport::TestAllocator;

constexpr uint32_t kSet = 0x30400;  // create key and directories, apply the value

ClientSetup external_client(const loreg_allocator *allocator = nullptr) {
  ClientSetup options;
  options.external = true;
  options.allocator = allocator;
  return options;
}

ClientSetup threaded_client(const loreg_allocator *allocator = nullptr) {
  ClientSetup options;
  options.allocator = allocator;
  return options;
}

// A client and a server under the default root, the root known.
struct Rig {
  LogCapture log;
  ClientFixture f;
  lorc_client *c = nullptr;
  explicit Rig(const loreg_allocator *allocator = nullptr) {
    EXPECT_EQ(f.add_server(), 0);
    EXPECT_EQ(f.add_client(threaded_client(allocator)), 0);
    c = f.client();
    EXPECT_TRUE(f.wait_roots(0, 1));
  }
  int set(const std::string &path, const std::string &value) {
    return lorc_value_set(c, 0, path.c_str(), value.data(), static_cast<uint32_t>(value.size()),
                          kSet, 5);
  }
};

template <typename F>
bool finishes_within(std::future<F> &future, int ms) {
  return future.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
}

void dummy_handler(lorc_client *, uint32_t, const lorc_key_struct *, int32_t, const lstr *,
                   void *) {}

// Job id of a "wait for (internal) job" line of this path, other than skip_job.
int job_of_wait_line(const LogCapture &log, const std::string &path, int skip_job) {
  const std::string prefix =
      "lorc_subscr_unregister(" + path + "): from external task, wait for (internal) job ";
  for (const auto &text : log.texts()) {
    if (text.compare(0, prefix.size(), prefix) != 0) continue;
    int j = std::atoi(text.c_str() + prefix.size());
    if (j != skip_job) return j;
  }
  return -1;
}

// --- Argument checks ----------------------------------------------------

TEST(LorcSubscrApi, RefusesBadClientsAndMissingHandlers) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();

  EXPECT_EQ(lorc_notification_register(nullptr, dummy_handler, "/a", nullptr), -14);
  EXPECT_TRUE(log.has_line("lorc_notification_register(): client not yet initialized.\n"));
  EXPECT_EQ(lorc_notification_register(c, nullptr, "/a", nullptr), -22);
  EXPECT_TRUE(log.has_line("lorc_notification_register(): no callback routine given.\n"));
  EXPECT_EQ(lorc_notification_unregister(nullptr, dummy_handler, "/a", nullptr), -14);
  EXPECT_TRUE(log.has_line("lorc_notification_unregister(): client not yet initialized.\n"));
  EXPECT_EQ(lorc_notification_unregister(c, nullptr, "/a", nullptr), -22);
  EXPECT_TRUE(log.has_line("lorc_notification_unregister(): no callback routine given.\n"));
  EXPECT_EQ(lorc_notification_trigger(nullptr, "/a", 0, 0), -14);
  EXPECT_TRUE(log.has_line("lorc_notification_trigger(): client not yet initialized.\n"));
  EXPECT_EQ(lorc_notification_trigger(c, nullptr, 0xFFFFFFFFu, 1), -22);
  EXPECT_TRUE(log.has_line("lorc_notification_trigger(): path missiing.\n")) << log.dump();

  // A client whose magic is gone counts as not initialized.
  uint32_t magic = c->magic;
  c->magic = 0;
  EXPECT_EQ(lorc_notification_register(c, dummy_handler, "/a", nullptr), -14);
  c->magic = magic;
}

TEST(LorcSubscrApi, UnknownSubscriptionGivesENODEV) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  int cookie = 0;
  ASSERT_EQ(lorc_notification_register(c, dummy_handler, "/a/b", &cookie), 0);
  EXPECT_TRUE(log.has_line("lorc_subscr_register(/a/b) success\n")) << log.dump();
  // Handler, path and cookie together name a subscription.
  EXPECT_EQ(lorc_notification_unregister(c, dummy_handler, "/a/b", nullptr), -19);
  EXPECT_EQ(lorc_notification_unregister(c, dummy_handler, "/a", &cookie), -19);
  NotifyRecorder other;
  EXPECT_EQ(lorc_notification_unregister(c, NotifyRecorder::handler, "/a/b", &cookie), -19);
}

TEST(LorcSubscrApi, NullPathMeansTheWholeTree) {
  Rig s;
  NotifyRecorder rec(s.c);
  ASSERT_EQ(lorc_notification_register(s.c, NotifyRecorder::handler, nullptr, &rec), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_SERVER_AVAILABLE, 1));
  EXPECT_EQ(rec.calls()[0].sub_path, "/");
  ASSERT_EQ(s.set("/com/norvi/k", "1"), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_KEY_ADD, 1));
  // Unregistering by "/" finds it.
  EXPECT_EQ(lorc_notification_unregister(s.c, NotifyRecorder::handler, "/", &rec), 0);
  EXPECT_EQ(lorc_notification_unregister(s.c, NotifyRecorder::handler, nullptr, &rec), -19);
}

TEST(LorcSubscrApi, AllocationFailuresOfRegisterAndUnregister) {
  LogCapture log;
  TestAllocator alloc;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client(alloc.handle())), 0);
  lorc_client *c = f.client();

  alloc.fail_at(1);
  EXPECT_EQ(lorc_notification_register(c, dummy_handler, "/path", nullptr), -12);
  EXPECT_TRUE(alloc.failed());
  const std::string line = "lorc_subscr_register(): failed to alloc " +
                           std::to_string(sizeof(lorc_subscr_node) + 6) +
                           " bytes for new notification node\n";
  EXPECT_TRUE(log.has_line(line)) << log.dump();
  EXPECT_EQ(lorc_notification_unregister(c, dummy_handler, "/path", nullptr), -19);

  ASSERT_EQ(lorc_notification_register(c, dummy_handler, "/path", nullptr), 0);
  alloc.fail_at(1);
  EXPECT_EQ(lorc_notification_unregister(c, dummy_handler, "/path", nullptr), -14);
  EXPECT_TRUE(log.has_line(
      "lorc_subscr_unregister() WARNING: node removal job creation failed  with code -12.\n"))
      << log.dump();
  alloc.disarm();

  // Still registered: shutdown removes it by force.
  log.clear();
  ASSERT_EQ(f.stop_client(0), 0);
  EXPECT_TRUE(log.has_line(
      "lorc_subscr_reset_nolock() WARNING: force deleting notification subscription /path, "
      "(internal) job=-1\n"))
      << log.dump();
  EXPECT_TRUE(log.has_line(
      "lorc_subscr_reset_nolock(): delete notification for /path, (internal) job=-1\n"))
      << log.dump();
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// --- Trigger --------------------------------------------------------------

TEST(LorcSubscrTrigger, PlaysBackExistingKeysAsUpdates) {
  Rig s;
  ASSERT_EQ(s.set("/com/norvi/t/a", "1"), 0);
  ASSERT_EQ(s.set("/com/norvi/t/b", "2"), 0);
  ASSERT_EQ(s.set("/com/norvi/t/c/deep", "3"), 0);
  NotifyRecorder rec(s.c);
  ASSERT_EQ(lorc_notification_register(s.c, NotifyRecorder::handler, "/com/norvi/t", &rec), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_SERVER_AVAILABLE, 1));
  s.log.clear();

  // The directory key and its children, one level deep.
  ASSERT_EQ(lorc_notification_trigger(s.c, "/com/norvi/t/", 0xFFFFFFFFu, 1), 0);
  EXPECT_TRUE(s.log.has_line(
      "lorc_notification_trigger('/com/norvi/t/', filter=0xffffffff, max_rec_level=1): "
      "success\n"))
      << s.log.dump();
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_KEY_UPDATE, 4)) << s.log.dump();
  ASSERT_TRUE(s.f.sync());
  auto calls = rec.calls(LOREG_REASON_KEY_UPDATE);
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0].item_path, "/com/norvi/t/");
  EXPECT_EQ(calls[1].item_path, "/com/norvi/t/a");
  EXPECT_EQ(calls[1].value, "1");
  EXPECT_EQ(calls[2].item_path, "/com/norvi/t/b");
  EXPECT_EQ(calls[2].value, "2");
  EXPECT_EQ(calls[3].item_path, "/com/norvi/t/c/");
  for (const auto &call : calls) {
    EXPECT_EQ(call.tid, 0);
    EXPECT_TRUE(call.on_client_thread);
  }
}

TEST(LorcSubscrTrigger, SendsOneCommandWithoutAJob) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  SpyHost spy(f.lmq());
  ASSERT_EQ(lorc_notification_trigger(f.client(), "/com/norvi/x/", 0x1234u, 7), 0);
  auto cmd = spy.next(LOREG_MSG_KEY_UPDATE_TRIGGER);
  ASSERT_TRUE(cmd);
  EXPECT_EQ(cmd->header.reqid, 0u);
  EXPECT_EQ(cmd->header.arg0, 0x1234u);
  EXPECT_EQ(cmd->header.arg1, 7u);
  EXPECT_EQ(cmd->header.tid, 0);
  EXPECT_EQ(cmd->header.len0, 0);
  EXPECT_EQ(cmd->header.len1, 13);
  EXPECT_EQ(cmd->data1, "/com/norvi/x/");
  EXPECT_FALSE(log.contains("created job=")) << log.dump();
}

TEST(LorcSubscrTrigger, OverlongPathIsRefusedRatherThanCut) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  SpyHost spy(f.lmq());
  // 65536 + 20 bytes: cut to 16 bits, the length would be 20.
  std::string path = "/com/norvi/" + std::string(65536 + 9, 'p');
  ASSERT_EQ(path.size(), 65556u);
  EXPECT_EQ(lorc_notification_trigger(f.client(), path.c_str(), 0xFFFFFFFFu, 1), -22);
  EXPECT_TRUE(log.has_line("lorc_notification_trigger(): path too long (65556 bytes).\n"))
      << log.dump();
  EXPECT_FALSE(spy.next(LOREG_MSG_KEY_UPDATE_TRIGGER, 50));
}

TEST(LorcSubscrTrigger, FailedSendGivesEIO) {
  LogCapture log;
  ClientFixture f;  // no server: nobody hosts the service
  ASSERT_EQ(f.add_client(external_client()), 0);
  EXPECT_EQ(lorc_notification_trigger(f.client(), "/com/norvi/t", 0xFFFFFFFFu, 1), -5);
  EXPECT_FALSE(log.contains("lorc_notification_trigger('")) << log.dump();
}

// --- Matching --------------------------------------------------------------

TEST(LorcSubscrMatch, ComparisonLengthByReason) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/a/b", &rec), 0);

  struct Case {
    uint32_t reason;
    uint32_t flags;
    const char *path;
    bool match;
  };
  const Case cases[] = {
      // Updates, additions, changes and plain deletions reach the key and
      // subscribers above it.
      {LOREG_REASON_KEY_UPDATE, 0x04, "/a/b", true},
      {LOREG_REASON_KEY_UPDATE, 0x04, "/a/b/c", true},
      {LOREG_REASON_KEY_UPDATE, 0x04, "/a", false},
      {LOREG_REASON_KEY_ADD, 0x04, "/a/b/c", true},
      {LOREG_REASON_KEY_ADD, 0x04, "/a", false},
      {LOREG_REASON_KEY_CHANGE, 0x04, "/a/b", true},
      {LOREG_REASON_KEY_CHANGE, 0x04, "/a", false},
      {LOREG_REASON_KEY_CHANGE, 0x04, "/x/b", false},
      {LOREG_REASON_KEY_DELETE, 0x04, "/a/b/c", true},
      {LOREG_REASON_KEY_DELETE, 0x04, "/a", false},
      // A directory's deletion takes the subtree with it.
      {LOREG_REASON_KEY_DELETE, 0x0C, "/a", true},
      // Transactions reach subscribers below the path too.
      {LOREG_REASON_TA_START, 0x04, "/a", true},
      {LOREG_REASON_TA_START, 0x04, "/a/b/c", true},
      {LOREG_REASON_TA_START, 0x04, "/x", false},
      {LOREG_REASON_TA_END, 0x04, "/a", true},
      {0x5000, 0x04, "/a", true},
  };
  for (const auto &k : cases) {
    SCOPED_TRACE(std::string(lorc_get_reason_txt(k.reason)) + " " + k.path);
    rec.clear();
    ASSERT_EQ(inject_key_update(c, k.reason, k.flags, k.path, "v", 3), 0);
    ASSERT_EQ(rec.count(), k.match ? 1u : 0u);
    if (k.match) {
      auto call = rec.calls()[0];
      EXPECT_EQ(call.reason, k.reason);
      EXPECT_EQ(call.item_path, k.path);
      EXPECT_EQ(call.item_flags, k.flags);
      EXPECT_EQ(call.value, "v");
      EXPECT_EQ(call.tid, 3);
      EXPECT_EQ(call.sub_path, "/a/b");
      EXPECT_EQ(call.cookie, &rec);
    }
  }
}

TEST(LorcSubscrMatch, RootPathSubscriptionHearsAChangeBelow) {
  Rig s;
  ASSERT_EQ(s.set("/com/norvi/a/b", "1"), 0);
  NotifyRecorder rec(s.c);
  ASSERT_EQ(lorc_notification_register(s.c, NotifyRecorder::handler, "/com/norvi/", &rec), 0);
  ASSERT_EQ(s.set("/com/norvi/a/b", "2"), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_KEY_CHANGE, 1));
  auto call = rec.calls(LOREG_REASON_KEY_CHANGE)[0];
  EXPECT_EQ(call.item_path, "/com/norvi/a/b");
  EXPECT_EQ(call.value, "2");
  EXPECT_EQ(call.sub_path, "/com/norvi/");
  EXPECT_TRUE(call.on_client_thread);
}

TEST(LorcSubscrMatch, ChangeAboveDoesNotMatchButTransactionStartDoes) {
  Rig s;
  ASSERT_EQ(s.set("/com/norvi/a/b", "1"), 0);
  NotifyRecorder rec(s.c);
  ASSERT_EQ(lorc_notification_register(s.c, NotifyRecorder::handler, "/com/norvi/a/b", &rec), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_SERVER_AVAILABLE, 1));
  rec.clear();
  // A witness above both paths sees every update.
  NotifyRecorder all(s.c);
  ASSERT_EQ(lorc_notification_register(s.c, NotifyRecorder::handler, "/com/norvi/", &all), 0);
  ASSERT_TRUE(all.wait_count(LOREG_REASON_SERVER_AVAILABLE, 1));

  // "/com/norvi/a" (a key beside the directory "a/") is created, then changed.
  ASSERT_EQ(s.set("/com/norvi/a", "x"), 0);
  ASSERT_EQ(s.set("/com/norvi/a", "y"), 0);
  int tid = lorc_transaction_start(s.c, "/com/norvi/a", 5);
  ASSERT_GT(tid, 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_TA_START, 1));
  ASSERT_EQ(lorc_transaction_end(s.c, tid, 5), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_TA_END, 1));
  ASSERT_TRUE(s.f.sync());

  auto changes = all.calls(LOREG_REASON_KEY_CHANGE);
  ASSERT_EQ(changes.size(), 1u) << s.log.dump();
  EXPECT_EQ(changes[0].item_path, "/com/norvi/a");
  auto calls = rec.calls();
  ASSERT_EQ(calls.size(), 2u);  // no KEY_CHANGE for /com/norvi/a
  EXPECT_EQ(calls[0].reason, LOREG_REASON_TA_START);
  EXPECT_EQ(calls[0].item_path, "/com/norvi/a");
  EXPECT_EQ(calls[0].tid, tid);
  EXPECT_EQ(calls[1].reason, LOREG_REASON_TA_END);
  EXPECT_EQ(calls[1].tid, tid);
}

TEST(LorcSubscrMatch, NewestSubscriptionIsServedFirst) {
  Rig s;
  std::vector<int> order;
  std::mutex m;
  struct Tag {
    int id;
    std::vector<int> *order;
    std::mutex *m;
  };
  Tag one{1, &order, &m}, two{2, &order, &m};
  auto handler = [](lorc_client *, uint32_t reason, const lorc_key_struct *, int32_t, const lstr *,
                    void *cookie) {
    if (reason != LOREG_REASON_KEY_ADD) return;
    auto *t = static_cast<Tag *>(cookie);
    std::lock_guard<std::mutex> lock(*t->m);
    t->order->push_back(t->id);
  };
  ASSERT_EQ(lorc_notification_register(s.c, handler, "/com/norvi/o", &one), 0);
  ASSERT_EQ(lorc_notification_register(s.c, handler, "/com/norvi/o", &two), 0);
  ASSERT_EQ(s.set("/com/norvi/o", "1"), 0);
  ASSERT_TRUE(s.f.sync());
  std::lock_guard<std::mutex> lock(m);
  EXPECT_EQ(order, (std::vector<int>{2, 1}));
}

// --- Roots for new subscribers --------------------------------------------

TEST(LorcSubscrRoots, RegisteringBelowAValidRootGivesOneServerAvailable) {
  Rig s;
  NotifyRecorder rec(s.c);
  s.log.clear();
  ASSERT_EQ(lorc_notification_register(s.c, NotifyRecorder::handler, "/com/norvi/x/y", &rec), 0);
  // The announcement is left to the client thread: no success line here.
  EXPECT_FALSE(s.log.contains("lorc_subscr_register(/com/norvi/x/y) success")) << s.log.dump();
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_SERVER_AVAILABLE, 1));
  ASSERT_TRUE(s.f.sync());
  auto calls = rec.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].reason, LOREG_REASON_SERVER_AVAILABLE);
  EXPECT_TRUE(calls[0].on_client_thread);
  EXPECT_EQ(calls[0].item_path, "/com/norvi/");
  EXPECT_NE(calls[0].item_flags & 0x20, 0u);
  EXPECT_EQ(calls[0].item_flags & 0x04, 0u);
  EXPECT_TRUE(calls[0].value_null);
  EXPECT_EQ(calls[0].tid, 0);
  EXPECT_EQ(calls[0].sub_path, "/com/norvi/x/y");
  EXPECT_EQ(calls[0].cookie, &rec);
}

TEST(LorcSubscrRoots, RegisteringWithoutAValidRootAnnouncesNothing) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, 0x28, "/r/"), 0);
  NotifyRecorder rec(c);

  // Beside the root.
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/q/x", &rec), 0);
  EXPECT_TRUE(log.has_line("lorc_subscr_register(/q/x) success\n")) << log.dump();
  EXPECT_EQ(f.pump_client(0), 0u);  // no wake-up was sent

  // Below a root that turned stale.
  _cspOsalTime_struct delta = {128, 0};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&delta), 0);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/r/x", &rec), 0);
  EXPECT_TRUE(log.has_line("lorc_subscr_register(/r/x) success\n")) << log.dump();
  EXPECT_EQ(f.pump_client(0), 0u);
  EXPECT_EQ(rec.count(), 0u);

  // Renewed: the next subscriber hears of it when the idle message is fed.
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, 0x28, "/r/"), 0);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/r/y", &rec), 0);
  EXPECT_EQ(rec.count(), 0u);
  EXPECT_EQ(f.pump_client(0), 1u);
  auto calls = rec.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].sub_path, "/r/y");
  EXPECT_EQ(calls[0].reason, LOREG_REASON_SERVER_AVAILABLE);
  EXPECT_TRUE(log.has_line("idle notification\n")) << log.dump();
}

TEST(LorcSubscrRoots, PendingSubscriberHearsEveryRootOnAServerAvailable) {
  // A subscriber with roots still to announce gets them all from the roots
  // walk, also when a new root's arrival runs the pass.
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, 0x28, "/r/a/"), 0);
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/r/", &rec), 0);
  EXPECT_EQ(rec.count(), 0u);
  // Before the idle message is fed, a second root arrives.
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, 0x2C, "/r/b/", "val"), 0);
  auto avail = rec.calls(LOREG_REASON_SERVER_AVAILABLE);
  ASSERT_EQ(avail.size(), 2u);
  EXPECT_EQ(avail[0].item_path, "/r/a/");
  EXPECT_EQ(avail[1].item_path, "/r/b/");
  EXPECT_EQ(avail[1].item_flags, 0x28u);  // the root's flags without the value bit
  EXPECT_TRUE(avail[1].value_null);
  // Then its own delivery of the update, which lies below "/r/".
  auto calls = rec.calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[2].reason, LOREG_REASON_KEY_UPDATE);
  EXPECT_EQ(calls[2].item_path, "/r/b/");
  EXPECT_EQ(calls[2].value, "val");
  // The idle message finds nothing left to announce.
  EXPECT_EQ(f.pump_client(0), 1u);
  EXPECT_EQ(rec.count(), 3u);
}

// --- Removal -------------------------------------------------------------

struct SelfRemover {
  lorc_client *client = nullptr;
  const char *path = nullptr;
  std::atomic<int> calls{0};
  std::atomic<int> rc{1};
  std::atomic<bool> on_client_thread{false};
  static void handler(lorc_client *client, uint32_t, const lorc_key_struct *, int32_t, const lstr *,
                      void *cookie) {
    auto *self = static_cast<SelfRemover *>(cookie);
    if (self->calls.fetch_add(1) == 0) {
      self->on_client_thread = lorc_is_client_thread(client) != 0;
      self->rc = lorc_notification_unregister(client, handler, self->path, self);
    }
  }
};

TEST(LorcSubscrRemoval, UnregisterInsideOwnHandlerReturnsAtOnce) {
  Rig s;
  SelfRemover self;
  self.client = s.c;
  self.path = "/com/norvi/s";
  ASSERT_EQ(s.set("/com/norvi/s", "0"), 0);
  ASSERT_TRUE(s.f.sync());
  ASSERT_EQ(lorc_notification_register(s.c, SelfRemover::handler, self.path, &self), 0);
  // The root's announcement calls it first.
  ASSERT_TRUE(ClientFixture::wait_until([&] { return self.calls.load() >= 1; }));
  ASSERT_TRUE(s.f.sync());
  EXPECT_EQ(self.rc.load(), 0);
  EXPECT_TRUE(self.on_client_thread.load());
  EXPECT_TRUE(s.log.has_line("lorc_subscr_unregister(/com/norvi/s): from comm task, no wait.\n"))
      << s.log.dump();

  ASSERT_EQ(s.set("/com/norvi/s", "1"), 0);
  ASSERT_EQ(s.set("/com/norvi/s", "2"), 0);
  ASSERT_TRUE(s.f.sync());
  EXPECT_EQ(self.calls.load(), 1);
  EXPECT_TRUE(s.log.has_line(
      "lorc_subscr_process(): delete notification for /com/norvi/s, (internal) job=-1\n"))
      << s.log.dump();
  EXPECT_EQ(lorc_notification_unregister(s.c, SelfRemover::handler, self.path, &self), -19);
}

TEST(LorcSubscrRemoval, UnregisterInsideHandlerStopsTheRootsAnnouncement) {
  LogCapture log;
  ClientFixture f;
  testsupport::ServerSetup a, b;
  a.root_path = "/com/norvi/a";
  b.root_path = "/com/norvi/b";
  ASSERT_EQ(f.add_server(a), 0);
  ASSERT_EQ(f.add_server(b), 1);
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  ASSERT_TRUE(f.wait_roots(0, 2));

  // Two valid roots are due for the new subscriber; it leaves at the first.
  SelfRemover self;
  self.client = c;
  self.path = "/com/norvi/";
  ASSERT_EQ(lorc_notification_register(c, SelfRemover::handler, self.path, &self), 0);
  ASSERT_TRUE(ClientFixture::wait_until([&] { return self.calls.load() >= 1; }));
  ASSERT_TRUE(f.sync());
  EXPECT_EQ(self.calls.load(), 1);
  EXPECT_EQ(self.rc.load(), 0);
  EXPECT_TRUE(self.on_client_thread.load());
  // The next pass, run by the next key update, unlinks the node.
  ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/a/k", "1", 1, kSet, 5), 0);
  EXPECT_EQ(self.calls.load(), 1);
  EXPECT_EQ(lorc_notification_unregister(c, SelfRemover::handler, self.path, &self), -19);
}

TEST(LorcSubscrRemoval, ExternalUnregisterReturnsAfterTheNodeIsGone) {
  Rig s;
  NotifyRecorder rec(s.c);
  ASSERT_EQ(lorc_notification_register(s.c, NotifyRecorder::handler, "/com/norvi/e", &rec), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_SERVER_AVAILABLE, 1));
  ASSERT_EQ(s.set("/com/norvi/e", "1"), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_KEY_ADD, 1));
  s.log.clear();

  ASSERT_EQ(lorc_notification_unregister(s.c, NotifyRecorder::handler, "/com/norvi/e", &rec), 0);
  // Both lines are there when the call returns, in this order.
  auto texts = s.log.texts();
  int job = job_of_wait_line(s.log, "/com/norvi/e", -1);
  const std::string wait =
      "lorc_subscr_unregister(/com/norvi/e): from external task, wait for "
      "(internal) job " +
      std::to_string(job) + ".\n";
  size_t wait_at = texts.size(), delete_at = texts.size();
  for (size_t i = 0; i < texts.size(); i++) {
    if (texts[i] == wait) wait_at = i;
  }
  ASSERT_GT(job, 0) << s.log.dump();
  const std::string del =
      "lorc_subscr_process(): delete notification for /com/norvi/e, (internal) job=" +
      std::to_string(job) + "\n";
  for (size_t i = 0; i < texts.size(); i++) {
    if (texts[i] == del) delete_at = i;
  }
  ASSERT_LT(delete_at, texts.size()) << s.log.dump();
  EXPECT_LT(wait_at, delete_at);
  EXPECT_FALSE(s.log.contains("WARNING")) << s.log.dump();

  size_t before = rec.count();
  ASSERT_EQ(s.set("/com/norvi/e", "2"), 0);
  ASSERT_TRUE(s.f.sync());
  EXPECT_EQ(rec.count(), before);
  EXPECT_EQ(lorc_notification_unregister(s.c, NotifyRecorder::handler, "/com/norvi/e", &rec), -19);
}

// A handler that blocks the client thread until the test lets it go.
struct Blocker {
  std::mutex m;
  std::condition_variable cv;
  bool entered = false;
  bool release = false;
  std::atomic<int> calls{0};
  static void handler(lorc_client *, uint32_t reason, const lorc_key_struct *, int32_t,
                      const lstr *, void *cookie) {
    auto *self = static_cast<Blocker *>(cookie);
    if (reason != LOREG_REASON_KEY_ADD && reason != LOREG_REASON_KEY_CHANGE) return;
    self->calls++;
    std::unique_lock<std::mutex> lock(self->m);
    self->entered = true;
    self->cv.notify_all();
    self->cv.wait_for(lock, std::chrono::seconds(10), [&] { return self->release; });
  }
  bool wait_entered() {
    std::unique_lock<std::mutex> lock(m);
    return cv.wait_for(lock, std::chrono::seconds(5), [&] { return entered; });
  }
  void let_go() {
    std::lock_guard<std::mutex> lock(m);
    release = true;
    cv.notify_all();
  }
};

TEST(LorcSubscrRemoval, SecondExternalUnregisterOverwritesTheRemovalJob) {
  auto log = std::make_unique<LogCapture>();
  auto f = std::make_unique<ClientFixture>();
  ASSERT_EQ(f->add_server(), 0);
  ASSERT_EQ(f->add_client(), 0);
  lorc_client *c = f->client();
  ASSERT_TRUE(f->wait_roots(0, 1));
  Blocker blocker;
  const char *path = "/com/norvi/w";
  ASSERT_EQ(lorc_notification_register(c, Blocker::handler, path, &blocker), 0);

  // The handler holds the client thread while the two unregisters come.
  int setJob = lorc_value_set(c, 0, path, "1", 1, kSet, 0);
  ASSERT_GT(setJob, 0);
  ASSERT_TRUE(blocker.wait_entered());

  std::future<int> first, second;
  // On any way out, free the client thread and end both waits before the
  // futures are destroyed (their destructors join the threads).
  struct Cleanup {
    std::function<void()> fn;
    ~Cleanup() { fn(); }
  } cleanup{[&] {
    blocker.let_go();
    if (f) f->stop_client(0);
  }};
  first = std::async(std::launch::async, [&] {
    return lorc_notification_unregister(c, Blocker::handler, path, &blocker);
  });
  int firstJob = -1;
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    firstJob = job_of_wait_line(*log, path, -1);
    return firstJob > 0;
  }));
  second = std::async(std::launch::async, [&] {
    return lorc_notification_unregister(c, Blocker::handler, path, &blocker);
  });
  int secondJob = -1;
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    secondJob = job_of_wait_line(*log, path, firstJob);
    return secondJob > 0;
  }));
  EXPECT_NE(secondJob, firstJob);
  EXPECT_FALSE(finishes_within(first, 0));
  EXPECT_FALSE(finishes_within(second, 0));

  blocker.let_go();
  // The pass after the handler unlinks the node and signals the job stored
  // last: the second waiter returns.
  ASSERT_TRUE(finishes_within(second, 5000));
  EXPECT_EQ(second.get(), 0);
  EXPECT_TRUE(
      log->has_line("lorc_subscr_process(): delete notification for /com/norvi/w, "
                    "(internal) job=" +
                    std::to_string(secondJob) + "\n"))
      << log->dump();
  // The first waiter's job is never signalled: it stays in its wait.
  ASSERT_TRUE(f->sync());
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(finishes_within(first, 0));
  EXPECT_EQ(blocker.calls.load(), 1);
  int32_t value = 0;
  EXPECT_EQ(lorc_job_get_result(c, setJob, &value), 0);
  EXPECT_EQ(value, 0);

  // Shutting the client down destroys the job, which ends the wait.
  ASSERT_EQ(f->stop_client(0), 0);
  ASSERT_TRUE(finishes_within(first, 5000));
  EXPECT_EQ(first.get(), 0);
  EXPECT_FALSE(log->contains("WARNING: failed waiting")) << log->dump();
}

TEST(LorcSubscrRemoval, UnregisterStillWaitingAtShutdownIsReleased) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_server(), 0);
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  ASSERT_TRUE(f.wait_roots(0, 1));
  Blocker blocker;
  const char *path = "/com/norvi/z";
  ASSERT_EQ(lorc_notification_register(c, Blocker::handler, path, &blocker), 0);
  ASSERT_GT(lorc_value_set(c, 0, path, "1", 1, kSet, 0), 0);
  ASSERT_TRUE(blocker.wait_entered());

  std::future<int> waiter, shutdown;
  struct Cleanup {
    std::function<void()> fn;
    ~Cleanup() { fn(); }
  } cleanup{[&] { blocker.let_go(); }};
  waiter = std::async(std::launch::async, [&] {
    return lorc_notification_unregister(c, Blocker::handler, path, &blocker);
  });
  int job = -1;
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    job = job_of_wait_line(log, path, -1);
    return job > 0;
  }));
  // The shutdown raises the stop flag while the handler still runs, so the
  // loop ends before the unsubscriber's wake-up is read: the node is left
  // for the shutdown to delete.
  shutdown = std::async(std::launch::async, [&] { return f.stop_client(0); });
  ASSERT_TRUE(ClientFixture::wait_until(
      [&] { return log.has_line("lorc_shutdown(): wait for message loop task to exit...\n"); }));
  blocker.let_go();
  ASSERT_TRUE(finishes_within(shutdown, 5000));
  EXPECT_EQ(shutdown.get(), 0);
  ASSERT_TRUE(finishes_within(waiter, 5000));
  EXPECT_EQ(waiter.get(), 0);
  EXPECT_TRUE(log.has_line(
      "lorc_subscr_reset_nolock() WARNING: force deleting notification subscription /com/norvi/z, "
      "(internal) job=" +
      std::to_string(job) + "\n"))
      << log.dump();
  EXPECT_TRUE(log.has_line(
      "lorc_subscr_reset_nolock(): delete notification for /com/norvi/z, (internal) job=" +
      std::to_string(job) + "\n"))
      << log.dump();
  EXPECT_FALSE(log.contains("FATAL")) << log.dump();
}

}  // namespace
