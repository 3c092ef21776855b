// The repository server's transaction scheduler, through real messages.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "loreg/lors.h"
#include "loreg/lors_commit.h"
#include "loreg/lors_tas.h"
#include "support/log_capture.h"
#include "support/server_fixture.h"
#include "support/test_allocator.h"

namespace {

using testsupport::LogCapture;
using testsupport::ServerFixture;
using testsupport::ServerOptions;
using testsupport::TestAllocator;
using testsupport::WireMessage;

constexpr uint16_t kStart = LOREG_MSG_TA_START;             // 0x0006
constexpr uint16_t kTimedStart = LOREG_MSG_TA_START_TIMED;  // 0x000C
constexpr uint32_t kDefaultDuration = 240000;

size_t QueueLength(const lors_tas_queue *queue) {
  size_t n = 0;
  const lors_tas *tas;
  TAILQ_FOREACH(tas, queue, link) n++;
  return n;
}

std::vector<int32_t> QueueTids(const lors_tas_queue *queue) {
  std::vector<int32_t> out;
  const lors_tas *tas;
  TAILQ_FOREACH(tas, queue, link) out.push_back(tas->tid);
  return out;
}

bool IsReply(const WireMessage &m) {
  return !m.system && (m.header.msgtype & LOREG_MSG_CLASS_MASK) == LOREG_MSG_REPLY_BIT;
}

// Replies kept by the client, in arrival order.
std::vector<WireMessage> Replies(ServerFixture &f) {
  std::vector<WireMessage> out;
  for (const auto &m : f.client().messages()) {
    if (IsReply(m)) out.push_back(m);
  }
  return out;
}

// Key update notifications with the given reason, in arrival order.
std::vector<WireMessage> Notes(ServerFixture &f, uint32_t reason) {
  std::vector<WireMessage> out;
  for (const auto &m : f.client().notifications()) {
    if (m.header.arg0 == reason) out.push_back(m);
  }
  return out;
}

// Transaction start and end notifications, in arrival order (the root key
// broadcast of the server's root timer is left out).
std::vector<WireMessage> TaNotes(ServerFixture &f) {
  std::vector<WireMessage> out;
  for (const auto &m : f.client().notifications()) {
    if (m.header.arg0 == LOREG_REASON_TA_START || m.header.arg0 == LOREG_REASON_TA_END)
      out.push_back(m);
  }
  return out;
}

class TasTest : public ::testing::Test {
 protected:
  explicit TasTest(ServerOptions options = ServerOptions()) : f(options) {}

  void SetUp() override {
    ASSERT_EQ(f.start(), 0);
    f.client().clear();
  }

  lors_ctx *server() { return f.server(); }

  // Makes a key (and the directories above it).
  void Make(const std::string &relative) {
    auto r = f.set(relative, "v");
    ASSERT_TRUE(r);
    ASSERT_EQ(r->header.result, 0);
  }

  std::optional<WireMessage> Start(const std::string &relative, uint32_t wait_ms = 0,
                                   uint32_t duration_ms = 0, uint16_t type = kTimedStart) {
    return f.request(type, wait_ms, duration_ms, 0, "", f.full(relative));
  }

  // Starts a transaction that must become active at once; returns its tid.
  int32_t StartActive(const std::string &relative, uint32_t duration_ms = 0) {
    auto r = Start(relative, 0, duration_ms);
    EXPECT_TRUE(r);
    if (!r) return 0;
    EXPECT_EQ(r->header.result, 0) << testsupport::describe(*r);
    EXPECT_GT(r->header.tid, 0);
    return r->header.tid;
  }

  // Sends a start that has to wait: no reply may come. Returns the reqid.
  uint32_t StartWaiting(const std::string &relative, uint32_t wait_ms) {
    uint32_t reqid = f.send(kTimedStart, wait_ms, 0, 0, "", f.full(relative));
    f.pump();
    EXPECT_FALSE(f.client().take_reply(reqid)) << "a waiter got an early reply";
    return reqid;
  }

  std::optional<WireMessage> End(int32_t tid) {
    return f.request(LOREG_MSG_TA_END, 0, 0, tid, "", "");
  }

  ServerFixture f;
};

// --- Start ---------------------------------------------------------------

TEST_F(TasTest, StartOnMissingKeyRepliesENOENTAtOnceAndCreatesNothing) {
  Make("/a/b");
  f.client().clear();

  auto r = Start("/a/missing", 5000, 0);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.msgtype, 0x100C);
  EXPECT_EQ(r->header.reqid, f.last_reqid());
  EXPECT_EQ(r->header.result, -2);
  EXPECT_EQ(r->header.tid, 0);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  EXPECT_TRUE(f.client().notifications().empty());
  EXPECT_EQ(QueueLength(&server()->active_q), 0u);
  EXPECT_EQ(QueueLength(&server()->wait_q), 0u);

