// The repository server's core: lors_init's checks, root path and file
// table, its unwinding after failures, dispatch refusals, the dispatch
// skeleton, shutdown, and the root key broadcast driven by the clock hook.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "loreg/loreg_msg.h"
#include "loreg/lors.h"
#include "loreg/lors_commit.h"
#include "loreg/lors_fio.h"
#include "platform/lmq.h"
#include "support/log_capture.h"
#include "support/server_fixture.h"
#include "support/temp_dir.h"
#include "support/test_allocator.h"
#include "support/wire_client.h"

namespace {

using testsupport::LogCapture;
using testsupport::ServerFixture;
using testsupport::ServerOptions;
using testsupport::TempDir;
using testsupport::TestAllocator;
using testsupport::WireClient;
using testsupport::WireMessage;

constexpr uint32_t kSubscriberPresent = 0x185627F4u;

// A value set request's flags for a plain value.
constexpr uint32_t kSetPlain = 0x30400;

// A hand-made request for lors_dispatch_msg, as validation would leave it:
// data0 and data1 terminated.
struct HandMessage {
  std::string data0;
  std::string data1;
  loreg_msg msg{};
  lmq_rx_info info{};

  HandMessage(uint16_t type, uint32_t reqid, int32_t tid, const std::string &d0,
              const std::string &d1)
      : data0(d0), data1(d1) {
    msg.header.msgtype = type;
    msg.header.reqid = reqid;
    msg.header.tid = tid;
    msg.header.len0 = static_cast<uint16_t>(data0.size());
    msg.header.len1 = static_cast<uint16_t>(data1.size());
    msg.data0 = data0.data();
    msg.data1 = data1.data();
    info.reply.kind = LMQ_KIND_COMMAND;
  }
};

// lors_init with the parameters of a server on a caller's lmq client.
class DirectServer {
 public:
  DirectServer() {
    EXPECT_EQ(lmqServerCreate(&m_lmq), 0);
    EXPECT_EQ(lmqClientInit(&m_client, m_queue.data(), static_cast<uint32_t>(m_queue.size())), 0);
    EXPECT_EQ(lmqServerAddClient(m_lmq, &m_client), 0);
    m_params.lmq_server = m_lmq;
    m_params.lmq_client = &m_client;
    m_params.options = LORS_OPT_NO_PERSIST;
  }
  ~DirectServer() {
    lmqServerRemoveClient(m_lmq, &m_client);
    lmqClientRelease(&m_client);
    lmqServerDestroy(m_lmq);
  }
  lors_params &params() { return m_params; }
  lmq_server *lmq() { return m_lmq; }
  lmq_client *client() { return &m_client; }

