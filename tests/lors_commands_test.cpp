// The repository server's request handlers, through real messages: value
// query and set, key delete, count and query, store, reload, echo and the
// root key query. Each reply is checked field by field, and so is the
// absence of a reply where none is due.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "loreg/crc.h"
#include "loreg/loreg_msg.h"
#include "loreg/lors.h"
#include "loreg/lors_rp.h"
#include "support/log_capture.h"
#include "support/server_fixture.h"
#include "support/temp_dir.h"
#include "support/test_allocator.h"
#include "support/wire_client.h"

namespace {

using testsupport::LogCapture;
using testsupport::ServerFixture;
using testsupport::ServerOptions;
using testsupport::TestAllocator;
using testsupport::WireClient;
using testsupport::WireMessage;

constexpr uint32_t kSetPlain = 0x30400;     // value, create key and directories
constexpr uint32_t kSetVolatile = 0x30602;  // the same, and volatile
constexpr uint32_t kMaskAll = 0xFFFFFFFFu;

size_t CountNodes(const lors_rp_node *node) {
  size_t n = 1;
  const lors_rp_node *child;
  TAILQ_FOREACH(child, &node->children, link) n += CountNodes(child);
  return n;
}

// The tree as text: name=value(flags low byte)[children], depth first.
std::string Dump(const lors_rp_node *node) {
  char flags[8];
  std::snprintf(flags, sizeof(flags), "%02x", node->flags & 0xFFu);
  std::string out(node->name.ptr, node->name.len);
  out += "=" + std::string(node->value.ptr, node->value.len) + "(" + flags + ")";
  if (!TAILQ_EMPTY(&node->children)) {
    out += "[";
    const lors_rp_node *child;
    TAILQ_FOREACH(child, &node->children, link) out += Dump(child) + ";";
    out += "]";
  }
  return out;
}

// Checks the fields that every reply echoes from its request.
void ExpectEchoed(const WireMessage &reply, uint16_t type, uint32_t reqid, int32_t tid) {
  EXPECT_EQ(reply.header.msgtype, type);
  EXPECT_EQ(reply.header.reqid, reqid);
  EXPECT_EQ(reply.header.tid, tid);
  EXPECT_EQ(reply.header.reserved0, 0);
  EXPECT_EQ(reply.header.reserved1, 0u);
}

// The server's line for a value set.
std::string SetLine(uint32_t reqid, int32_t tid, unsigned old_flags, unsigned new_flags,
                    const char *dirty, const char *val, unsigned bytes, const std::string &path) {
  char line[512];
  std::snprintf(line, sizeof(line),
                "lors_onValueSet(reqid=%u tid=%d) old=0x%02x new=0x%02x dirty=%s val=%s(%u byte(s)) "
                "path='%s'\n",
                reqid, tid, old_flags, new_flags, dirty, val, bytes, path.c_str());
  return line;
}

std::string DeleteLine(uint32_t reqid, int32_t tid, const char *dirty, int count,
                       const std::string &path) {
  char line[512];
  std::snprintf(line, sizeof(line), "lors_onKeyDelete(reqid=%u tid=%d) dirty=%s %d nodes deleted, path='%s'\n",
                reqid, tid, dirty, count, path.c_str());
  return line;
}

// A started fixture whose client has forgotten the start's root broadcast.
class Commands : public ::testing::Test {
 protected:
  explicit Commands(ServerOptions options = ServerOptions()) : f(options) {}
  void SetUp() override {
    ASSERT_EQ(f.start(), 0);
    f.client().clear();
  }
  // Sets a value and expects success; clears what the client got.
  void Put(const std::string &relative, const std::string &value, uint32_t flags = kSetPlain) {
    auto r = f.set(relative, value, flags);
    ASSERT_TRUE(r) << relative;
    ASSERT_EQ(r->header.result, 0) << relative;
    f.client().clear();
  }
  // Makes the repository clean by a store.
  void Clean() {
    auto r = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
    ASSERT_TRUE(r);
    ASSERT_EQ(r->header.result, 0);
    ASSERT_EQ(f.server()->dirty, 0);
    f.client().clear();
  }
  // Starts a transaction on a relative path; returns its tid.
  int32_t Start(const std::string &relative) {
    auto r = f.request(LOREG_MSG_TA_START, 0, 0, 0, "", f.full(relative));
    EXPECT_TRUE(r);
    if (!r) return 0;
    EXPECT_EQ(r->header.result, 0);
    f.client().clear();
    return r->header.tid;
  }
  uint32_t Count(const std::string &full, uint32_t mask = kMaskAll) {
    auto r = f.request(LOREG_MSG_KEY_COUNT, mask, 0, 0, "", full);
    EXPECT_TRUE(r);
    if (!r) return 0xFFFFFFFFu;
    EXPECT_EQ(r->header.result, 0);
    return r->header.arg0;
  }

  ServerFixture f;
};

// --- value query ----------------------------------------------------------------

TEST_F(Commands, ValueQueryReplyFields) {
  Put("/a", "hello");
  auto r = f.request(LOREG_MSG_VALUE_QUERY, 0x55, 0x66, 0, "ignored", f.full("/a"));
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1001, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg0, 0x55u);
  EXPECT_EQ(r->header.arg1, KEYF_VALUE);
  EXPECT_EQ(r->header.len0, 5);
  EXPECT_EQ(r->header.len1, 0);
  EXPECT_EQ(r->data0, "hello");
  EXPECT_EQ(r->data1, "");
  EXPECT_TRUE(f.client().notifications().empty());
}