  // Neither the key nor a directory on the way was made.
  auto q = f.get("/a/missing");
  ASSERT_TRUE(q);
  EXPECT_EQ(q->header.result, -2);
  auto r2 = Start("/nodir/key");
  ASSERT_TRUE(r2);
  EXPECT_EQ(r2->header.result, -2);
  auto count = f.request(LOREG_MSG_KEY_COUNT, 0xFFFFFFFFu, 0, 0, "", f.full("/"));
  ASSERT_TRUE(count);
  EXPECT_EQ(count->header.result, 0);
  EXPECT_EQ(count->header.arg0, 1u);  // "a/" alone
}

TEST_F(TasTest, StartReplyAndBroadcastCarryTheLockedKey) {
  Make("/a/b");
  f.client().clear();

  auto r = Start("/a/", 0, 5000);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.msgtype, 0x100C);
  EXPECT_EQ(r->header.reqid, f.last_reqid());
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.tid, 1);
  EXPECT_EQ(r->header.arg0, 0u);
  EXPECT_EQ(r->header.arg1, 5000u);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);

  auto starts = Notes(f, LOREG_REASON_TA_START);
  ASSERT_EQ(starts.size(), 1u);
  EXPECT_EQ(starts[0].header.tid, 1);
  EXPECT_EQ(starts[0].header.arg1, KEYF_DIR | KEYF_LOCKED);
  EXPECT_EQ(starts[0].header.result, 0);
  EXPECT_EQ(starts[0].data1, "/com/norvi/a/");
  EXPECT_EQ(starts[0].data0, "");

  // The key is locked: both links and the flag.
  lors_tas *tas = lors_tas_findActive(server(), 1);
  ASSERT_NE(tas, nullptr);
  ASSERT_NE(tas->node, nullptr);
  EXPECT_EQ(tas->node->owner, tas);
  EXPECT_NE(tas->node->flags & KEYF_LOCKED, 0u);
  EXPECT_EQ(std::string(tas->path.ptr, tas->path.len), "/a/");
  EXPECT_EQ(tas->queue, &server()->active_q);
  EXPECT_EQ(tas->wait_tid, 0);
  EXPECT_GT(tas->timer, 0);
  EXPECT_EQ(tas->request.msgtype, 0x100C);

  // A reader passes the lock only with tid -1.
  auto locked = f.get("/a/b", 0);
  ASSERT_TRUE(locked);
  EXPECT_EQ(locked->header.result, -13);
  auto reader = f.get("/a/b", -1);
  ASSERT_TRUE(reader);
  EXPECT_EQ(reader->header.result, 0);
  auto own = f.get("/a/b", 1);
  ASSERT_TRUE(own);
  EXPECT_EQ(own->header.result, 0);
}

TEST_F(TasTest, StartWithBrokenPathGetsNoReply) {
  Make("/a/b");
  f.client().clear();
  uint32_t reqid = f.send(kTimedStart, 0, 0, 0, "", "/com/other/a/");
  f.pump();
  EXPECT_FALSE(f.client().take_reply(reqid));
  reqid = f.send(kStart, 0, 0, 0, "", "/com/norvi");
  f.pump();
  EXPECT_FALSE(f.client().take_reply(reqid));
  reqid = f.send(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", "/com/norvi");
  f.pump();
  EXPECT_FALSE(f.client().take_reply(reqid));
  EXPECT_TRUE(f.client().messages().empty());
  EXPECT_EQ(server()->last_tid, 0);
}

TEST_F(TasTest, ConflictBelowMustWait) {
  Make("/a/b");
  int32_t t1 = StartActive("/a/b");
  f.client().clear();

  uint32_t waiter = StartWaiting("/a/", 5000);
  EXPECT_EQ(QueueTids(&server()->wait_q), std::vector<int32_t>({2}));
  EXPECT_EQ(TAILQ_FIRST(&server()->wait_q)->wait_tid, t1);
  EXPECT_TRUE(Notes(f, LOREG_REASON_TA_START).empty());

  uint32_t end_reqid = f.send(LOREG_MSG_TA_END, 0, 0, t1, "", "");
  f.pump();
  auto replies = Replies(f);
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(replies[0].header.reqid, waiter);
  EXPECT_EQ(replies[0].header.msgtype, 0x100C);
  EXPECT_EQ(replies[0].header.result, 0);
  EXPECT_EQ(replies[0].header.tid, 2);
  EXPECT_EQ(replies[0].header.arg0, 5000u);
  EXPECT_EQ(replies[0].header.arg1, kDefaultDuration);
  EXPECT_EQ(replies[1].header.reqid, end_reqid);
  EXPECT_EQ(replies[1].header.msgtype, 0x1007);
  EXPECT_EQ(replies[1].header.result, 0);
  EXPECT_EQ(replies[1].header.tid, t1);
  EXPECT_EQ(replies[1].header.len0, 0);
  EXPECT_EQ(replies[1].header.len1, 0);

  auto notes = TaNotes(f);
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_TA_END);
  EXPECT_EQ(notes[0].header.tid, t1);
  EXPECT_EQ(notes[0].data1, "/com/norvi/a/b");
  EXPECT_EQ(notes[0].data0, "v");
  EXPECT_EQ(notes[1].header.arg0, LOREG_REASON_TA_START);
  EXPECT_EQ(notes[1].header.tid, 2);
  EXPECT_EQ(notes[1].data1, "/com/norvi/a/");
  EXPECT_EQ(QueueTids(&server()->active_q), std::vector<int32_t>({2}));
  EXPECT_EQ(QueueLength(&server()->wait_q), 0u);
}