 private:
  lmq_server *m_lmq = nullptr;
  lmq_client m_client{};
  std::vector<unsigned char> m_queue = std::vector<unsigned char>(64 * 1024);
  lors_params m_params{};
};

// --- lors_init's arguments --------------------------------------------

TEST(LorsInit, NullParamsAndNullHandleAreRefusedInThisOrder) {
  LogCapture log;
  lors_ctx *server = nullptr;
  lors_params params{};

  EXPECT_EQ(lors_init(&server, nullptr), -22);
  EXPECT_TRUE(log.has_line("lors_init(pHandle, NULL): need initialization parameters!\n"))
      << log.dump();
  log.clear();

  EXPECT_EQ(lors_init(nullptr, &params), -22);
  EXPECT_TRUE(log.has_line("lors_init(NULL): need to return server handle!\n")) << log.dump();
  log.clear();

  // Both null: the parameters are looked at first.
  EXPECT_EQ(lors_init(nullptr, nullptr), -22);
  EXPECT_TRUE(log.has_line("lors_init(pHandle, NULL): need initialization parameters!\n"));
  EXPECT_FALSE(log.contains("need to return server handle"));
  EXPECT_EQ(server, nullptr);
}

TEST(LorsInit, SuccessLineNamesTheDefaultRootAndTheHandleIsPublished) {
  LogCapture log;
  ServerOptions options;
  options.root_path = "/other/root";
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  EXPECT_TRUE(log.has_line_matching(
      "lors_server\\.c:[0-9]+:lors_init\\(\\): lors_init success, root_path='/com/norvi'\n"))
      << log.dump();
  EXPECT_EQ(g_loregServerHandle, f.server());
  EXPECT_EQ(f.server()->magic, LORS_MAGIC);
  EXPECT_STREQ(lors_get_rootpath(f.server()), "/other/root");
  EXPECT_EQ(f.stop(), 0);
  EXPECT_EQ(g_loregServerHandle, nullptr);
}

TEST(LorsInit, ContextStartsEmpty) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  lors_ctx *s = f.server();
  EXPECT_EQ(s->last_tid, 0);
  EXPECT_EQ(s->stop, 0);
  EXPECT_EQ(s->dirty, 0);
  EXPECT_TRUE(TAILQ_EMPTY(&s->active_q));
  EXPECT_TRUE(TAILQ_EMPTY(&s->wait_q));
  EXPECT_TRUE(TAILQ_EMPTY(&s->acquired_q));
  ASSERT_NE(s->root, nullptr);
  EXPECT_EQ(std::string(s->root->name.ptr, s->root->name.len), "/");
  EXPECT_EQ(s->root->flags & 0xFFu, KEYF_ROOT | KEYF_DIR);
  EXPECT_NE(s->timers, nullptr);
  // Fed by the caller: no queue of its own, and no thread.
  EXPECT_EQ(s->lmq.queue, nullptr);
  EXPECT_EQ(s->lmq.stages & LOREG_LMQ_STAGE_HOSTING, LOREG_LMQ_STAGE_HOSTING);
  EXPECT_EQ(lors_get_service_id(s), f.client().service_id());
}

// --- root path --------------------------------------------------------

struct RootCase {
  const char *given;
  const char *text;
};

TEST(LorsInit, RootPathIsNormalised) {
  const RootCase cases[] = {
      {nullptr, "/com/norvi"}, {"/com/norvi/", "/com/norvi"}, {"a/b/", "/a/b"},
      {"/a/b", "/a/b"},        {"x", "/x"},                   {"", ""},
      {"/", ""},               {"a//", "/a/"},
  };
  for (const RootCase &c : cases) {
    SCOPED_TRACE(c.given ? c.given : "(null)");
    DirectServer d;
    d.params().root_path = c.given;
    lors_ctx *server = nullptr;
    ASSERT_EQ(lors_init(&server, &d.params()), 0);
    EXPECT_STREQ(server->root_path_text, c.text);
    EXPECT_EQ(server->root_path_len, static_cast<int32_t>(std::strlen(c.text)));
    EXPECT_STREQ(lors_get_rootpath(server), c.text);
    // The text lies in the context's own block, behind the record.
    EXPECT_GT(reinterpret_cast<const char *>(server->root_path_text),
              reinterpret_cast<const char *>(server));
    EXPECT_EQ(lors_shutdown(server), 0);
  }
}

TEST(LorsServer, RelativeRootAFromSlashBSlashServesUnderSlashASlashB) {
  ServerOptions options;
  options.root_path = "a/b/";
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  f.client().clear();
  auto r = f.request(LOREG_MSG_VALUE_SET, kSetPlain, 0, 0, "v", "/a/b/k");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].data1, "/a/b/k");
  // The text as given is not the root.
  EXPECT_FALSE(f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", "a/b/k"));
}

TEST(LorsServer, EmptyRootWantsEveryPathToBeginWithSlash) {
  ServerOptions options;
  options.root_path = "";
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  f.client().clear();

  auto r = f.request(LOREG_MSG_VALUE_SET, kSetPlain, 0, 0, "1", "/k");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].data1, "/k");

  r = f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", "/k");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "1");

  // Without the leading "/" nothing is compared, and nothing answers.
  EXPECT_FALSE(f.request(LOREG_MSG_VALUE_QUERY, 0, 0, 0, "", "k"));
  EXPECT_FALSE(f.request(LOREG_MSG_VALUE_SET, kSetPlain, 0, 0, "2", "x/k"));

  // The root's own path is "/" alone.
  f.client().clear();
  f.send(LOREG_MSG_ROOT_KEY_QUERY, 0, 0, 0, "", "");
  f.pump();
  notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].data1, "/");
}