TEST_F(Commands, ValueQueryOfMissingKey) {
  auto r = f.request(LOREG_MSG_VALUE_QUERY, 0, 0x66, 0, "", f.full("/missing"));
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1001, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, -2);
  EXPECT_EQ(r->header.arg1, 0x66u);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  // A read creates nothing.
  EXPECT_EQ(Count(f.full("/")), 0u);
}

TEST_F(Commands, ValueQueryOfRootAndDirectory) {
  Put("/d/k", "1");
  auto r = f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", f.full("/d/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg1, KEYF_DIR);
  EXPECT_EQ(r->header.len0, 0);
  r = f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", f.full("/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg1, KEYF_DIR | KEYF_ROOT);
  // "/d" without its slash is another key, and missing.
  r = f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", f.full("/d"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -2);
}

TEST_F(Commands, ValueQueryInsideLockedSubtree) {
  Put("/a/b", "v");
  int32_t tid = Start("/a/");
  ASSERT_GT(tid, 0);

  // -1 reads past any lock.
  auto r = f.get("/a/b", -1);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.tid, -1);
  EXPECT_EQ(r->data0, "v");
  // No transaction meets the lock.
  r = f.get("/a/b", 0);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  EXPECT_EQ(r->header.len0, 0);
  // Other negative tids count as none.
  r = f.get("/a/b", -2);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  // The lock's own transaction reads.
  r = f.get("/a/b", tid);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "v");
  // The locked key itself shows the lock.
  r = f.get("/a/", -1);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.arg1, KEYF_DIR | KEYF_LOCKED);
}

TEST_F(Commands, TidOutsideItsLockOrNotAcquiredIsRefused) {
  Put("/a/b", "1");
  Put("/x", "1");
  int32_t tid = Start("/a/");
  // An active tid outside its own subtree.
  auto r = f.get("/x", tid);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  r = f.set("/x", "2", kSetPlain, tid);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  // An unknown tid.
  r = f.get("/x", 999);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  // An acquired one passes where no lock lies, and goes out in the broadcast.
  auto acquired = f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/x"));
  ASSERT_TRUE(acquired);
  int32_t mine = acquired->header.tid;
  f.client().clear();
  r = f.set("/x", "3", kSetPlain, mine);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.tid, mine);
  // But it doesn't pass another transaction's lock.
  r = f.set("/a/b", "4", kSetPlain, mine);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
}

// --- path rules ---------------------------------------------------------------------

TEST_F(Commands, WrongPrefixOfTheRightLengthGetsNoReply) {
  Put("/a", "1");
  // "/com/norvX/a" is as long as "/com/norvi/a".
  const std::string wrong = "/com/norvX/a";
  ASSERT_EQ(wrong.size(), f.full("/a").size());
  for (uint16_t type : {LOREG_MSG_VALUE_QUERY, LOREG_MSG_VALUE_SET, LOREG_MSG_KEY_QUERY,
                        LOREG_MSG_KEY_DELETE, LOREG_MSG_KEY_COUNT, LOREG_MSG_KEY_UPDATE_TRIGGER}) {
    SCOPED_TRACE(type);
    EXPECT_FALSE(f.request(type, kSetPlain, 0xFFFFFFFFu, 0, "x", wrong));
    EXPECT_TRUE(f.client().messages().empty());
  }
  // Nothing changed either.
  EXPECT_EQ(f.get("/a")->data0, "1");
}

TEST_F(Commands, StrictRuleWantsMoreThanTheRootPathAndASlash) {
  for (const char *path : {"", "/com/norvi", "/com/norvia", "/com/norvi", "/com/", "/", "com/norvi/a"}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(f.request(LOREG_MSG_VALUE_SET, kSetPlain, 0, 0, "x", path));
    EXPECT_FALSE(f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", path));
  }
  EXPECT_TRUE(f.client().messages().empty());
  EXPECT_EQ(Count(f.full("/")), 0u);
}

// "//" in a path is an empty piece with its "/": a key named "/" below the
// key before it. Such keys are made, read, saved, read back and deleted
// like any other.
TEST_F(Commands, DoubleSlashNamesAKeyCalledSlash) {
  Put("/a//b", "1");
  EXPECT_EQ(Dump(f.server()->root), "/=(28)[a/=(08)[/=(08)[b=1(04);];];]");
  auto r = f.get("/a//b");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "1");
  r = f.get("/a/b");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -2);
  r = f.request(LOREG_MSG_KEY_QUERY, kMaskAll, 0, 0, "", f.full("/a/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "/");
  EXPECT_EQ(r->header.arg0, KEYF_DIR);
  // The root's own path followed by "/" is a key "/" below the root.
  Put("//", "2");
  EXPECT_EQ(Count(f.full("//")), 0u);
  EXPECT_EQ(Count(f.full("/")), 2u);

  Clean();
  ASSERT_EQ(f.restart(), 0);
  EXPECT_EQ(Dump(f.server()->root), "/=(28)[/=2(0c);a/=(08)[/=(08)[b=1(04);];];]");
  f.client().clear();
  r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/a//"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(Dump(f.server()->root), "/=(28)[/=2(0c);a/=(08);]");
}

// --- value set --------------------------------------------------------------------------

TEST_F(Commands, ValueSetCreatesKeyReplyFieldsLogAndBroadcast) {
  LogCapture log;
  uint32_t reqid = f.send(LOREG_MSG_VALUE_SET, kSetPlain, 0x77, 0, "12", f.full("/tv/channel"));
  f.pump();
  auto r = f.client().take_reply(reqid);
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1002, reqid, 0);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg0, kSetPlain);
  EXPECT_EQ(r->header.arg1, 0x77u);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  EXPECT_EQ(r->data0, "");
  EXPECT_EQ(r->data1, "");

  EXPECT_TRUE(log.has_line(SetLine(reqid, 0, 0x04, 0x04, "caused", "added", 2, "/tv/channel")))
      << log.dump();
  EXPECT_NE(f.server()->dirty, 0);

  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_ADD);
  EXPECT_EQ(notes[0].header.arg1, KEYF_VALUE);
  EXPECT_EQ(notes[0].header.tid, 0);
  EXPECT_EQ(notes[0].header.result, 0);
  EXPECT_EQ(notes[0].data0, "12");
  EXPECT_EQ(notes[0].data1, "/com/norvi/tv/channel");

  // The directory on the way exists, without a value.
  auto dir = f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", f.full("/tv/"));
  ASSERT_TRUE(dir);
  EXPECT_EQ(dir->header.result, 0);
  EXPECT_EQ(dir->header.arg1, KEYF_DIR);
}

