// Which thread completes a reply. A reply that reaches an idle client
// thread ("lorcmain" waiting, nothing queued) for a job without callback
// is completed by the replying thread; everything sent to the client
// before it has been handled by then. Replies of callback jobs, and
// replies queued behind other messages, go through the client thread.
// (Key commands to an idle server are also served by the sending thread:
// see lors_idle_request_thread_test.cpp.)
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "loreg/lorc.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/thread_state.h"

using testsupport::ClientFixture;
using testsupport::LogCapture;

namespace {

constexpr uint32_t kPlain = 0x30400;

// Name of the thread that printed the reply line of the job.
std::string reply_thread(const LogCapture &log, int job) {
  std::string line = "lorc_onReply(job=" + std::to_string(job) + ")\n";
  for (const auto &l : log.lines()) {
    if (l.text == line) return testsupport::thread_name(l.tid);
  }
  return "<no reply line>";
}

class IdleReply : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(f.add_server(), 0);
    ASSERT_EQ(f.add_client(), 0);
    ASSERT_TRUE(f.wait_roots(0, 1));
    ASSERT_EQ(lorc_value_set(f.client(), 0, "/com/norvi/k", "v1", 2, kPlain, 5), 0);
    ASSERT_TRUE(f.sync());
    ASSERT_TRUE(testsupport::wait_until_sleeping("lorcmain"));
  }
  ClientFixture f;
};

// The job id that the client's next job gets: ids count up per client.
int next_job_id(lorc_client *client) {
  int job = lorc_job_create_timer(client, 60000, 0, 0);
  EXPECT_GT(job, 0);
  EXPECT_EQ(lorc_job_cancel(client, job), 0);
  EXPECT_TRUE(testsupport::wait_until_sleeping("lorcmain"));
  return job + 1;
}

// Acquiring a transaction id is served by "lorsmain" (no key command),
// and its reply, the only message for the client, then finds the client
// thread idle and completes the job right there.
TEST_F(IdleReply, ReplyFromTheServerThreadIsCompletedThere) {
  LogCapture log;
  int job = next_job_id(f.client());
  int tid = lorc_transid_acquire(f.client(), "/com/norvi/k", 5);
  ASSERT_GT(tid, 0);
  EXPECT_EQ(reply_thread(log, job), "lorsmain");
  EXPECT_EQ(lorc_transid_release(f.client(), "/com/norvi/k", tid, 5), 0);
}

// A value query sent straight to an idle server is served by the calling
// thread, and so is its reply: no other thread runs for it.
TEST_F(IdleReply, SynchronousQueryRunsEntirelyInTheCallingThread) {
  LogCapture log;
  int job = next_job_id(f.client());
  char buffer[16] = {};
  ASSERT_EQ(lorc_value_query(f.client(), 0, "/com/norvi/k", buffer, sizeof buffer, 5), 2);
  EXPECT_STREQ(buffer, "v1");
  std::string line = "lorc_onReply(job=" + std::to_string(job) + ")\n";
  bool found = false;
  for (const auto &l : log.lines()) {
    if (l.text == line) {
      found = true;
      EXPECT_EQ(l.tid, testsupport::current_tid());
    }
  }
  EXPECT_TRUE(found) << log.dump();
}

TEST_F(IdleReply, AsynchronousJobWithoutCallbackIsCollectedAsBefore) {
  char buffer[16] = {};
  int job = lorc_value_query(f.client(), 0, "/com/norvi/k", buffer, sizeof buffer, 0);
  ASSERT_GT(job, 0);
  ASSERT_EQ(lorc_job_wait(f.client(), job, 5), 0);
  int32_t result = 0;
  ASSERT_EQ(lorc_job_get_result(f.client(), job, &result), 0);
  EXPECT_EQ(result, 2);
  EXPECT_STREQ(buffer, "v1");
  EXPECT_EQ(lorc_job_get_result(f.client(), job, &result), -2) << "collected once";
}