// --- file table ---------------------------------------------------------

int32_t WriteNothing(void *, const void *, uint32_t size) { return static_cast<int32_t>(size); }
int32_t ReadNothing(void *, void *, uint32_t) { return 0; }

TEST(LorsInit, FileTableWithoutEntriesTakesTheDefaults) {
  DirectServer d;
  lors_fio given{};
  given.write = WriteNothing;
  d.params().fio = &given;
  lors_ctx *server = nullptr;
  ASSERT_EQ(lors_init(&server, &d.params()), 0);
  ASSERT_EQ(server->fio, &server->fio_copy);
  EXPECT_EQ(server->fio->device, nullptr);  // a null device stays null
  EXPECT_STREQ(server->fio->file0, "/tmp/loreg0.dat");
  EXPECT_STREQ(server->fio->file1, "/tmp/loreg1.dat");
  EXPECT_EQ(server->fio->open, g_lors_default_fio.open);
  EXPECT_EQ(server->fio->close, g_lors_default_fio.close);
  EXPECT_EQ(server->fio->read, g_lors_default_fio.read);
  EXPECT_EQ(server->fio->write, &WriteNothing);
  EXPECT_EQ(lors_shutdown(server), 0);
}

TEST(LorsInit, FileTableTextsAreCopiedIntoTheContext) {
  DirectServer d;
  char device[] = "flash";
  char file0[] = "/x/zero";
  char file1[] = "/x/one";
  lors_fio given{};
  given.device = device;
  given.file0 = file0;
  given.file1 = file1;
  given.read = ReadNothing;
  d.params().fio = &given;
  lors_ctx *server = nullptr;
  ASSERT_EQ(lors_init(&server, &d.params()), 0);
  // The caller's texts may change or go away after the call.
  std::strcpy(device, "XXXXX");
  std::strcpy(file0, "/y/yyyy");
  std::strcpy(file1, "/y/yyy");
  EXPECT_STREQ(server->fio->device, "flash");
  EXPECT_STREQ(server->fio->file0, "/x/zero");
  EXPECT_STREQ(server->fio->file1, "/x/one");
  EXPECT_EQ(server->fio->read, &ReadNothing);
  EXPECT_EQ(server->fio->open, g_lors_default_fio.open);
  EXPECT_EQ(server->fio->write, g_lors_default_fio.write);
  // All in the server's one block, behind the record.
  const char *base = reinterpret_cast<const char *>(server);
  for (const char *text : {server->fio->device, server->fio->file0, server->fio->file1}) {
    EXPECT_GT(text, base);
    EXPECT_LT(text, server->root_path_text);
  }
  EXPECT_EQ(lors_shutdown(server), 0);
}

TEST(LorsInit, NoFileTableCopiesTheDefaultTable) {
  DirectServer d;
  lors_ctx *server = nullptr;
  ASSERT_EQ(lors_init(&server, &d.params()), 0);
  EXPECT_EQ(server->fio, &server->fio_copy);
  EXPECT_EQ(server->fio->device, nullptr);
  EXPECT_STREQ(server->fio->file0, g_lors_default_fio.file0);
  EXPECT_STREQ(server->fio->file1, g_lors_default_fio.file1);
  EXPECT_EQ(server->fio->open, g_lors_default_fio.open);
  EXPECT_EQ(server->fio->close, g_lors_default_fio.close);
  EXPECT_EQ(server->fio->read, g_lors_default_fio.read);
  EXPECT_EQ(server->fio->write, g_lors_default_fio.write);
  EXPECT_EQ(lors_shutdown(server), 0);
}

// --- failures of lors_init ------------------------------------------------