TEST_F(Commands, ValueSetWithFlagsZeroOnExistingKeyChangesNothing) {
  LogCapture log;
  Put("/a", "1");
  uint32_t before_flags = f.get("/a")->header.arg1;
  f.client().clear();

  // The repository is dirty from the first set: "yes".
  auto r = f.set("/a", "zzz", 0);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line(SetLine(f.last_reqid(), 0, 0x04, 0x04, "yes", "unchanged", 1, "/a")))
      << log.dump();
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_CHANGE);
  EXPECT_EQ(notes[0].header.arg1, before_flags);
  EXPECT_EQ(notes[0].data0, "1");
  EXPECT_EQ(notes[0].data1, "/com/norvi/a");
  EXPECT_EQ(f.get("/a")->data0, "1");

  // On a clean repository: "no", and it stays clean.
  Clean();
  r = f.set("/a", "zzz", 0);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line(SetLine(f.last_reqid(), 0, 0x04, 0x04, "no", "unchanged", 1, "/a")));
  EXPECT_EQ(f.server()->dirty, 0);
  EXPECT_EQ(f.client().notifications().size(), 1u);
}

TEST_F(Commands, ValueSetOfTheSameValueIsUnchanged) {
  LogCapture log;
  Put("/a", "1");
  Clean();
  auto r = f.set("/a", "1");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line(SetLine(f.last_reqid(), 0, 0x04, 0x04, "no", "unchanged", 1, "/a")));
  EXPECT_EQ(f.server()->dirty, 0);
  ASSERT_EQ(f.client().notifications().size(), 1u);
  EXPECT_EQ(f.client().notifications()[0].header.arg0, LOREG_REASON_KEY_CHANGE);
}

TEST_F(Commands, ValueSetChangesValueAndDirties) {
  LogCapture log;
  Put("/a", "1");
  Clean();
  auto r = f.set("/a", "22");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line(SetLine(f.last_reqid(), 0, 0x04, 0x04, "caused", "changed", 2, "/a")))
      << log.dump();
  EXPECT_NE(f.server()->dirty, 0);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_CHANGE);
  EXPECT_EQ(notes[0].data0, "22");
  EXPECT_EQ(f.get("/a")->data0, "22");

  // An empty value is no value.
  r = f.set("/a", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  auto q = f.get("/a");
  EXPECT_EQ(q->header.arg1, 0u);
  EXPECT_EQ(q->header.len0, 0);
}

TEST_F(Commands, ValueSetOnMissingKeyWithoutCreateIsMinus2AndSilent) {
  LogCapture log;
  auto r = f.set("/a", "1", 0x00400);
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1002, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, -2);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  EXPECT_TRUE(f.client().notifications().empty());
  EXPECT_FALSE(log.contains("lors_onValueSet("));
  EXPECT_EQ(f.server()->dirty, 0);
  EXPECT_EQ(Count(f.full("/")), 0u);

  // Directories may be made, the key not: they stay, unannounced.
  r = f.set("/d/k", "1", 0x20400);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -2);
  EXPECT_TRUE(f.client().notifications().empty());
  EXPECT_EQ(Count(f.full("/")), 1u);
  EXPECT_EQ(f.server()->dirty, 0);
  // And without 0x20000 a missing directory stops the search.
  r = f.set("/e/k", "1", 0x10400);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -2);
  EXPECT_EQ(Count(f.full("/")), 1u);
}

TEST_F(Commands, UserFlagIsSetAndClearedOnRequest) {
  LogCapture log;
  Put("/a", "1", 0x30401);  // a new key takes both flags from the request
  EXPECT_EQ(f.get("/a")->header.arg1, KEYF_VALUE | KEYF_USER);
  Clean();
  // Without 0x100 the bit stays as it is.
  f.set("/a", "1", 0x00400);
  EXPECT_EQ(f.get("/a")->header.arg1, KEYF_VALUE | KEYF_USER);
  EXPECT_EQ(f.server()->dirty, 0);
  // A change of flags alone is a change, and saved.
  auto r = f.set("/a", "", 0x00100);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line(SetLine(f.last_reqid(), 0, 0x05, 0x04, "caused", "unchanged", 1, "/a")))
      << log.dump();
  EXPECT_EQ(f.get("/a")->header.arg1, KEYF_VALUE);
}