TEST_F(TasTest, ConflictAboveMustWaitAndDisjointStartsAtOnce) {
  Make("/a/b/c");
  Make("/x/y");
  int32_t t1 = StartActive("/a/");
  f.client().clear();

  uint32_t waiter = StartWaiting("/a/b/c", 5000);
  ASSERT_EQ(QueueLength(&server()->wait_q), 1u);
  EXPECT_EQ(TAILQ_FIRST(&server()->wait_q)->wait_tid, t1);

  auto disjoint = Start("/x/");
  ASSERT_TRUE(disjoint);
  EXPECT_EQ(disjoint->header.result, 0);
  EXPECT_EQ(disjoint->header.tid, 3);
  EXPECT_EQ(QueueTids(&server()->active_q), std::vector<int32_t>({3, 1}));

  // A fixed-default start never waits: the conflict is refused at once.
  auto refused = Start("/a/b/", 5000, 5000, kStart);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->header.msgtype, 0x1006);
  EXPECT_EQ(refused->header.result, -13);
  EXPECT_EQ(refused->header.tid, 0);
  EXPECT_EQ(refused->header.arg0, 0u);
  EXPECT_EQ(refused->header.arg1, kDefaultDuration);
  auto refused_timed = Start("/a/", 0, 0);
  ASSERT_TRUE(refused_timed);
  EXPECT_EQ(refused_timed->header.result, -13);
  EXPECT_EQ(QueueLength(&server()->wait_q), 1u);

  auto end = End(t1);
  ASSERT_TRUE(end);
  EXPECT_EQ(end->header.result, 0);
  auto started = f.client().take_reply(waiter);
  ASSERT_TRUE(started);
  EXPECT_EQ(started->header.result, 0);
  EXPECT_EQ(started->header.tid, 2);
}

TEST_F(TasTest, ThreeWaitersStartNewestFirstBeforeTheEndReply) {
  Make("/x/k");
  Make("/y/k");
  Make("/z/k");
  int32_t t1 = StartActive("/");
  f.client().clear();

  uint32_t wx = StartWaiting("/x/", 5000);
  uint32_t wy = StartWaiting("/y/", 5000);
  uint32_t wz = StartWaiting("/z/", 5000);
  EXPECT_EQ(QueueTids(&server()->wait_q), std::vector<int32_t>({4, 3, 2}));

  LogCapture log;
  uint32_t end_reqid = f.send(LOREG_MSG_TA_END, 0, 0, t1, "", "");
  f.pump();

  auto replies = Replies(f);
  ASSERT_EQ(replies.size(), 4u);
  EXPECT_EQ(replies[0].header.reqid, wz);
  EXPECT_EQ(replies[0].header.tid, 4);
  EXPECT_EQ(replies[1].header.reqid, wy);
  EXPECT_EQ(replies[1].header.tid, 3);
  EXPECT_EQ(replies[2].header.reqid, wx);
  EXPECT_EQ(replies[2].header.tid, 2);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(replies[i].header.msgtype, 0x100C);
    EXPECT_EQ(replies[i].header.result, 0);
  }
  EXPECT_EQ(replies[3].header.reqid, end_reqid);
  EXPECT_EQ(replies[3].header.msgtype, 0x1007);

  auto starts = Notes(f, LOREG_REASON_TA_START);
  ASSERT_EQ(starts.size(), 3u);
  EXPECT_EQ(starts[0].data1, "/com/norvi/z/");
  EXPECT_EQ(starts[1].data1, "/com/norvi/y/");
  EXPECT_EQ(starts[2].data1, "/com/norvi/x/");
  auto ends = Notes(f, LOREG_REASON_TA_END);
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].data1, "/com/norvi/");
  EXPECT_EQ(ends[0].header.arg1, KEYF_ROOT | KEYF_DIR | KEYF_LOCKED);

  EXPECT_TRUE(log.has_line("lors_tas_handleEnd(): started tid 4 '/z/' after tid 1 ended\n"))
      << log.dump();
  EXPECT_TRUE(log.has_line("lors_tas_handleEnd(): started tid 3 '/y/' after tid 1 ended\n"));
  EXPECT_TRUE(log.has_line("lors_tas_handleEnd(): started tid 2 '/x/' after tid 1 ended\n"));
  EXPECT_EQ(QueueTids(&server()->active_q), std::vector<int32_t>({2, 3, 4}));
  EXPECT_EQ(QueueLength(&server()->wait_q), 0u);
}