// Fails each allocation that lors_init reaches in turn, with a thread of
// its own (lmq queue and client allocated here). Each failure gives -12 and
// leaves nothing behind; once no failure is reached the server runs.
TEST(LorsInit, EachAllocationFailureUnwindsWithoutLeaks) {
  TestAllocator alloc;
  lmq_server *lmq = nullptr;
  ASSERT_EQ(lmqServerCreate(&lmq), 0);
  lors_params params{};
  params.allocator = alloc.handle();
  params.lmq_server = lmq;
  params.options = LORS_OPT_NO_PERSIST;

  int failures = 0;
  for (uint64_t n = 1; n < 100; n++) {
    SCOPED_TRACE(n);
    LogCapture log;
    lors_ctx *server = nullptr;
    alloc.fail_at(n);
    int rc = lors_init(&server, &params);
    if (!alloc.failed()) {
      alloc.disarm();
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(lors_shutdown(server), 0);
      break;
    }
    failures++;
    EXPECT_EQ(rc, -12) << log.dump();
    EXPECT_EQ(server, nullptr);
    EXPECT_EQ(alloc.live_blocks(), 0u);
    EXPECT_FALSE(log.contains("lors_init success"));
    if (n == 1) {
      EXPECT_TRUE(log.has_line_matching("lors_init\\(\\) failed to alloc [0-9]+ bytes context\n"))
          << log.dump();
    }
    if (n == 2) {
      EXPECT_TRUE(log.has_line("lors_rootkey_alloc() failed to alloc root key node\n"))
          << log.dump();
    }
  }
  // Context, root, timer queue, lmq queue and client block at least.
  EXPECT_GE(failures, 5);
  EXPECT_EQ(alloc.live_blocks(), 0u);
  lmqServerDestroy(lmq);
}

// With the import at start (no files there), a failure inside the import
// is not lors_init's: the server starts all the same.
TEST(LorsInit, AllocationFailuresWithImportLeaveNothingBehind) {
  TestAllocator alloc;
  TempDir dir;
  DirectServer d;
  lors_fio fio = g_lors_default_fio;
  std::string file0 = dir.file("loreg0.dat"), file1 = dir.file("loreg1.dat");
  fio.file0 = file0.c_str();
  fio.file1 = file1.c_str();
  d.params().fio = &fio;
  d.params().options = 0;
  d.params().allocator = alloc.handle();

  int refused = 0, started = 0;
  for (uint64_t n = 1; n < 100; n++) {
    SCOPED_TRACE(n);
    lors_ctx *server = nullptr;
    alloc.fail_at(n);
    int rc = lors_init(&server, &d.params());
    bool hit = alloc.failed();
    alloc.disarm();
    if (rc == 0) {
      started++;
      EXPECT_EQ(lors_shutdown(server), 0);
    } else {
      refused++;
      EXPECT_EQ(rc, -12);
    }
    EXPECT_EQ(alloc.live_blocks(), 0u);
    if (!hit) break;
  }
  EXPECT_GE(refused, 3);  // context, root, timer queue
  EXPECT_GE(started, 2);  // an import failure, and the run without failure
}

TEST(LorsInit, LmqFailureUnwinds) {
  TestAllocator alloc;
  LogCapture log;
  lors_params params{};
  params.allocator = alloc.handle();
  params.options = LORS_OPT_NO_PERSIST;  // and no lmq server
  lors_ctx *server = nullptr;
  EXPECT_EQ(lors_init(&server, &params), -22);
  EXPECT_TRUE(log.has_line("loreg_lmq_init() no lmq server given!\n")) << log.dump();
  EXPECT_EQ(server, nullptr);
  EXPECT_EQ(alloc.live_blocks(), 0u);
  EXPECT_GT(alloc.allocations(), 0u);
}

