// Key update notifications of the repository server: what each broadcast
// and reply carries, its log line, and the key update trigger that plays a
// subtree back to one client.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "loreg/loreg_msg.h"
#include "loreg/lors.h"
#include "loreg/lors_broadcast.h"
#include "loreg/lors_rp.h"
#include "support/log_capture.h"
#include "support/server_fixture.h"
#include "support/wire_client.h"

namespace {

using testsupport::LogCapture;
using testsupport::ServerFixture;
using testsupport::ServerOptions;
using testsupport::WireClient;
using testsupport::WireMessage;

constexpr uint32_t kSetPlain = 0x30400;
constexpr uint32_t kMaskAll = 0xFFFFFFFFu;

class Broadcast : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(f.start(), 0);
    f.client().clear();
  }
  void Put(const std::string &relative, const std::string &value, uint32_t flags = kSetPlain) {
    auto r = f.set(relative, value, flags);
    ASSERT_TRUE(r) << relative;
    ASSERT_EQ(r->header.result, 0) << relative;
    f.client().clear();
  }
  // Sends a key update trigger and returns what came back.
  std::vector<WireMessage> Trigger(const std::string &full, uint32_t mask, int32_t max_level,
                                   int32_t tid = 0) {
    f.client().clear();
    EXPECT_FALSE(f.request(LOREG_MSG_KEY_UPDATE_TRIGGER, mask, static_cast<uint32_t>(max_level),
                           tid, "", full));
    EXPECT_EQ(f.client().replies_kept(), 0u);
    return f.client().notifications();
  }
  static std::vector<std::string> Paths(const std::vector<WireMessage> &notes) {
    std::vector<std::string> out;
    for (const WireMessage &n : notes) out.push_back(n.data1);
    return out;
  }

  ServerFixture f;
};

// --- what a notification carries --------------------------------------------

TEST_F(Broadcast, KeyAddCarriesKeyAndLogsBroadcastLine) {
  LogCapture log;
  auto r = f.set("/a", "val", 0x30401);
  ASSERT_TRUE(r);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  const WireMessage &n = notes[0];
  EXPECT_EQ(n.header.msgtype, LOREG_MSG_KEY_UPDATE);
  EXPECT_EQ(n.header.reqid, 0u);
  EXPECT_EQ(n.header.arg0, LOREG_REASON_KEY_ADD);
  EXPECT_EQ(n.header.arg1, KEYF_VALUE | KEYF_USER);
  EXPECT_EQ(n.header.tid, 0);
  EXPECT_EQ(n.header.result, 0);
  EXPECT_EQ(n.header.len0, 3);
  EXPECT_EQ(n.header.len1, 12);
  EXPECT_EQ(n.data0, "val");
  EXPECT_EQ(n.data1, "/com/norvi/a");
  EXPECT_EQ(n.info.reply.kind, LMQ_KIND_NOTIFY);
  EXPECT_TRUE(log.has_line("Broadcast: key add flags=0x05, tid=0, path='/a'\n")) << log.dump();
}

TEST_F(Broadcast, EveryLowFlagBitButNoHighBitLeaves) {
  Put("/a", "1", 0x30403);
  // The key carries KEYF_CHANGED, which never goes out.
  const lors_rp_node *key = TAILQ_FIRST(&f.server()->root->children);
  ASSERT_NE(key, nullptr);
  EXPECT_NE(key->flags & KEYF_CHANGED, 0u);
  auto r = f.set("/a", "1", 0);
  ASSERT_TRUE(r);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg1, KEYF_VALUE | KEYF_USER | KEYF_VOLATILE);
}

TEST_F(Broadcast, UnchangedValueCarriesSameValueAndFlagsWithKeyChange) {
  LogCapture log;
  Put("/a", "same", 0x30401);
  auto r = f.set("/a", "same");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_CHANGE);
  EXPECT_EQ(notes[0].header.arg1, KEYF_VALUE | KEYF_USER);
  EXPECT_EQ(notes[0].data0, "same");
  EXPECT_EQ(notes[0].data1, "/com/norvi/a");
  EXPECT_TRUE(log.has_line("Broadcast: key change flags=0x05, tid=0, path='/a'\n"));
}