TEST_F(TasTest, OverlappingWaitersOfOneTidTheLaterGetsItTheEarlierWaitsOn) {
  Make("/a/b/c");
  int32_t t1 = StartActive("/a/");
  uint32_t early = StartWaiting("/a/b/", 3000);  // tid 2
  uint32_t late = StartWaiting("/a/b/c", 5000);  // tid 3
  f.client().clear();

  LogCapture log;
  f.advance_ms(1000);
  auto end = End(t1);
  ASSERT_TRUE(end);
  auto started = f.client().take_reply(late);
  ASSERT_TRUE(started);
  EXPECT_EQ(started->header.result, 0);
  EXPECT_EQ(started->header.tid, 3);
  EXPECT_FALSE(f.client().take_reply(early));
  EXPECT_TRUE(
      log.has_line("lors_tas_handleEnd(): tid 2 '/a/b/' now waits on tid 3 after tid 1 ended\n"))
      << log.dump();
  ASSERT_EQ(QueueLength(&server()->wait_q), 1u);
  EXPECT_EQ(TAILQ_FIRST(&server()->wait_q)->wait_tid, 3);

  // The waiting time runs from the request, not from the new wait.
  f.advance_ms(1900);
  EXPECT_FALSE(f.client().take_reply(early));
  f.advance_ms(100);
  auto timed_out = f.client().take_reply(early);
  ASSERT_TRUE(timed_out);
  EXPECT_EQ(timed_out->header.result, -13);
  EXPECT_EQ(timed_out->header.tid, 0);
  EXPECT_TRUE(
      log.has_line("lors_tas_onTimer(): timeout for tid 2 '/a/b/' while waiting for tid 3\n"));
  EXPECT_EQ(QueueLength(&server()->wait_q), 0u);
}

TEST_F(TasTest, WaitingStartTimesOutWithEACCESAfterItsWaitingTime) {
  Make("/a/b");
  int32_t t1 = StartActive("/a/");
  f.client().clear();

  LogCapture log;
  uint32_t waiter = StartWaiting("/a/b", 100);
  ASSERT_EQ(QueueLength(&server()->wait_q), 1u);
  f.advance_ms(80);
  EXPECT_FALSE(f.client().take_reply(waiter));
  f.advance_ms(20);
  auto r = f.client().take_reply(waiter);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.msgtype, 0x100C);
  EXPECT_EQ(r->header.result, -13);
  EXPECT_EQ(r->header.tid, 0);
  EXPECT_EQ(r->header.arg0, 100u);
  EXPECT_EQ(r->header.arg1, kDefaultDuration);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  EXPECT_TRUE(log.has_line("lors_tas_onTimer(): timeout for tid 2 '/a/b' while waiting for tid 1\n"))
      << log.dump();
  EXPECT_EQ(QueueLength(&server()->wait_q), 0u);

  // The end of the awaited transaction finds no waiter any more.
  f.client().clear();
  auto end = End(t1);
  ASSERT_TRUE(end);
  EXPECT_EQ(Replies(f).size(), 0u);
  EXPECT_TRUE(Notes(f, LOREG_REASON_TA_START).empty());
}

// --- Durations -------------------------------------------------------------

TEST_F(TasTest, TimedStartWithoutDurationGetsTheDefaultLimit) {
  Make("/a/b");
  auto r = Start("/a/", 0, 0);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg1, kDefaultDuration);
  int32_t tid = r->header.tid;
  f.client().clear();

  f.advance_ms(kDefaultDuration - 100);
  EXPECT_TRUE(Notes(f, LOREG_REASON_TA_END).empty());
  EXPECT_NE(lors_tas_findActive(server(), tid), nullptr);
  f.advance_ms(100);
  auto ends = Notes(f, LOREG_REASON_TA_END);
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].header.tid, tid);
  EXPECT_EQ(lors_tas_findActive(server(), tid), nullptr);
}

TEST_F(TasTest, FixedDefaultStartIgnoresItsArguments) {
  Make("/a/b");
  auto r = Start("/a/", 7, 1000, kStart);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.msgtype, 0x1006);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg0, 0u);
  EXPECT_EQ(r->header.arg1, kDefaultDuration);
  int32_t tid = r->header.tid;
  f.client().clear();

  f.advance_ms(1000);
  EXPECT_TRUE(Notes(f, LOREG_REASON_TA_END).empty());
  f.advance_ms(kDefaultDuration - 1000 - 100);
  EXPECT_TRUE(Notes(f, LOREG_REASON_TA_END).empty());
  EXPECT_NE(lors_tas_findActive(server(), tid), nullptr);
  f.advance_ms(100);
  EXPECT_EQ(Notes(f, LOREG_REASON_TA_END).size(), 1u);
  EXPECT_EQ(lors_tas_findActive(server(), tid), nullptr);
}