TEST_F(Commands, PersistentToVolatileDirties) {
  LogCapture log;
  Put("/a", "1");
  Clean();
  auto r = f.set("/a", "1", 0x00202);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_NE(f.server()->dirty, 0);
  EXPECT_TRUE(log.has_line(SetLine(f.last_reqid(), 0, 0x04, 0x06, "caused", "unchanged", 1, "/a")))
      << log.dump();
  EXPECT_EQ(f.get("/a")->header.arg1, KEYF_VALUE | KEYF_VOLATILE);
}

TEST_F(Commands, VolatileToPersistentDirties) {
  Put("/a", "1", kSetVolatile);
  Clean();
  auto r = f.set("/a", "1", 0x00200);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_NE(f.server()->dirty, 0);
  EXPECT_EQ(f.get("/a")->header.arg1, KEYF_VALUE);
}

TEST_F(Commands, VolatileStayingVolatileDoesNotDirty) {
  LogCapture log;
  // A new volatile key doesn't dirty either.
  auto r = f.set("/v", "1", kSetVolatile);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(f.server()->dirty, 0);
  EXPECT_TRUE(log.has_line(SetLine(f.last_reqid(), 0, 0x04, 0x06, "no", "added", 1, "/v")))
      << log.dump();
  r = f.set("/v", "2", kSetVolatile);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(f.server()->dirty, 0);
  EXPECT_TRUE(log.has_line(SetLine(f.last_reqid(), 0, 0x06, 0x06, "no", "changed", 1, "/v")));
  r = f.set("/v", "3", 0x00400);
  ASSERT_TRUE(r);
  EXPECT_EQ(f.server()->dirty, 0);
  EXPECT_EQ(f.get("/v")->data0, "3");
}

TEST_F(Commands, ChangesBelowAVolatileKeyDoNotDirty) {
  Put("/v/", "", kSetVolatile);
  Clean();
  // A persistent key below a volatile directory: neither its creation nor
  // its changes count.
  auto r = f.set("/v/k", "1");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(f.server()->dirty, 0);
  r = f.set("/v/k", "2", 0x00601);
  ASSERT_TRUE(r);
  EXPECT_EQ(f.server()->dirty, 0);
}

TEST_F(Commands, ValueSetOnTheRootReplacesTheRootNode) {
  lors_rp_node *old_root = f.server()->root;
  Put("/k", "1");
  auto r = f.request(LOREG_MSG_VALUE_SET, 0x00400, 0, 0, "rootval", f.full("/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_NE(f.server()->root, old_root);
  EXPECT_EQ(f.server()->root->flags & 0xFFu, KEYF_ROOT | KEYF_DIR | KEYF_VALUE);
  EXPECT_EQ(f.server()->root->parent, nullptr);
  // The children moved along.
  EXPECT_EQ(f.get("/k")->data0, "1");
  auto q = f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", f.full("/"));
  EXPECT_EQ(q->data0, "rootval");
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].data1, "/com/norvi/");
  EXPECT_EQ(notes[0].data0, "rootval");
}

TEST_F(Commands, ValueSetWithNegativeTidActsWithoutTransaction) {
  Put("/a/b", "1");
  Start("/a/");
  // -1 passes locks for reads only: a write with -1 is a write with 0.
  auto r = f.set("/a/b", "2", kSetPlain, -1);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  EXPECT_EQ(r->header.tid, -1);
  r = f.set("/free", "2", kSetPlain, -7);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
}