TEST(LorsInit, HostingFailureUnwinds) {
  TestAllocator alloc;
  DirectServer d;
  int16_t id = 0;
  ASSERT_EQ(lmqRegisterPlainId(d.lmq(), "LOREG", 6, &id), 0);
  ASSERT_EQ(lmqHostService(d.client(), id, 0), 0);  // the client hosts already
  d.params().allocator = alloc.handle();
  lors_ctx *server = nullptr;
  LogCapture log;
  EXPECT_EQ(lors_init(&server, &d.params()), -14);
  EXPECT_TRUE(log.contains("lmqHostService(LOREG) failed")) << log.dump();
  EXPECT_EQ(alloc.live_blocks(), 0u);
  // The attachment was undone: the client still hosts by its own call only.
  EXPECT_EQ(lmqUnHostService(d.client(), id), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(d.lmq(), id), 0);
}

// A failure after a successful import frees the imported tree as well.
TEST(LorsInit, FailureAfterAnImportFreesTheImportedTree) {
  TempDir dir;
  lors_fio fio = g_lors_default_fio;
  std::string file0 = dir.file("loreg0.dat"), file1 = dir.file("loreg1.dat");
  fio.file0 = file0.c_str();
  fio.file1 = file1.c_str();
  {
    ServerOptions options;
    options.fio = &fio;
    options.options = LORS_OPT_COMMIT_ON_SHUTDOWN;
    ServerFixture f(options);
    ASSERT_EQ(f.start(), 0);
    ASSERT_TRUE(f.set("/a/b", "1"));
    ASSERT_TRUE(f.set("/a/c", "2"));
    // The fixture puts the files in its own directory: copy what it wrote.
    ASSERT_EQ(f.stop(), 0);
    std::ifstream in(f.file1(), std::ios::binary);
    std::ofstream out(file0, std::ios::binary);
    out << in.rdbuf();
    ASSERT_TRUE(in && out);
  }

  TestAllocator alloc;
  DirectServer d;
  int16_t id = 0;
  ASSERT_EQ(lmqRegisterPlainId(d.lmq(), "LOREG", 6, &id), 0);
  ASSERT_EQ(lmqHostService(d.client(), id, 0), 0);  // hosting will fail
  d.params().allocator = alloc.handle();
  d.params().options = 0;
  d.params().fio = &fio;
  lors_ctx *server = nullptr;
  LogCapture log;
  EXPECT_EQ(lors_init(&server, &d.params()), -14);
  EXPECT_TRUE(log.has_line_matching(
      "lors_import\\.c:[0-9]+:lors_import\\(\\): Import: 4 key\\(s\\) read from '.*', "
      "commit_count=1\\.\n"))
      << log.dump();
  EXPECT_EQ(server, nullptr);
  EXPECT_EQ(alloc.live_blocks(), 0u);
  EXPECT_EQ(lmqUnHostService(d.client(), id), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(d.lmq(), id), 0);
}

// --- public calls on invalid servers ---------------------------------------

TEST(LorsServer, InvalidServersAreRefused) {
  LogCapture log;
  lors_ctx fake{};
  EXPECT_EQ(lors_get_service_id(nullptr), 0);
  EXPECT_EQ(lors_get_service_id(&fake), 0);
  EXPECT_EQ(lors_get_rootpath(nullptr), nullptr);
  EXPECT_TRUE(log.has_line("lors_get_rootpath(): server not yet initialized.\n"));
  log.clear();
  EXPECT_EQ(lors_get_rootpath(&fake), nullptr);
  EXPECT_TRUE(log.has_line("lors_get_rootpath(): server not yet initialized.\n"));
  log.clear();
  EXPECT_EQ(lors_shutdown(nullptr), -14);
  EXPECT_TRUE(log.has_line("lors_shutdown(): server not yet initialized.\n"));
  EXPECT_EQ(lors_shutdown(&fake), -14);
}