TEST_F(IdleReply, CallbackJobIsCompletedOnTheClientThread) {
  struct Seen {
    std::atomic<pid_t> tid{0};
    std::atomic<int> result{0};
  } seen;
  auto callback = [](lorc_client *, int32_t, int32_t, int32_t result, void *cookie) {
    auto *s = static_cast<Seen *>(cookie);
    s->result = result;
    s->tid = testsupport::current_tid();
  };
  int cb = lorc_job_cb_register(f.client(), callback, &seen);
  ASSERT_GT(cb, 0);
  LogCapture log;
  char buffer[16] = {};
  int job = lorc_value_query(f.client(), 0, "/com/norvi/k", buffer, sizeof buffer, -cb);
  ASSERT_GT(job, 0);
  ASSERT_TRUE(ClientFixture::wait_until([&] { return seen.tid.load() != 0; }));
  EXPECT_EQ(seen.result.load(), 2);
  EXPECT_EQ(testsupport::thread_name(seen.tid), "lorcmain");
  EXPECT_EQ(reply_thread(log, job), "lorcmain");
}

// A set's key update comes before its reply: the client thread handles
// both, so the client's own subscriber has seen the update when the
// synchronous set returns.
TEST_F(IdleReply, SubscriberHasSeenTheUpdateWhenASynchronousSetReturns) {
  struct Seen {
    std::atomic<int> updates{0};
    std::atomic<pid_t> tid{0};
  } seen;
  auto handler = [](lorc_client *, uint32_t reason, const lorc_key_struct *, int32_t,
                    const lstr *, void *cookie) {
    auto *s = static_cast<Seen *>(cookie);
    if (reason == 0x5006) {
      s->tid = testsupport::current_tid();
      s->updates++;
    }
  };
  ASSERT_EQ(lorc_notification_register(f.client(), handler, "/com/norvi/k", &seen), 0);
  ASSERT_TRUE(f.sync());
  for (int i = 0; i < 50; i++) {
    LogCapture log;
    std::string value = "v" + std::to_string(i);
    int before = seen.updates.load();
    ASSERT_EQ(lorc_value_set(f.client(), 0, "/com/norvi/k", value.c_str(),
                             static_cast<uint32_t>(value.size()), kPlain, 5),
              0);
    EXPECT_EQ(seen.updates.load(), before + 1) << "round " << i;
  }
  EXPECT_EQ(testsupport::thread_name(seen.tid), "lorcmain");
  EXPECT_EQ(lorc_notification_unregister(f.client(), handler, "/com/norvi/k", &seen), 0);
}

// A sync call whose reply comes while the client thread is busy with a
// handler still completes, through the client thread.
TEST_F(IdleReply, ReplyBehindABusyClientThreadGoesThroughIt) {
  struct Gate {
    std::atomic<bool> entered{false};
    std::atomic<bool> open{false};
  } gate;
  auto handler = [](lorc_client *, uint32_t reason, const lorc_key_struct *, int32_t,
                    const lstr *, void *cookie) {
    auto *g = static_cast<Gate *>(cookie);
    if (reason != 0x5006) return;
    g->entered = true;
    while (!g->open) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  ASSERT_EQ(lorc_notification_register(f.client(), handler, "/com/norvi/k", &gate), 0);
  ASSERT_TRUE(f.sync());
  // Another client's set makes the server broadcast; our client thread
  // then sits in the handler.
  ASSERT_EQ(f.add_client(), 1);
  ASSERT_EQ(lorc_value_set(f.client(1), 0, "/com/norvi/k", "v2", 2, kPlain, 5), 0);
  ASSERT_TRUE(ClientFixture::wait_until([&] { return gate.entered.load(); }));

  LogCapture log;
  std::thread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    gate.open = true;
  });
  char buffer[16] = {};
  int job = lorc_job_create_timer(f.client(), 60000, 0, 0);
  ASSERT_GT(job, 0);
  ASSERT_EQ(lorc_job_cancel(f.client(), job), 0);
  EXPECT_EQ(lorc_value_query(f.client(), 0, "/com/norvi/k", buffer, sizeof buffer, 5), 2);
  opener.join();
  EXPECT_STREQ(buffer, "v2");
  EXPECT_EQ(reply_thread(log, job + 1), "lorcmain");
  EXPECT_EQ(lorc_notification_unregister(f.client(), handler, "/com/norvi/k", &gate), 0);
}

}  // namespace