// Each allocation that a value set reaches fails in turn: -12 in the
// reply, the tree as before (but for directories made on the way, which
// stay), and nothing leaked.
TEST(CommandsOom, ValueSetAllocationFailures) {
  TestAllocator alloc;
  {
    ServerOptions options;
    options.allocator = alloc.handle();
    ServerFixture f(options);
    ASSERT_EQ(f.start(), 0);
    ASSERT_EQ(f.set("/d/x", "1")->header.result, 0);
    ASSERT_EQ(f.set("/d/y", "1")->header.result, 0);

    struct Case {
      const char *path;
      const char *value;
      const char *after;  // the key's value once it works
    };
    const Case cases[] = {{"/d/new", "n", "n"}, {"/d/x", "changed", "changed"}, {"/n1/n2/k", "k", "k"}};
    for (const Case &c : cases) {
      SCOPED_TRACE(c.path);
      int failures = 0;
      for (uint64_t n = 1; n < 20; n++) {
        SCOPED_TRACE(n);
        std::string before = Dump(f.server()->root);
        size_t nodes = CountNodes(f.server()->root);
        size_t live = alloc.live_blocks();
        f.client().clear();
        alloc.fail_at(n);
        auto r = f.set(c.path, c.value);
        bool hit = alloc.failed();
        alloc.disarm();
        ASSERT_TRUE(r);
        if (!hit) {
          EXPECT_EQ(r->header.result, 0);
          break;
        }
        failures++;
        EXPECT_EQ(r->header.result, -12);
        EXPECT_EQ(r->header.len0, 0);
        EXPECT_EQ(r->header.len1, 0);
        if (std::string(c.path) == "/n1/n2/k") {
          // Directories made before the failure stay, and are all that
          // was allocated.
          EXPECT_EQ(alloc.live_blocks() - live, CountNodes(f.server()->root) - nodes);
          EXPECT_GE(CountNodes(f.server()->root), nodes);
        } else {
          EXPECT_EQ(Dump(f.server()->root), before);
          EXPECT_EQ(alloc.live_blocks(), live);
        }
      }
      EXPECT_GE(failures, 1);
      EXPECT_EQ(f.get(c.path)->data0, c.after);
    }
    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// --- key delete --------------------------------------------------------------------------

TEST_F(Commands, KeyDeleteReplyLogBroadcastAndDirty) {
  LogCapture log;
  Put("/d/a", "1");
  Put("/d/b", "2");
  Clean();
  auto r = f.request(LOREG_MSG_KEY_DELETE, 0x11, 0x22, 0, "", f.full("/d/"));
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1003, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg0, 0x11u);
  EXPECT_EQ(r->header.arg1, 0x22u);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  EXPECT_TRUE(log.has_line(DeleteLine(f.last_reqid(), 0, "caused", 3, "/d/"))) << log.dump();
  EXPECT_NE(f.server()->dirty, 0);
  // One notification, for the key named only.
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_DELETE);
  EXPECT_EQ(notes[0].header.arg1, KEYF_DIR);
  EXPECT_EQ(notes[0].data1, "/com/norvi/d/");
  EXPECT_EQ(Count(f.full("/")), 0u);

  // On a dirty repository: "yes".
  Put("/e", "1");
  r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/e"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line(DeleteLine(f.last_reqid(), 0, "yes", 1, "/e")));
}

TEST_F(Commands, KeyDeleteBroadcastShowsTheLastValueAndFlags) {
  Put("/a", "last", 0x30401);
  f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/a"));
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg1, KEYF_VALUE | KEYF_USER);
  EXPECT_EQ(notes[0].data0, "last");
}

TEST_F(Commands, KeyDeleteOfMissingKey) {
  auto r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/nothing"));
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1003, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, -2);
  EXPECT_TRUE(f.client().notifications().empty());
  EXPECT_EQ(f.server()->dirty, 0);
}

TEST_F(Commands, VolatileDeleteSaysNo) {
  LogCapture log;
  Put("/v", "1", kSetVolatile);
  Put("/w/", "", kSetVolatile);
  Put("/w/k", "1");
  auto r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/v"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line(DeleteLine(f.last_reqid(), 0, "no", 1, "/v"))) << log.dump();
  EXPECT_EQ(f.server()->dirty, 0);
  // Below a volatile directory as well.
  r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/w/k"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line(DeleteLine(f.last_reqid(), 0, "no", 1, "/w/k")));
  EXPECT_EQ(f.server()->dirty, 0);
  EXPECT_EQ(f.client().notifications().size(), 2u);
}

TEST_F(Commands, PersistentKeyWithVolatileChildDirtiesOnDelete) {
  Put("/p/", "", 0x30400);
  Put("/p/v", "1", kSetVolatile);
  Clean();
  auto r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/p/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_NE(f.server()->dirty, 0);
}

TEST_F(Commands, RootDeleteBroadcastsDeleteThenAddAndLeavesANewRoot) {
  LogCapture log;
  ASSERT_EQ(f.request(LOREG_MSG_VALUE_SET, 0x00400, 0, 0, "rv", f.full("/"))->header.result, 0);
  Put("/a/b", "1");
  Put("/c", "2");
  Clean();
  lors_rp_node *old_root = f.server()->root;
  auto r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(log.has_line(DeleteLine(f.last_reqid(), 0, "caused", 4, "/"))) << log.dump();
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_DELETE);
  EXPECT_EQ(notes[1].header.arg0, LOREG_REASON_KEY_ADD);
  for (const WireMessage &n : notes) {
    EXPECT_EQ(n.data1, "/com/norvi/");
    EXPECT_EQ(n.header.arg1, KEYF_ROOT | KEYF_DIR | KEYF_VALUE);  // the old root's
    EXPECT_EQ(n.data0, "rv");
  }
  EXPECT_NE(f.server()->root, old_root);
  EXPECT_EQ(Dump(f.server()->root), "/=(28)");
  EXPECT_EQ(Count(f.full("/")), 0u);
  EXPECT_EQ(f.get("/c")->header.result, -2);
}

TEST_F(Commands, DeleteOfAnAncestorOfTheRootDeletesEverything) {
  Put("/a", "1");
  Put("/b/c", "2");
  // Counted through the same loose rule: the root's children.
  EXPECT_EQ(Count("/com/"), 2u);
  EXPECT_EQ(Count("/"), 2u);
  auto r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", "/com/");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(Count("/com/"), 0u);
  EXPECT_EQ(Dump(f.server()->root), "/=(28)");
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[0].data1, "/com/norvi/");
}