TEST_F(Broadcast, TransactionIdAndLockFlagGoOut) {
  LogCapture log;
  Put("/a", "1");
  auto started = f.request(LOREG_MSG_TA_START, 0, 0, 0, "", f.full("/a"));
  ASSERT_TRUE(started);
  int32_t tid = started->header.tid;
  ASSERT_GT(tid, 0);
  // The start's own broadcast.
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_TA_START);
  EXPECT_EQ(notes[0].header.tid, tid);
  EXPECT_EQ(notes[0].header.arg1, KEYF_VALUE | KEYF_LOCKED);
  f.client().clear();

  auto r = f.set("/a", "2", kSetPlain, tid);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_CHANGE);
  EXPECT_EQ(notes[0].header.tid, tid);
  EXPECT_EQ(notes[0].header.arg1, KEYF_VALUE | KEYF_LOCKED);
  EXPECT_EQ(notes[0].data0, "2");
  char line[128];
  std::snprintf(line, sizeof(line), "Broadcast: key change flags=0x14, tid=%d, path='/a'\n", tid);
  EXPECT_TRUE(log.has_line(line)) << log.dump();
}

TEST_F(Broadcast, EndAfterDeleteOfTheLockedKeyHasNoFlagsOrValue) {
  Put("/d/k", "value");
  auto started = f.request(LOREG_MSG_TA_START, 0, 0, 0, "", f.full("/d/k"));
  ASSERT_TRUE(started);
  int32_t tid = started->header.tid;
  auto r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, tid, "", f.full("/d/k"));
  ASSERT_TRUE(r);
  ASSERT_EQ(r->header.result, 0);
  f.client().clear();

  LogCapture log;
  auto end = f.request(LOREG_MSG_TA_END, 0, 0, tid, "", "");
  ASSERT_TRUE(end);
  EXPECT_EQ(end->header.result, 0);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_TA_END);
  EXPECT_EQ(notes[0].header.arg1, 0u);
  EXPECT_EQ(notes[0].header.len0, 0);
  EXPECT_EQ(notes[0].data0, "");
  EXPECT_EQ(notes[0].header.tid, tid);
  EXPECT_EQ(notes[0].data1, "/com/norvi/d/k");
  char line[128];
  std::snprintf(line, sizeof(line), "Broadcast: transaction end flags=0x00, tid=%d, path='/d/k'\n",
                tid);
  EXPECT_TRUE(log.has_line(line)) << log.dump();
}

TEST_F(Broadcast, RootKeyMessageHasTheRootPathAndSlash) {
  LogCapture log;
  EXPECT_FALSE(f.request(LOREG_MSG_ROOT_KEY_QUERY, 0, 0, 0, "", ""));
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].data1, "/com/norvi/");
  EXPECT_EQ(notes[0].header.arg1, KEYF_ROOT | KEYF_DIR);
  EXPECT_EQ(notes[0].header.len0, 0);
  EXPECT_TRUE(log.has_line("Reply: key update flags=0x28, tid=0, path='/'\n")) << log.dump();

  // The same through the function, broadcast to all.
  f.client().clear();
  log.clear();
  EXPECT_EQ(lors_sendRootKey(f.server(), LOREG_REASON_KEY_DELETE, nullptr), 0);
  f.client().poll();
  notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_DELETE);
  EXPECT_EQ(notes[0].data1, "/com/norvi/");
  EXPECT_EQ(notes[0].info.reply.kind, LMQ_KIND_NOTIFY);
  EXPECT_TRUE(log.has_line("Broadcast: key delete flags=0x28, tid=0, path='/'\n"));
}

TEST_F(Broadcast, SendKeyUpdateWithoutNodeOrTransaction) {
  LogCapture log;
  char text[] = "/x/y";
  lstr path = {text, 4};
  lmq_address to = f.client().address();
  EXPECT_EQ(lors_sendKeyUpdate(f.server(), &path, nullptr, nullptr, 0x5007, &to), 0);
  f.client().poll();
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, 0x5007u);
  EXPECT_EQ(notes[0].header.arg1, 0u);
  EXPECT_EQ(notes[0].header.tid, 0);
  EXPECT_EQ(notes[0].header.len0, 0);
  EXPECT_EQ(notes[0].data1, "/com/norvi/x/y");
  EXPECT_EQ(notes[0].info.reply.kind, LMQ_KIND_REPLY);
  EXPECT_TRUE(log.has_line("Reply: <unknown> flags=0x00, tid=0, path='/x/y'\n")) << log.dump();
}