TEST_F(TasTest, OverItsLimitATransactionEndsByForceAndWaitersStart) {
  Make("/a/b");
  auto r = Start("/a/", 0, 1000);
  ASSERT_TRUE(r);
  int32_t t1 = r->header.tid;
  uint32_t waiter = StartWaiting("/a/b", 5000);
  f.client().clear();

  LogCapture log;
  f.advance_ms(900);
  EXPECT_TRUE(TaNotes(f).empty());
  f.advance_ms(100);
  EXPECT_TRUE(log.has_line("lors_tas_onTimer(): transaction 1, path='/a/': forced termination.\n"))
      << log.dump();
  auto notes = TaNotes(f);
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_TA_END);
  EXPECT_EQ(notes[0].header.tid, t1);
  EXPECT_EQ(notes[0].data1, "/com/norvi/a/");
  EXPECT_EQ(notes[1].header.arg0, LOREG_REASON_TA_START);
  EXPECT_EQ(notes[1].header.tid, 2);
  auto started = f.client().take_reply(waiter);
  ASSERT_TRUE(started);
  EXPECT_EQ(started->header.result, 0);
  EXPECT_EQ(started->header.tid, 2);
  EXPECT_TRUE(log.has_line("lors_tas_handleEnd(): started tid 2 '/a/b' after tid 1 ended\n"));
  // The forced end sends the client nothing of its own.
  EXPECT_EQ(Replies(f).size(), 0u);

  // Its later end request finds nothing and gets no reply.
  f.client().clear();
  uint32_t reqid = f.send(LOREG_MSG_TA_END, 0, 0, t1, "", "");
  f.pump();
  EXPECT_FALSE(f.client().take_reply(reqid));
  EXPECT_TRUE(f.client().messages().empty());

  // The successor's duration timer is its former waiting timer, now re-armed
  // for the full default limit from its start.
  lors_tas *successor = lors_tas_findActive(server(), 2);
  ASSERT_NE(successor, nullptr);
  tmrq_info info{};
  ASSERT_GE(tmrq_TimerGet(server()->timers, successor->timer, &info), 0);
  EXPECT_EQ(info.inactive, 0);
  EXPECT_EQ(info.period.sec, 0);
  EXPECT_EQ(info.period.usec, 0);
  f.advance_ms(5000);
  EXPECT_NE(lors_tas_findActive(server(), 2), nullptr);
}

// --- End, acquire, release -------------------------------------------------

TEST_F(TasTest, EndOfUnknownOrAcquiredTidGetsNoReply) {
  Make("/a/b");
  auto acquired = f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/a/"));
  ASSERT_TRUE(acquired);
  int32_t acquired_tid = acquired->header.tid;
  f.client().clear();

  for (int32_t tid : {999, 0, -1, acquired_tid}) {
    uint32_t reqid = f.send(LOREG_MSG_TA_END, 0, 0, tid, "", "");
    f.pump();
    EXPECT_FALSE(f.client().take_reply(reqid)) << "tid " << tid;
  }
  EXPECT_TRUE(f.client().messages().empty());
  // Only active_q was searched: the acquired id is still there.
  lors_tas *still = lors_tas_findAcquired(server(), acquired_tid);
  ASSERT_NE(still, nullptr);
  EXPECT_EQ(still->queue, &server()->acquired_q);
}

TEST_F(TasTest, AcquireAndRelease) {
  auto r = f.request(LOREG_MSG_TID_ACQUIRE, 3, 4, 77, "", f.full("/no/such/key"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.msgtype, 0x100D);
  EXPECT_EQ(r->header.reqid, f.last_reqid());
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.tid, 1);
  EXPECT_EQ(r->header.arg0, 3u);
  EXPECT_EQ(r->header.arg1, 4u);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  // No key made, no lock, no timer, no broadcast.
  EXPECT_TRUE(f.client().notifications().empty());
  auto q = f.request(LOREG_MSG_KEY_COUNT, 0xFFFFFFFFu, 0, 0, "", f.full("/"));
  ASSERT_TRUE(q);
  EXPECT_EQ(q->header.arg0, 0u);
  lors_tas *tas = lors_tas_findAcquired(server(), 1);
  ASSERT_NE(tas, nullptr);
  EXPECT_EQ(tas->queue, &server()->acquired_q);
  EXPECT_EQ(tas->node, nullptr);
  EXPECT_EQ(tas->timer, 0);

  auto second = f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/x"));
  ASSERT_TRUE(second);
  EXPECT_EQ(second->header.tid, 2);
  EXPECT_EQ(QueueTids(&server()->acquired_q), std::vector<int32_t>({2, 1}));

  auto rel = f.request(LOREG_MSG_TID_RELEASE, 0, 0, 1, "", "");
  ASSERT_TRUE(rel);
  EXPECT_EQ(rel->header.msgtype, 0x100E);
  EXPECT_EQ(rel->header.result, 0);
  EXPECT_EQ(rel->header.tid, 1);
  EXPECT_EQ(rel->header.len0, 0);
  EXPECT_EQ(rel->header.len1, 0);
  EXPECT_EQ(QueueTids(&server()->acquired_q), std::vector<int32_t>({2}));
  auto again = f.request(LOREG_MSG_TID_RELEASE, 0, 0, 1, "", "");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->header.result, -2);
}