TEST_F(Commands, DeleteOfTheRootPathWithoutSlashGetsNoReply) {
  Put("/a", "1");
  EXPECT_FALSE(f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", "/com/norvi"));
  EXPECT_FALSE(f.request(LOREG_MSG_KEY_COUNT, 0, 0, 0, "", "/com/norvi"));
  EXPECT_FALSE(f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", "/com"));
  EXPECT_FALSE(f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", ""));
  EXPECT_FALSE(f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", "/cox/"));
  EXPECT_TRUE(f.client().messages().empty());
  EXPECT_EQ(f.get("/a")->data0, "1");
}

TEST_F(Commands, DeleteOfDirectoryWithKeyLockedByAnotherTransaction) {
  Put("/d/a", "1");
  Put("/d/b", "2");
  int32_t tid = Start("/d/b");
  ASSERT_GT(tid, 0);
  std::string before = Dump(f.server()->root);
  auto r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full("/d/"));
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1003, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, -13);
  EXPECT_EQ(Dump(f.server()->root), before);
  EXPECT_TRUE(f.client().notifications().empty());
  // An acquired tid doesn't pass it either.
  auto acquired = f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/d/"));
  r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, acquired->header.tid, "", f.full("/d/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  EXPECT_EQ(Dump(f.server()->root), before);
}

TEST_F(Commands, DeleteUnderOwnLockIsAllowed) {
  Put("/d/a", "1");
  int32_t tid = Start("/d/");
  auto r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, tid, "", f.full("/d/a"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.tid, tid);
  EXPECT_EQ(f.get("/d/a", -1)->header.result, -2);
}

TEST(CommandsOom, RootDeleteAllocationFailureKeepsTheTree) {
  TestAllocator alloc;
  {
    ServerOptions options;
    options.allocator = alloc.handle();
    ServerFixture f(options);
    ASSERT_EQ(f.start(), 0);
    ASSERT_EQ(f.set("/a/b", "1")->header.result, 0);
    ASSERT_EQ(f.set("/c", "2")->header.result, 0);
    for (const char *path : {"/a/b", "/"}) {
      SCOPED_TRACE(path);
      for (uint64_t n = 1; n < 10; n++) {
        SCOPED_TRACE(n);
        std::string before = Dump(f.server()->root);
        lors_rp_node *root = f.server()->root;
        size_t live = alloc.live_blocks();
        f.client().clear();
        alloc.fail_at(n);
        auto r = f.request(LOREG_MSG_KEY_DELETE, 0, 0, 0, "", f.full(path));
        bool hit = alloc.failed();
        alloc.disarm();
        ASSERT_TRUE(r);
        if (!hit) {
          EXPECT_EQ(r->header.result, 0);
          break;
        }
        EXPECT_EQ(r->header.result, -12);
        EXPECT_EQ(f.server()->root, root);
        EXPECT_EQ(Dump(f.server()->root), before);
        EXPECT_EQ(alloc.live_blocks(), live);
        EXPECT_TRUE(f.client().notifications().empty());
      }
    }
    EXPECT_EQ(Dump(f.server()->root), "/=(28)");
    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// --- key count -------------------------------------------------------------------------

TEST_F(Commands, KeyCountCountsSelectedDirectChildren) {
  Put("/d/a", "1");
  Put("/d/b/", "");
  Put("/d/b/x", "1");
  Put("/d/c", "", 0x30401);
  auto r = f.request(LOREG_MSG_KEY_COUNT, kMaskAll, 0x33, 0, "", f.full("/d/"));
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1004, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg0, 3u);
  EXPECT_EQ(r->header.arg1, 0x33u);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  // Classes: "a" 0x04, "b/" 0x08, "c" 0x01.
  EXPECT_EQ(Count(f.full("/d/"), 1u << 4), 1u);
  EXPECT_EQ(Count(f.full("/d/"), (1u << 8) | (1u << 1)), 2u);
  EXPECT_EQ(Count(f.full("/d/"), 0), 0u);
}

TEST_F(Commands, KeyCountWithoutChildrenIsZero) {
  Put("/a", "1");
  EXPECT_EQ(Count(f.full("/a")), 0u);
  EXPECT_EQ(Count(f.full("/")), 1u);
}

TEST_F(Commands, KeyCountFailureKeepsTheMask) {
  auto r = f.request(LOREG_MSG_KEY_COUNT, 0x1234, 0, 0, "", f.full("/missing/"));
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1004, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, -2);
  EXPECT_EQ(r->header.arg0, 0x1234u);
}

TEST_F(Commands, KeyCountReadsPastLocksWithMinusOne) {
  Put("/d/a", "1");
  Start("/d/");
  auto r = f.request(LOREG_MSG_KEY_COUNT, kMaskAll, 0, -1, "", f.full("/d/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg0, 1u);
  r = f.request(LOREG_MSG_KEY_COUNT, kMaskAll, 0, 0, "", f.full("/d/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  EXPECT_EQ(r->header.arg0, kMaskAll);
}

// --- key query ---------------------------------------------------------------------------

TEST_F(Commands, KeyQueryListsChildrenByIndex) {
  Put("/d/c", "3");
  Put("/d/a", "1", 0x30401);
  Put("/d/b/", "");
  std::vector<std::string> names;
  std::vector<uint32_t> flags;
  for (uint32_t index = 0;; index++) {
    auto r = f.request(LOREG_MSG_KEY_QUERY, kMaskAll, index, 0, "", f.full("/d/"));
    ASSERT_TRUE(r);
    ExpectEchoed(*r, 0x1005, f.last_reqid(), 0);
    EXPECT_EQ(r->header.arg1, index);
    if (r->header.result == -2) {
      EXPECT_EQ(r->header.len0, 0);
      EXPECT_EQ(r->header.len1, 0);
      EXPECT_EQ(r->header.arg0, kMaskAll);
      break;
    }
    ASSERT_EQ(r->header.result, 0);
    EXPECT_EQ(r->header.len1, 0);
    EXPECT_EQ(static_cast<size_t>(r->header.len0), r->data0.size());
    names.push_back(r->data0);
    flags.push_back(r->header.arg0);
    ASSERT_LT(index, 10u);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"a", "b/", "c"}));
  EXPECT_EQ(flags, (std::vector<uint32_t>{KEYF_VALUE | KEYF_USER, KEYF_DIR, KEYF_VALUE}));

  // Index 0 among the directories only.
  auto r = f.request(LOREG_MSG_KEY_QUERY, 1u << 8, 0, 0, "", f.full("/d/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "b/");
}

TEST_F(Commands, KeyQueryIndexZeroMaskZeroFindsNothing) {
  Put("/d/a", "1");
  auto r = f.request(LOREG_MSG_KEY_QUERY, 0, 0, 0, "", f.full("/d/"));
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1005, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, -2);
  EXPECT_EQ(r->header.arg0, 0u);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
}

TEST_F(Commands, KeyQueryNegativeIndexNamesTheKeyItself) {
  Put("/d/key", "1", 0x30401);
  auto r = f.request(LOREG_MSG_KEY_QUERY, 0, 0xFFFFFFFFu, 0, "", f.full("/d/key"));
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1005, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg0, KEYF_VALUE | KEYF_USER);
  EXPECT_EQ(r->header.arg1, 0xFFFFFFFFu);
  EXPECT_EQ(r->data0, "key");
  EXPECT_EQ(r->header.len0, 3);
  EXPECT_EQ(r->header.len1, 0);
  r = f.request(LOREG_MSG_KEY_QUERY, 0, 0x80000000u, 0, "", f.full("/d/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "d/");
  EXPECT_EQ(r->header.arg0, KEYF_DIR);
  r = f.request(LOREG_MSG_KEY_QUERY, 0, 0xFFFFFFFFu, 0, "", f.full("/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->data0, "/");
  EXPECT_EQ(r->header.arg0, KEYF_DIR | KEYF_ROOT);
}

TEST_F(Commands, KeyQueryOfMissingOrLockedKey) {
  auto r = f.request(LOREG_MSG_KEY_QUERY, kMaskAll, 0, 0, "", f.full("/nope/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -2);
  EXPECT_EQ(r->header.len0, 0);
  Put("/d/a", "1");
  Start("/d/");
  r = f.request(LOREG_MSG_KEY_QUERY, kMaskAll, 0, 0, "", f.full("/d/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  EXPECT_EQ(r->header.len0, 0);
  r = f.request(LOREG_MSG_KEY_QUERY, kMaskAll, 0, -1, "", f.full("/d/"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "a");
}

// --- store and reload ----------------------------------------------------------------

TEST_F(Commands, StoreWritesTheOtherFileAndCleans) {
  Put("/a", "1");
  auto r = f.request(LOREG_MSG_REPO_STORE, 0x5, 0x6, 0, "", "");
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1008, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->header.arg0, 0x5u);
  EXPECT_EQ(r->header.arg1, 0x6u);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  EXPECT_EQ(f.server()->dirty, 0);
  EXPECT_FALSE(testsupport::file_exists(f.file0()));
  EXPECT_NE(testsupport::read_file(f.file1()).find("  KEY 0x04 a 1\n"), std::string::npos);
}

TEST_F(Commands, StoreOnACleanRepositoryWritesNothing) {
  auto r = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_FALSE(testsupport::file_exists(f.file0()));
  EXPECT_FALSE(testsupport::file_exists(f.file1()));
}

TEST_F(Commands, StoreDuringATransactionIsRefused) {
  Put("/a/b", "1");
  int32_t tid = Start("/a/");
  auto r = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -13);
  EXPECT_FALSE(testsupport::file_exists(f.file1()));
  r = f.request(LOREG_MSG_REPO_RELOAD, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1009, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, -13);
  // Once it ended the store goes through.
  ASSERT_TRUE(f.request(LOREG_MSG_TA_END, 0, 0, tid, "", ""));
  r = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(testsupport::file_exists(f.file1()));
}

TEST_F(Commands, StoreIsNotBlockedByAcquiredIds) {
  Put("/a", "1");
  ASSERT_EQ(f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/a"))->header.result, 0);
  auto r = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
}

class CommandsNoPersist : public Commands {
 protected:
  static ServerOptions Options() {
    ServerOptions options;
    options.options = LORS_OPT_NO_PERSIST;
    return options;
  }
  CommandsNoPersist() : Commands(Options()) {}
};

TEST_F(CommandsNoPersist, StoreAndReloadReportZeroAndDoNothing) {
  Put("/a/b", "1");
  Start("/a/");
  for (uint16_t type : {LOREG_MSG_REPO_STORE, LOREG_MSG_REPO_RELOAD}) {
    auto r = f.request(type, 0, 0, 0, "", "");
    ASSERT_TRUE(r);
    ExpectEchoed(*r, static_cast<uint16_t>(type + 0x1000), f.last_reqid(), 0);
    EXPECT_EQ(r->header.result, 0);
  }
  EXPECT_FALSE(testsupport::file_exists(f.file0()));
  EXPECT_FALSE(testsupport::file_exists(f.file1()));
  EXPECT_NE(f.server()->dirty, 0);
}

class CommandsExportBoth : public Commands {
 protected:
  static ServerOptions Options() {
    ServerOptions options;
    options.options = LORS_OPT_EXPORT_BOTH;
    return options;
  }
  CommandsExportBoth() : Commands(Options()) {}
};

TEST_F(CommandsExportBoth, FirstStoreOfACleanRepositoryWritesBothFiles) {
  auto r = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_TRUE(testsupport::file_exists(f.file0()));
  EXPECT_TRUE(testsupport::file_exists(f.file1()));
  EXPECT_EQ(testsupport::read_file(f.file0()), testsupport::read_file(f.file1()));
  // The second one on a clean repository writes nothing.
  testsupport::write_file(f.file1(), "gone");
  r = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(testsupport::read_file(f.file1()), "gone");
}

TEST_F(Commands, ReloadWithoutFilesFails) {
  Put("/a", "1");
  auto r = f.request(LOREG_MSG_REPO_RELOAD, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  ExpectEchoed(*r, 0x1009, f.last_reqid(), 0);
  EXPECT_EQ(r->header.result, -9);
  EXPECT_EQ(r->header.len0, 0);
  EXPECT_EQ(r->header.len1, 0);
  EXPECT_EQ(f.get("/a")->data0, "1");
}

TEST_F(Commands, ReloadTakesANewerFile) {
  Put("/a", "1");
  // A file with a higher commit count than the server's 0.
  uint32_t crc = 0xFFFFFFFFu;
  for (const char *part : {"/", "x", "from file"}) crc = crc_update(crc, part, std::strlen(part));
  char text[256];
  std::snprintf(text, sizeof(text),
                "DIR 0x28 /\n  KEY 0x04 x from%%20file\n/DIR\nCOMMIT_COUNT 5\nCRC 0x%08x\n", crc);
  testsupport::write_file(f.file0(), text);
  auto r = f.request(LOREG_MSG_REPO_RELOAD, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(f.get("/x")->data0, "from file");
  EXPECT_EQ(f.get("/a")->header.result, -2);
  EXPECT_EQ(f.server()->commit_count, 5u);
  // The same file once more is too old.
  r = f.request(LOREG_MSG_REPO_RELOAD, 0, 0, 0, "", "");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, -9);
}

// --- echo and root key query ------------------------------------------------------------

TEST_F(Commands, EchoReturnsEverything) {
  std::string data0("d0\0x", 4);
  std::string data1 = "/any/path/at/all";
  loreg_msg msg{};
  msg.header.msgtype = LOREG_MSG_ECHO;
  msg.header.reserved0 = 0x1357;
  msg.header.reqid = 4242;
  msg.header.arg0 = 0xDEADBEEFu;
  msg.header.arg1 = 0x01020304u;
  msg.header.tid = -77;
  msg.header.result = -99;
  msg.header.len0 = static_cast<uint16_t>(data0.size());
  msg.header.len1 = static_cast<uint16_t>(data1.size());
  msg.header.reserved1 = 0x2468ACE0u;
  msg.data0 = data0.data();
  msg.data1 = data1.data();
  ASSERT_EQ(f.client().send_msg(msg), 0);
  f.pump();
  auto r = f.client().take_reply(4242);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.msgtype, 0x100B);
  EXPECT_EQ(r->header.reserved0, 0x1357);
  EXPECT_EQ(r->header.reqid, 4242u);
  EXPECT_EQ(r->header.arg0, 0xDEADBEEFu);
  EXPECT_EQ(r->header.arg1, 0x01020304u);
  EXPECT_EQ(r->header.tid, -77);
  EXPECT_EQ(r->header.result, -99);
  EXPECT_EQ(r->header.len0, 4);
  EXPECT_EQ(static_cast<size_t>(r->header.len1), data1.size());
  EXPECT_EQ(r->header.reserved1, 0x2468ACE0u);
  EXPECT_EQ(r->data0, data0);
  EXPECT_EQ(r->data1, data1);
  EXPECT_TRUE(f.client().notifications().empty());
}

TEST_F(Commands, RootKeyQueryAnswersTheAskerAlone) {
  WireClient other(f.lmq(), true);
  f.pump();  // the new subscriber's root broadcast
  other.poll();
  other.clear();
  f.client().clear();

  ASSERT_EQ(f.request(LOREG_MSG_VALUE_SET, 0x00400, 0, 0, "root value", f.full("/"))->header.result, 0);
  f.client().clear();
  other.poll();
  other.clear();

  EXPECT_FALSE(f.request(LOREG_MSG_ROOT_KEY_QUERY, 0, 0, 0, "", ""));
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.msgtype, LOREG_MSG_KEY_UPDATE);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_UPDATE);
  EXPECT_EQ(notes[0].header.arg1, KEYF_ROOT | KEYF_DIR | KEYF_VALUE);
  EXPECT_EQ(notes[0].header.tid, 0);
  EXPECT_EQ(notes[0].header.result, 0);
  EXPECT_EQ(notes[0].header.reqid, 0u);
  EXPECT_EQ(notes[0].data0, "root value");
  EXPECT_EQ(notes[0].data1, "/com/norvi/");
  EXPECT_EQ(notes[0].info.reply.kind, LMQ_KIND_REPLY);
  other.poll();
  EXPECT_TRUE(other.messages().empty());
}

}  // namespace