TEST_F(Broadcast, SendReplyIgnoresThePath) {
  loreg_msg msg{};
  msg.header.msgtype = 0x100B;
  msg.header.reqid = 31;
  char text[] = "/ignored";
  lstr path = {text, 8};
  lmq_address to = f.client().address();
  EXPECT_EQ(lors_send_reply(f.server(), &path, &msg, &to), 0);
  f.client().poll();
  auto r = f.client().take_reply(31);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.len1, 0);
  EXPECT_EQ(r->data1, "");
  EXPECT_EQ(lors_send_reply(f.server(), nullptr, &msg, &to), 0);
}

TEST(BroadcastRoot, EmptyRootSendsRelativePathsAsTheyAre) {
  ServerOptions options;
  options.root_path = "";
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);  // the subscription's root broadcast
  EXPECT_EQ(notes[0].data1, "/");
}

// --- key update trigger -------------------------------------------------------------------

TEST_F(Broadcast, TriggerOnALeafSendsOne) {
  LogCapture log;
  Put("/d/leaf", "v", 0x30401);
  auto notes = Trigger(f.full("/d/leaf"), kMaskAll, 5);
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.msgtype, LOREG_MSG_KEY_UPDATE);
  EXPECT_EQ(notes[0].header.reqid, 0u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_UPDATE);
  EXPECT_EQ(notes[0].header.arg1, KEYF_VALUE | KEYF_USER);
  EXPECT_EQ(notes[0].header.tid, 0);
  EXPECT_EQ(notes[0].header.result, 0);
  EXPECT_EQ(notes[0].data0, "v");
  EXPECT_EQ(notes[0].data1, "/com/norvi/d/leaf");
  EXPECT_EQ(notes[0].info.reply.kind, LMQ_KIND_REPLY);
  EXPECT_TRUE(log.has_line("Reply: key update flags=0x05, tid=0, path='/d/leaf'\n")) << log.dump();
}

TEST_F(Broadcast, TriggerOnDirectorySendsItThenSortedChildren) {
  Put("/d/c", "3");
  Put("/d/b", "2");
  Put("/d/b/", "");      // "b/" sorts after "b"
  Put("/d/b/deep", "4");  // below max_level 1
  auto notes = Trigger(f.full("/d/"), kMaskAll, 1);
  EXPECT_EQ(Paths(notes), (std::vector<std::string>{"/com/norvi/d/", "/com/norvi/d/b",
                                                    "/com/norvi/d/b/", "/com/norvi/d/c"}));
  ASSERT_EQ(notes.size(), 4u);
  EXPECT_EQ(notes[0].header.arg1, KEYF_DIR);
  EXPECT_EQ(notes[1].data0, "2");
  EXPECT_EQ(notes[3].data0, "3");
}

TEST_F(Broadcast, TriggerWithTwoChildrenSendsThree) {
  Put("/d/z", "26");
  Put("/d/a", "1");
  auto notes = Trigger(f.full("/d/"), kMaskAll, 1);
  EXPECT_EQ(Paths(notes),
            (std::vector<std::string>{"/com/norvi/d/", "/com/norvi/d/a", "/com/norvi/d/z"}));
}

TEST_F(Broadcast, TriggerLevels) {
  Put("/d/e/f", "1");
  EXPECT_EQ(Paths(Trigger(f.full("/d/"), kMaskAll, 0)),
            (std::vector<std::string>{"/com/norvi/d/"}));
  EXPECT_EQ(Paths(Trigger(f.full("/d/"), kMaskAll, 2)),
            (std::vector<std::string>{"/com/norvi/d/", "/com/norvi/d/e/", "/com/norvi/d/e/f"}));
  EXPECT_TRUE(Trigger(f.full("/d/"), kMaskAll, -1).empty());
  // From the root the whole tree.
  EXPECT_EQ(Paths(Trigger(f.full("/"), kMaskAll, 100)),
            (std::vector<std::string>{"/com/norvi/", "/com/norvi/d/", "/com/norvi/d/e/",
                                      "/com/norvi/d/e/f"}));
}