TEST(LorsDispatch, RefusalsGiveMinus227) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  HandMessage m(LOREG_MSG_ECHO, 1, 0, "", "");
  lors_ctx fake{};

  EXPECT_EQ(lors_dispatch_msg(nullptr, &m.msg, &m.info), -227);
  EXPECT_EQ(lors_dispatch_msg(f.server(), nullptr, &m.info), -227);
  EXPECT_EQ(lors_dispatch_msg(f.server(), &m.msg, nullptr), -227);
  EXPECT_EQ(lors_dispatch_msg(&fake, &m.msg, &m.info), -227);

  // A wrong magic is refused even with everything else in place.
  f.server()->magic = 0;
  EXPECT_EQ(lors_dispatch_msg(f.server(), &m.msg, &m.info), -227);
  f.server()->magic = LORS_MAGIC;
  EXPECT_EQ(lors_dispatch_msg(f.server(), &m.msg, &m.info), 0);

  // The system message path refuses alike, quietly: no root broadcast.
  f.client().clear();
  lors_dispatch_sysmsg(nullptr, kSubscriberPresent, 1);
  lors_dispatch_sysmsg(&fake, kSubscriberPresent, 1);
  f.server()->magic = 0;
  lors_dispatch_sysmsg(f.server(), kSubscriberPresent, 1);
  f.server()->magic = LORS_MAGIC;
  f.pump();
  EXPECT_TRUE(f.client().notifications().empty());
  lors_dispatch_sysmsg(f.server(), kSubscriberPresent, 1);
  f.pump();
  EXPECT_EQ(f.client().notifications().size(), 1u);
}

TEST(LorsDispatch, ServerWithItsOwnThreadRefusesDispatch) {
  ServerOptions options;
  options.own_thread = true;
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  ASSERT_NE(f.server()->lmq.queue, nullptr);
  HandMessage m(LOREG_MSG_ECHO, 1, 0, "", "");
  EXPECT_EQ(lors_dispatch_msg(f.server(), &m.msg, &m.info), -227);
  EXPECT_EQ(f.stop(), 0);
}

// --- dispatch skeleton ---------------------------------------------------------

TEST(LorsDispatch, ReplyTypeGivesMinus201) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  f.client().clear();
  for (uint16_t type : {uint16_t{0x1002}, uint16_t{0x20E1}, uint16_t{0x8000}, uint16_t{0x1001}}) {
    HandMessage m(type, 9, 0, "", "/com/norvi/a");
    m.info.reply = f.client().address();
    EXPECT_EQ(lors_dispatch_msg(f.server(), &m.msg, &m.info), -201) << type;
  }
  f.pump();
  EXPECT_TRUE(f.client().messages().empty());
}

TEST(LorsDispatch, ReplyTypeThroughTheRealLoopIsReportedByTheLoop) {
  LogCapture log;
  ServerOptions options;
  options.own_thread = true;
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  uint32_t bad = f.send(0x1002, 0, 0, 0, "", "/com/norvi/a");
  // The loop serves in order: once the echo is answered, 0x1002 was seen.
  auto echo = f.request(LOREG_MSG_ECHO, 1, 2, 3, "x", "y");
  ASSERT_TRUE(echo);
  EXPECT_TRUE(log.has_line("loreg_msgloop(): unexpected msgtype (0x1002) - message ignored\n"))
      << log.dump();
  EXPECT_FALSE(f.client().take_reply(bad));
  EXPECT_EQ(f.stop(), 0);
}

TEST(LorsDispatch, UnknownRequestsAreLoggedAndDropped) {
  LogCapture log;
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  f.client().clear();

  HandMessage m(0x00FF, 77, -5, "a", "bcd");
  m.info.reply = f.client().address();
  EXPECT_EQ(lors_dispatch_msg(f.server(), &m.msg, &m.info), 0);
  EXPECT_TRUE(
      log.has_line("lors_onUnknownReq( msgtype=0x00ff, reqid=77, tid=-5, len0=1, len1=3 ) \n"))
      << log.dump();

  HandMessage zero(0, 78, 0, "", "");
  zero.info.reply = f.client().address();
  EXPECT_EQ(lors_dispatch_msg(f.server(), &zero.msg, &zero.info), 0);
  EXPECT_TRUE(
      log.has_line("lors_onUnknownReq( msgtype=0x0000, reqid=78, tid=0, len0=0, len1=0 ) \n"));

  // The same through lmq: no reply.
  EXPECT_FALSE(f.request(0x0F00, 0, 0, 0, "", "/com/norvi/a"));
  EXPECT_TRUE(log.contains("lors_onUnknownReq( msgtype=0x0f00"));
  f.pump();
  EXPECT_TRUE(f.client().messages().empty());
}