TEST_F(TasTest, ReleaseOfAnActiveTidRepliesENOENT) {
  Make("/a/b");
  int32_t t1 = StartActive("/a/");
  auto rel = f.request(LOREG_MSG_TID_RELEASE, 0, 0, t1, "", "");
  ASSERT_TRUE(rel);
  EXPECT_EQ(rel->header.msgtype, 0x100E);
  EXPECT_EQ(rel->header.result, -2);
  EXPECT_NE(lors_tas_findActive(server(), t1), nullptr);
}

TEST_F(TasTest, AcquiredIdsPassFreeKeysButNotAnotherTransactionsLock) {
  Make("/free/k");
  Make("/locked/k");
  auto acquired = f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/free/"));
  ASSERT_TRUE(acquired);
  int32_t mine = acquired->header.tid;
  int32_t other = StartActive("/locked/");
  f.client().clear();

  auto ok = f.set("/free/k", "new", 0x30400, mine);
  ASSERT_TRUE(ok);
  EXPECT_EQ(ok->header.result, 0);
  auto changes = Notes(f, LOREG_REASON_KEY_CHANGE);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].header.tid, mine);

  auto blocked = f.set("/locked/k", "new", 0x30400, mine);
  ASSERT_TRUE(blocked);
  EXPECT_EQ(blocked->header.result, -13);

  // A tid that is neither acquired nor holding the lock passes nothing.
  auto unknown = f.set("/free/k", "x", 0x30400, 4242);
  ASSERT_TRUE(unknown);
  EXPECT_EQ(unknown->header.result, -13);
  // An active tid passes its own subtree only.
  auto inside = f.set("/locked/k", "y", 0x30400, other);
  ASSERT_TRUE(inside);
  EXPECT_EQ(inside->header.result, 0);
  auto outside = f.set("/free/k", "y", 0x30400, other);
  ASSERT_TRUE(outside);
  EXPECT_EQ(outside->header.result, -13);
}

TEST_F(TasTest, StoreIsRefusedWhileATransactionIsActive) {
  Make("/a/b");
  auto acquired = f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/a/"));
  ASSERT_TRUE(acquired);
  int32_t t1 = StartActive("/a/");

  auto refused = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->header.msgtype, 0x1008);
  EXPECT_EQ(refused->header.result, -13);
  EXPECT_NE(server()->dirty, 0);

  ASSERT_TRUE(End(t1));
  // Acquired ids don't block a store.
  auto stored = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->header.result, 0);
  EXPECT_EQ(server()->dirty, 0);
}

TEST_F(TasTest, DeletingTheLockedKeyLeavesTheTransactionActiveWithoutNode) {
  Make("/a/b");
  int32_t t1 = StartActive("/a/");
  auto del = f.request(LOREG_MSG_KEY_DELETE, 0, 0, t1, "", f.full("/a/"));
  ASSERT_TRUE(del);
  EXPECT_EQ(del->header.result, 0);

  lors_tas *tas = lors_tas_findActive(server(), t1);
  ASSERT_NE(tas, nullptr);
  EXPECT_EQ(tas->node, nullptr);
  f.client().clear();

  auto end = End(t1);
  ASSERT_TRUE(end);
  EXPECT_EQ(end->header.result, 0);
  auto ends = Notes(f, LOREG_REASON_TA_END);
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].header.tid, t1);
  EXPECT_EQ(ends[0].header.arg1, 0u);
  EXPECT_EQ(ends[0].header.len0, 0);
  EXPECT_EQ(ends[0].data0, "");
  EXPECT_EQ(ends[0].data1, "/com/norvi/a/");
  EXPECT_EQ(QueueLength(&server()->active_q), 0u);
}

TEST_F(TasTest, RemoveFromTheWrongQueueLogsAndRemovesFromTheNodesQueue) {
  auto acquired = f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/a"));
  ASSERT_TRUE(acquired);
  lors_tas *tas = lors_tas_findAcquired(server(), acquired->header.tid);
  ASSERT_NE(tas, nullptr);

  LogCapture log;
  lors_ta_remove(&server()->active_q, tas);
  char expected[160];
  std::snprintf(expected, sizeof(expected),
                "lors_ta_remove(): attempt to remove from wrong queue %p; node is in %p\n",
                static_cast<void *>(&server()->active_q),
                static_cast<void *>(&server()->acquired_q));
  EXPECT_TRUE(log.has_line(expected)) << log.dump();
  EXPECT_EQ(tas->queue, nullptr);
  EXPECT_EQ(QueueLength(&server()->acquired_q), 0u);
  lors_tas_delete(server(), tas);
}