TEST_F(Broadcast, TriggerMaskSkipsKeysWithoutStoppingTheWalk) {
  Put("/d/e/f", "1");
  Put("/d/g", "2");
  const uint32_t values_only = 1u << 4;  // class 4: a plain key with a value
  // The directories aren't reported, but the walk goes through them, also
  // beyond max_level, until a selected key stops it.
  EXPECT_TRUE(Trigger(f.full("/d/"), values_only, 0).empty());
  EXPECT_EQ(Paths(Trigger(f.full("/d/"), values_only, 1)),
            (std::vector<std::string>{"/com/norvi/d/g"}));
  EXPECT_EQ(Paths(Trigger(f.full("/d/"), values_only, 2)),
            (std::vector<std::string>{"/com/norvi/d/e/f", "/com/norvi/d/g"}));
  EXPECT_TRUE(Trigger(f.full("/d/"), 0, 5).empty());
}

TEST_F(Broadcast, TriggerOnMissingPathSendsNothing) {
  LogCapture log;
  Put("/d/a", "1");
  EXPECT_TRUE(Trigger(f.full("/d/missing"), kMaskAll, 5).empty());
  EXPECT_TRUE(Trigger(f.full("/nothing/"), kMaskAll, 5).empty());
  EXPECT_TRUE(f.client().messages().empty());
  EXPECT_FALSE(log.contains("Reply:"));
  // Nothing was created by the search either.
  EXPECT_EQ(f.get("/d/missing")->header.result, -2);
}

TEST_F(Broadcast, TriggerReadsPastLocksAndIgnoresItsTid) {
  Put("/d/a", "1");
  auto started = f.request(LOREG_MSG_TA_START, 0, 0, 0, "", f.full("/d/"));
  ASSERT_TRUE(started);
  ASSERT_EQ(started->header.result, 0);
  EXPECT_EQ(Trigger(f.full("/d/"), kMaskAll, 1, 0).size(), 2u);
  EXPECT_EQ(Trigger(f.full("/d/a"), kMaskAll, 1, 12345).size(), 1u);
}

TEST_F(Broadcast, TriggerGoesToTheAskerAlone) {
  WireClient other(f.lmq(), true);
  f.pump();
  other.poll();
  other.clear();
  Put("/a", "1");
  other.poll();
  other.clear();
  EXPECT_EQ(Trigger(f.full("/a"), kMaskAll, 0).size(), 1u);
  other.poll();
  EXPECT_TRUE(other.messages().empty());
}

TEST_F(Broadcast, TriggerPathOf511IsServedAnd512Refused) {
  LogCapture log;
  // Relative paths of 511 and 512 characters: "/" and a long name.
  const std::string name511(510, 'n');
  const std::string name512(511, 'm');
  Put("/" + name511, "ok");
  Put("/" + name512, "too long");
  auto notes = Trigger(f.full("/" + name511), kMaskAll, 0);
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].data1, f.full("/" + name511));
  EXPECT_EQ(notes[0].data0, "ok");
  EXPECT_FALSE(log.contains("path exeeded"));

  EXPECT_TRUE(Trigger(f.full("/" + name512), kMaskAll, 0).empty());
  EXPECT_TRUE(log.has_line("lors_onKeyUpdate() path exeeded 511 characters - request ignored\n"))
      << log.dump();
}

TEST_F(Broadcast, TriggerLeavesOutSubtreesWhosePathsGrowTooLong) {
  LogCapture log;
  // "/d/" plus a name of 508 is 511 characters, one of 509 is 512.
  const std::string fits(508, 'f');
  const std::string over(509, 'o');
  Put("/d/" + fits, "1");
  Put("/d/" + over + "/x", "2");
  Put("/d/z", "3");
  auto notes = Trigger(f.full("/d/"), kMaskAll, 5);
  EXPECT_EQ(Paths(notes), (std::vector<std::string>{"/com/norvi/d/", f.full("/d/" + fits),
                                                    "/com/norvi/d/z"}));
  EXPECT_TRUE(log.has_line("lors_rp_TreeWalk(): sorry, path exceeded 511 chars. skipping.\n"))
      << log.dump();
}

}  // namespace