// Every dispatch ends in the timer processing: a root timer that fell due
// fires at the next message, also one that is dropped.
TEST(LorsDispatch, EveryPathRunsTheTimers) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  ASSERT_GT(f.server()->root_timer, 0);
  const uint16_t types[] = {0x1002, 0x00FF, LOREG_MSG_VALUE_QUERY, LOREG_MSG_ECHO};
  for (uint16_t type : types) {
    SCOPED_TRACE(type);
    f.client().clear();
    // Past the timer's next time, without running it.
    _cspOsalTime_struct delta = {108, 0};
    cspOsalTestAdvanceUptime(&delta);
    // A query with a broken path: dropped without a reply.
    HandMessage m(type, 5, 0, "", "/broken");
    m.info.reply = f.client().address();
    lors_dispatch_msg(f.server(), &m.msg, &m.info);
    f.pump();
    size_t roots = 0;
    for (const WireMessage &n : f.client().notifications()) {
      if (n.header.arg0 == LOREG_REASON_KEY_UPDATE && n.data1 == "/com/norvi/") roots++;
    }
    EXPECT_EQ(roots, 1u);
  }
}

// --- root key broadcast -----------------------------------------------------

TEST(LorsRootTimer, SubscriberGetsRootKeyAtOnceThenAfter5sThenEvery107s) {
  ServerFixture f;  // its client subscribed before the server hosted
  ASSERT_EQ(f.start(), 0);

  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.msgtype, LOREG_MSG_KEY_UPDATE);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_UPDATE);
  EXPECT_EQ(notes[0].header.arg1, KEYF_ROOT | KEYF_DIR);
  EXPECT_EQ(notes[0].header.tid, 0);
  EXPECT_EQ(notes[0].header.result, 0);
  EXPECT_EQ(notes[0].data0, "");
  EXPECT_EQ(notes[0].data1, "/com/norvi/");
  int32_t timer = f.server()->root_timer;
  EXPECT_GT(timer, 0);

  f.advance_ms(4500);
  EXPECT_EQ(f.client().notifications().size(), 1u);
  f.advance_ms(600);
  EXPECT_EQ(f.client().notifications().size(), 2u);
  f.advance_ms(106000);
  EXPECT_EQ(f.client().notifications().size(), 2u);
  f.advance_ms(1000);
  EXPECT_EQ(f.client().notifications().size(), 3u);
  f.advance_ms(107000);
  EXPECT_EQ(f.client().notifications().size(), 4u);
  for (const WireMessage &n : f.client().notifications()) {
    EXPECT_EQ(n.header.arg0, LOREG_REASON_KEY_UPDATE);
    EXPECT_EQ(n.data1, "/com/norvi/");
  }

  // A further subscriber gets its broadcast at once; the timer stays the
  // one made first.
  WireClient second(f.lmq(), true);
  f.pump();
  second.poll();
  EXPECT_EQ(second.notifications().size(), 1u);
  EXPECT_EQ(f.server()->root_timer, timer);
}

TEST(LorsRootTimer, NoSubscriberNoTimer) {
  DirectServer d;
  lors_ctx *server = nullptr;
  ASSERT_EQ(lors_init(&server, &d.params()), 0);
  EXPECT_EQ(server->root_timer, 0);
  lors_dispatch_sysmsg(server, kSubscriberPresent, 2);  // another subtype
  EXPECT_EQ(server->root_timer, 0);
  lors_dispatch_sysmsg(server, 0x185627F3u, 1);  // another type
  EXPECT_EQ(server->root_timer, 0);
  lors_dispatch_sysmsg(server, kSubscriberPresent, 1);
  EXPECT_GT(server->root_timer, 0);
  EXPECT_EQ(lors_shutdown(server), 0);
}

// --- stop signal ------------------------------------------------------------