TEST_F(TasTest, UnknownTimerIdIsIgnored) {
  Make("/a/b");
  int32_t t1 = StartActive("/a/");
  f.client().clear();
  LogCapture log;
  lors_tas_onTimer(server(), 987654);
  lors_tas_onTimer(server(), 0);
  lors_tas_onTimer(server(), -1);
  f.pump();
  EXPECT_TRUE(f.client().messages().empty());
  EXPECT_EQ(log.count("lors_tas_onTimer"), 0u);
  EXPECT_NE(lors_tas_findActive(server(), t1), nullptr);
}

// --- Memory --------------------------------------------------------------

class TasAllocTest : public ::testing::Test {
 protected:
  static ServerOptions WithAllocator(TestAllocator &alloc) {
    ServerOptions o;
    o.allocator = alloc.handle();
    return o;
  }
  TestAllocator alloc;
};

TEST_F(TasAllocTest, WaiterWhoseKeyWentAwayGetsTheErrorAndIsFreedAtShutdown) {
  {
    ServerFixture f(WithAllocator(alloc));
    ASSERT_EQ(f.start(), 0);
    ASSERT_EQ(f.set("/a/b", "v")->header.result, 0);
    auto r = f.request(kTimedStart, 0, 0, 0, "", f.full("/a/"));
    ASSERT_TRUE(r);
    int32_t t1 = r->header.tid;
    uint32_t waiter = f.send(kTimedStart, 5000, 0, 0, "", f.full("/a/b"));
    f.pump();
    EXPECT_FALSE(f.client().take_reply(waiter));

    // The holder deletes the waiter's key under its own lock.
    auto del = f.request(LOREG_MSG_KEY_DELETE, 0, 0, t1, "", f.full("/a/b"));
    ASSERT_TRUE(del);
    EXPECT_EQ(del->header.result, 0);
    f.client().clear();

    LogCapture log;
    uint32_t end_reqid = f.send(LOREG_MSG_TA_END, 0, 0, t1, "", "");
    f.pump();
    auto replies = Replies(f);
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0].header.reqid, waiter);
    EXPECT_EQ(replies[0].header.msgtype, 0x100C);
    EXPECT_EQ(replies[0].header.result, -2);
    EXPECT_EQ(replies[0].header.tid, 0);
    EXPECT_EQ(replies[1].header.reqid, end_reqid);
    EXPECT_TRUE(log.has_line("lors_tas_handleEnd(): error -2 starting tid 2 '/a/b' after tid 1 ended\n"))
        << log.dump();
    EXPECT_TRUE(Notes(f, LOREG_REASON_TA_START).empty());
    EXPECT_EQ(QueueLength(&f.server()->active_q), 0u);

    // Its timer fires later and finds nothing: no second reply, no log.
    f.client().clear();
    log.clear();
    f.advance_ms(5000);
    EXPECT_EQ(Replies(f).size(), 0u);
    EXPECT_EQ(log.count("timeout for tid"), 0u) << log.dump();

    // A later transaction on the same tree is not disturbed by it.
    auto again = f.request(kTimedStart, 0, 0, 0, "", f.full("/a/"));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->header.result, 0);
    EXPECT_EQ(again->header.tid, 3);
    auto end = f.request(LOREG_MSG_TA_END, 0, 0, 3, "", "");
    ASSERT_TRUE(end);
    EXPECT_EQ(end->header.result, 0);
    EXPECT_EQ(Replies(f).size(), 0u);  // nothing else was answered

    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST_F(TasAllocTest, AllocationFailureInAnImmediateStartRepliesENOMEM) {
  {
    ServerFixture f(WithAllocator(alloc));
    ASSERT_EQ(f.start(), 0);
    ASSERT_EQ(f.set("/a/b", "v")->header.result, 0);
    f.client().clear();
    const size_t before = alloc.live_blocks();

    int n = 1;
    for (;; n++) {
      LogCapture log;
      alloc.fail_at(n);
      auto r = f.request(kTimedStart, 0, 0, 0, "", f.full("/a/"));
      bool failed = alloc.failed();
      alloc.disarm();
      ASSERT_TRUE(r) << "n=" << n;
      if (!failed) {
        EXPECT_EQ(r->header.result, 0);
        EXPECT_GT(r->header.tid, 0);
        EXPECT_EQ(QueueLength(&f.server()->active_q), 1u);
        break;
      }
      EXPECT_EQ(r->header.msgtype, 0x100C) << "n=" << n;
      EXPECT_EQ(r->header.result, -12) << "n=" << n;
      EXPECT_EQ(r->header.tid, 0) << "n=" << n;
      EXPECT_EQ(QueueLength(&f.server()->active_q), 0u) << "n=" << n;
      EXPECT_EQ(QueueLength(&f.server()->wait_q), 0u) << "n=" << n;
      EXPECT_EQ(QueueLength(&f.server()->acquired_q), 0u) << "n=" << n;
      EXPECT_TRUE(f.client().notifications().empty()) << "n=" << n;
      EXPECT_EQ(alloc.live_blocks(), before) << "n=" << n;
      if (n == 1) {
        std::string line = "lors_tas_new(): failed to malloc " +
                           std::to_string(sizeof(lors_tas) + std::strlen("/a/") + 1) +
                           " byte(s) for new transaction node\n";
        EXPECT_TRUE(log.has_line(line)) << log.dump();
      }
      f.client().clear();
    }
    // The node and the duration timer.
    EXPECT_EQ(n, 3);
    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST_F(TasAllocTest, AllocationFailureInAWaitingStartRepliesENOMEM) {
  {
    ServerFixture f(WithAllocator(alloc));
    ASSERT_EQ(f.start(), 0);
    ASSERT_EQ(f.set("/a/b", "v")->header.result, 0);
    auto holder = f.request(kTimedStart, 0, 0, 0, "", f.full("/a/b"));
    ASSERT_TRUE(holder);
    int32_t t1 = holder->header.tid;
    f.client().clear();
    const size_t before = alloc.live_blocks();

    int n = 1;
    uint32_t waiter = 0;
    for (;; n++) {
      LogCapture log;
      alloc.fail_at(n);
      waiter = f.send(kTimedStart, 1000, 0, 0, "", f.full("/a/"));
      f.pump();
      bool failed = alloc.failed();
      alloc.disarm();
      auto r = f.client().take_reply(waiter);
      if (!failed) {
        EXPECT_FALSE(r) << "a waiter got an early reply";
        EXPECT_EQ(QueueLength(&f.server()->wait_q), 1u);
        break;
      }
      ASSERT_TRUE(r) << "n=" << n;
      EXPECT_EQ(r->header.result, -12) << "n=" << n;
      EXPECT_EQ(r->header.tid, 0) << "n=" << n;
      EXPECT_EQ(QueueLength(&f.server()->active_q), 1u) << "n=" << n;
      EXPECT_EQ(QueueLength(&f.server()->wait_q), 0u) << "n=" << n;
      EXPECT_EQ(alloc.live_blocks(), before) << "n=" << n;
      if (n == 2) {
        std::string line = "lors_onTransactionStart(reqid=" + std::to_string(waiter) +
                           ") path='/a/' failed setting up timer for 1000 ms\n";
        EXPECT_TRUE(log.has_line(line)) << log.dump();
      }
      f.client().clear();
    }
    EXPECT_EQ(n, 3);

    // A waiter that starts reuses its waiting timer: it needs no memory.
    alloc.fail_from(1);
    auto end = f.request(LOREG_MSG_TA_END, 0, 0, t1, "", "");
    alloc.disarm();
    EXPECT_FALSE(alloc.failed());
    ASSERT_TRUE(end);
    auto started = f.client().take_reply(waiter);
    ASSERT_TRUE(started);
    EXPECT_EQ(started->header.result, 0);
    EXPECT_EQ(QueueLength(&f.server()->active_q), 1u);
    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST_F(TasAllocTest, AllocationFailureInAnAcquireRepliesENOMEM) {
  {
    ServerFixture f(WithAllocator(alloc));
    ASSERT_EQ(f.start(), 0);
    const size_t before = alloc.live_blocks();
    int n = 1;
    for (;; n++) {
      alloc.fail_at(n);
      auto r = f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/a"));
      bool failed = alloc.failed();
      alloc.disarm();
      ASSERT_TRUE(r);
      if (!failed) {
        EXPECT_EQ(r->header.result, 0);
        EXPECT_EQ(QueueLength(&f.server()->acquired_q), 1u);
        break;
      }
      EXPECT_EQ(r->header.msgtype, 0x100D);
      EXPECT_EQ(r->header.result, -12);
      EXPECT_EQ(r->header.tid, 0);
      EXPECT_EQ(QueueLength(&f.server()->acquired_q), 0u);
      EXPECT_EQ(alloc.live_blocks(), before);
    }
    EXPECT_EQ(n, 2);
    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST_F(TasAllocTest, ShutdownFreesEveryQueue) {
  {
    ServerFixture f(WithAllocator(alloc));
    ASSERT_EQ(f.start(), 0);
    ASSERT_EQ(f.set("/a/b", "v")->header.result, 0);
    ASSERT_EQ(f.set("/x/y", "v")->header.result, 0);
    ASSERT_EQ(f.request(kTimedStart, 0, 0, 0, "", f.full("/a/"))->header.result, 0);
    f.send(kTimedStart, 5000, 0, 0, "", f.full("/a/b"));
    f.pump();
    ASSERT_EQ(f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/x/"))->header.result, 0);
    EXPECT_EQ(QueueLength(&f.server()->active_q), 1u);
    EXPECT_EQ(QueueLength(&f.server()->wait_q), 1u);
    EXPECT_EQ(QueueLength(&f.server()->acquired_q), 1u);
    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

}  // namespace
