// The repository server with its own thread "lorsmain": requests from
// clients on other threads are answered by the loop, several clients may
// send at once, and shutdown stops and joins the thread.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "loreg/loreg_msg.h"
#include "loreg/lors.h"
#include "support/log_capture.h"
#include "support/server_fixture.h"
#include "support/test_allocator.h"
#include "support/thread_state.h"
#include "support/wire_client.h"

namespace {

using testsupport::LogCapture;
using testsupport::ServerFixture;
using testsupport::ServerOptions;
using testsupport::TestAllocator;
using testsupport::WireClient;
using testsupport::WireMessage;

constexpr uint32_t kSetPlain = 0x30400;

// Waits until "lorsmain" has served everything sent so far and sleeps in
// its receive again: an echo round trip, then the thread's state.
bool WaitLoopIdle(ServerFixture &f) {
  if (!f.request(LOREG_MSG_ECHO, 0, 0, 0, "", "")) return false;
  return testsupport::wait_until_sleeping("lorsmain");
}

ServerOptions OwnThread(const loreg_allocator *allocator = nullptr) {
  ServerOptions options;
  options.own_thread = true;
  options.allocator = allocator;
  return options;
}

TEST(LorsServerThread, RequestsGetRepliesFromLorsmain) {
  size_t before = testsupport::count_threads("lorsmain");
  ServerFixture f(OwnThread());
  ASSERT_EQ(f.start(), 0);
  EXPECT_TRUE(testsupport::wait_for_thread_count("lorsmain", before + 1));
  ASSERT_NE(f.server()->lmq.queue, nullptr);

  auto r = f.request(LOREG_MSG_VALUE_SET, kSetPlain, 0, 0, "42", f.full("/a/b"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.msgtype, 0x1002);
  EXPECT_EQ(r->header.result, 0);
  r = f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", f.full("/a/b"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.msgtype, 0x1001);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "42");
  r = f.request(LOREG_MSG_KEY_COUNT, 0xFFFFFFFFu, 0, 0, "", f.full("/a/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.arg0, 1u);
  // The subscription's root key, then the key's addition.
  ASSERT_TRUE(f.client().wait_notifications(2));
  auto notes = f.client().notifications();
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_UPDATE);
  EXPECT_EQ(notes[1].header.arg0, LOREG_REASON_KEY_ADD);
  EXPECT_EQ(notes[1].data1, "/com/norvi/a/b");

  EXPECT_EQ(f.stop(), 0);
  EXPECT_TRUE(testsupport::wait_for_thread_count("lorsmain", before));
}

TEST(LorsServerThread, ShutdownBroadcastsRootDeleteAndJoins) {
  LogCapture log;
  ServerFixture f(OwnThread());
  ASSERT_EQ(f.start(), 0);
  ASSERT_TRUE(f.client().wait_notifications(1));
  // A request that is being served when stop rises ends the loop without
  // the broadcast: let the loop go back to its receive first.
  ASSERT_TRUE(WaitLoopIdle(f));
  f.client().clear();
  EXPECT_EQ(f.stop(), 0);
  f.client().poll();
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u) << log.dump();
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_DELETE);
  EXPECT_EQ(notes[0].header.arg1, KEYF_ROOT | KEYF_DIR);
  EXPECT_EQ(notes[0].data1, "/com/norvi/");
  EXPECT_TRUE(log.has_line_matching(
      "lors_server\\.c:[0-9]+:lors_task_main\\(\\):  LOREG server task thread spawned \\.\\.\\.\n"))
      << log.dump();
  EXPECT_TRUE(log.has_line_matching(
      "lors_server\\.c:[0-9]+:lors_task_main\\(\\):  LOREG server task ends\\.\n"));
  EXPECT_TRUE(log.has_line("lors_shutdown(): wait for message loop task to exit...\n"));
  EXPECT_TRUE(log.has_line("lors_shutdown() ... message task joined. \n"));
  EXPECT_TRUE(log.has_line("lors_shutdown(): done.\n"));
}

// The root timer runs on the loop's own timeout: moving the clock wakes
// the waiting receive, and the broadcast comes without any message.
TEST(LorsServerThread, RootTimerFiresOnTheLoopsTimeout) {
  ServerFixture f(OwnThread());
  ASSERT_EQ(f.start(), 0);
  ASSERT_TRUE(f.client().wait_notifications(1));
  // The timer exists and the loop waits for it in its receive.
  ASSERT_TRUE(WaitLoopIdle(f));
  _cspOsalTime_struct delta = {6, 0};
  cspOsalTestAdvanceUptime(&delta);
  ASSERT_TRUE(f.client().wait_notifications(2));
  auto notes = f.client().notifications();
  EXPECT_EQ(notes[1].header.arg0, LOREG_REASON_KEY_UPDATE);
  EXPECT_EQ(notes[1].data1, "/com/norvi/");
}

// Several client threads, each with its own lmq client, send at once; each
// gets every reply with the right result and value.
TEST(LorsServerThread, SeveralClientsAtOnce) {
  TestAllocator alloc;
  {
    ServerFixture f(OwnThread(alloc.handle()));
    ASSERT_EQ(f.start(), 0);
    constexpr int kThreads = 4;
    constexpr int kRequests = 50;
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([&f, &ok, t] {
        WireClient client(f.lmq(), false);
        const std::string dir = "/com/norvi/t" + std::to_string(t) + "/";
        uint32_t reqid = static_cast<uint32_t>(t) * 1000u;
        for (int i = 0; i < kRequests; i++) {
          const std::string path = dir + "k" + std::to_string(i);
          const std::string value = std::to_string(t * 100000 + i);
          ++reqid;
          EXPECT_EQ(client.send(LOREG_MSG_VALUE_SET, reqid, kSetPlain, 0, 0, value, path), 0);
          auto set = client.wait_reply(reqid);
          if (!set || set->header.result != 0 || set->header.msgtype != 0x1002) continue;
          ++reqid;
          EXPECT_EQ(client.send(LOREG_MSG_VALUE_QUERY, reqid, 0, 0, 0, "", path), 0);
          auto get = client.wait_reply(reqid);
          if (get && get->header.result == 0 && get->data0 == value) ok++;
        }
        ++reqid;
        EXPECT_EQ(client.send(LOREG_MSG_KEY_COUNT, reqid, 0xFFFFFFFFu, 0, 0, "", dir), 0);
        auto count = client.wait_reply(reqid);
        EXPECT_TRUE(count);
        if (count) {
          EXPECT_EQ(count->header.arg0, static_cast<uint32_t>(kRequests));
        }
      });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(ok.load(), kThreads * kRequests);
    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// Requests keep coming while the server is shut down: the loop ends after
// the message in hand, the rest is discarded, and nothing is leaked.
TEST(LorsServerThread, ShutdownWhileClientsSend) {
  TestAllocator alloc;
  {
    ServerFixture f(OwnThread(alloc.handle()));
    ASSERT_EQ(f.start(), 0);
    std::atomic<bool> done{false};
    std::thread sender([&f, &done] {
      WireClient client(f.lmq(), false);
      uint32_t reqid = 0;
      while (!done.load()) {
        ++reqid;
        client.send(LOREG_MSG_VALUE_SET, reqid, kSetPlain, 0, 0, "v",
                    "/com/norvi/s/k" + std::to_string(reqid % 20));
        client.poll();
        client.clear();
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(f.stop(), 0);
    done = true;
    sender.join();
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

}  // namespace

// A path as deep as one message can carry, served by "lorsmain" on its
// small stack: the transaction start scans the subtree, the store writes
// it, the delete frees it, the trigger walks it. None of them may need
// stack per level.
TEST(LorsServerThread, DeepestPathOfOneMessageIsServed) {
  LogCapture log;
  ServerFixture f(OwnThread());
  ASSERT_EQ(f.start(), 0);
  const int kLevels = 4000;
  std::string deepest = f.full("");
  for (int i = 0; i < kLevels; i++) deepest += "/a";
  deepest += "/v";
  ASSERT_LT(deepest.size(), 8191u - 62u);

  auto r = f.request(LOREG_MSG_VALUE_SET, kSetPlain, 0, 0, "1", deepest);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);

  // The trigger serves the top of the chain, down to its deepest level.
  f.client().clear();
  f.send(LOREG_MSG_KEY_UPDATE_TRIGGER, 0xFFFFFFFFu, 99, 0, "", f.full("/a/"));
  ASSERT_TRUE(WaitLoopIdle(f));
  f.client().poll();
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 100u);
  EXPECT_EQ(notes.back().data1.size(), f.full("").size() + 1 + 2 * 100);

  r = f.request(LOREG_MSG_TA_START, 0, 0, 0, "", f.full("/a/"));
  ASSERT_TRUE(r);
  ASSERT_EQ(r->header.result, 0);
  int32_t tid = r->header.tid;
  // Another transaction on the bottom key must wait for the one above.
  r = f.request(LOREG_MSG_TA_START, 0, 0, 0, "", deepest);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  r = f.request(LOREG_MSG_TA_END, 0, 0, tid, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);

  r = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line("Export (Repository store cmd): used '" + f.file1() + "', " +
                           std::to_string(kLevels + 2) + " of " + std::to_string(kLevels + 2) +
                           " keys changed, commit_count=1\n"))
      << log.dump();

  r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/a/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line("lors_onKeyDelete(reqid=" + std::to_string(f.last_reqid()) +
                           " tid=0) dirty=caused " + std::to_string(kLevels + 1) +
                           " nodes deleted, path='/a/'\n"))
      << log.dump();
  r = f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", deepest);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -2);

  // The file holds the whole chain: a new server reads it back.
  ASSERT_EQ(f.restart(), 0);
  r = f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", deepest);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "1");
}