TEST(LorsServer, StopSignalBroadcastsRootDeleteOnlyWhenStopping) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  f.client().clear();
  EXPECT_FALSE(f.request(LOREG_MSG_STOP, 0, 0, 0, "", ""));
  EXPECT_TRUE(f.client().messages().empty());

  f.server()->stop = 1;
  EXPECT_FALSE(f.request(LOREG_MSG_STOP, 0, 0, 0, "", ""));
  auto notes = f.client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_DELETE);
  EXPECT_EQ(notes[0].header.arg1, KEYF_ROOT | KEYF_DIR);
  EXPECT_EQ(notes[0].header.tid, 0);
  EXPECT_EQ(notes[0].data1, "/com/norvi/");
  EXPECT_EQ(f.client().replies_kept(), 0u);
  f.server()->stop = 0;
}

TEST(LorsShutdown, WithoutCommitNothingIsWritten) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  ASSERT_EQ(f.set("/a", "1")->header.result, 0);
  EXPECT_NE(f.server()->dirty, 0);
  EXPECT_EQ(f.stop(), 0);
  EXPECT_FALSE(testsupport::file_exists(f.file0()));
  EXPECT_FALSE(testsupport::file_exists(f.file1()));
}

TEST(LorsShutdown, CommitOnShutdownSavesWhatIsDirty) {
  LogCapture log;
  ServerOptions options;
  options.options = LORS_OPT_COMMIT_ON_SHUTDOWN;
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  ASSERT_EQ(f.set("/a", "1")->header.result, 0);
  EXPECT_EQ(f.stop(), 0);
  EXPECT_TRUE(log.contains("(shutdown) Committing changes.")) << log.dump();
  // The first export goes to the file other than current_file 0.
  EXPECT_FALSE(testsupport::file_exists(f.file0()));
  std::string saved = testsupport::read_file(f.file1());
  EXPECT_NE(saved.find("DIR 0x28 /\n  KEY 0x04 a 1\n/DIR\nCOMMIT_COUNT 1\n"), std::string::npos)
      << saved;
  // A new server on the same files gets the key back.
  ASSERT_EQ(f.start(), 0);
  auto r = f.get("/a");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->header.result, 0);
  EXPECT_EQ(r->data0, "1");
}

TEST(LorsShutdown, CommitOnShutdownOfACleanRepositoryWritesNothing) {
  ServerOptions options;
  options.options = LORS_OPT_COMMIT_ON_SHUTDOWN;
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  EXPECT_EQ(f.stop(), 0);
  EXPECT_FALSE(testsupport::file_exists(f.file0()));
  EXPECT_FALSE(testsupport::file_exists(f.file1()));
}

// Shutdown frees tree, timers and all three queues: with a running
// transaction, a waiter and an acquired id the allocator ends empty.
TEST(LorsShutdown, FreesEverythingWithTransactionsInEveryQueue) {
  TestAllocator alloc;
  {
    ServerOptions options;
    options.allocator = alloc.handle();
    ServerFixture f(options);
    ASSERT_EQ(f.start(), 0);
    ASSERT_EQ(f.set("/a/b", "1")->header.result, 0);
    auto started = f.request(LOREG_MSG_TA_START, 0, 0, 0, "", f.full("/a/"));
    ASSERT_TRUE(started);
    ASSERT_EQ(started->header.result, 0);
    // Waits for the first one for up to 10 s: no reply yet.
    EXPECT_FALSE(f.request(LOREG_MSG_TA_START_TIMED, 10000, 0, 0, "", f.full("/a/b")));
    auto acquired = f.request(LOREG_MSG_TID_ACQUIRE, 0, 0, 0, "", f.full("/x"));
    ASSERT_TRUE(acquired);
    ASSERT_EQ(acquired->header.result, 0);
    EXPECT_FALSE(TAILQ_EMPTY(&f.server()->active_q));
    EXPECT_FALSE(TAILQ_EMPTY(&f.server()->wait_q));
    EXPECT_FALSE(TAILQ_EMPTY(&f.server()->acquired_q));
    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

}  // namespace
