// The client core: start and end in both modes, the client thread and its
// hooks, the dispatch of replies, notifications and system messages, the
// idle hook timer, and the unwinding of a failed start.
#include <gtest/gtest.h>

#include <dirent.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/test_allocator.h"
#include "support/wire_client.h"

using testsupport::ClientFixture;
using testsupport::ServerSetup;
using testsupport::ClientSetup;
using testsupport::LogCapture;
using testsupport::TestAllocator;
using testsupport::WireClient;
using testsupport::WireMessage;

namespace {

constexpr uint32_t kPlain = 0x30400;

std::string S(long v) { return std::to_string(v); }

std::string hex(uintptr_t v) {
  std::ostringstream out;
  out << std::hex << static_cast<unsigned>(v);
  return out.str();
}

int last_job(const LogCapture &log, const std::string &fn) {
  const std::string prefix = fn + "(): created job=";
  int id = -1;
  for (const auto &text : log.texts()) {
    if (text.compare(0, prefix.size(), prefix) == 0) id = std::stoi(text.substr(prefix.size()));
  }
  return id;
}

// Threads of this process that carry the name.
int threads_named(const std::string &name) {
  int n = 0;
  DIR *dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  while (dirent *entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string text;
    std::getline(comm, text);
    if (text == name) n++;
  }
  closedir(dir);
  return n;
}

lorc_client *dead_client() {
  static lorc_client dead;
  std::memset(&dead, 0, sizeof dead);
  return &dead;
}

// A client in the external mode, fed by the test thread.
ClientSetup external_setup(const lorc_hooks *hooks = nullptr) {
  ClientSetup setup;
  setup.external = true;
  setup.hooks = hooks;
  return setup;
}

// A raw client that hosts "LOREG" and answers nothing by itself.
class Swallower {
 public:
  explicit Swallower(lmq_server *lmq, uint32_t queue_bytes = 64 * 1024)
      : m_wire(lmq, false, queue_bytes) {
    EXPECT_EQ(lmqHostService(m_wire.client(), m_wire.service_id(), 0), 0);
  }
  ~Swallower() { lmqUnHostService(m_wire.client(), m_wire.service_id()); }
  WireClient &wire() { return m_wire; }
  // Commands of a type received so far (polling first).
  std::vector<WireMessage> commands(uint16_t type) {
    m_wire.poll();
    std::vector<WireMessage> out;
    for (const auto &m : m_wire.messages()) {
      if (!m.system && m.header.msgtype == type) out.push_back(m);
    }
    return out;
  }
  bool wait_commands(uint16_t type, size_t n) {
    return ClientFixture::wait_until([&] { return commands(type).size() >= n; });
  }

 private:
  WireClient m_wire;
};

// --- Hooks ---------------------------------------------------------------------

struct HookLog {
  std::mutex mutex;
  std::vector<std::string> events;
  std::atomic<int> idle{0};
  std::atomic<int> idleOffThread{0};
  void add(const std::string &event) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(event);
  }
  std::vector<std::string> all() {
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }
};

void on_task_start(lorc_client *client, void *cookie) {
  static_cast<HookLog *>(cookie)->add(std::string("start ") +
                                      (lorc_is_client_thread(client) ? "client" : "other"));
}
void on_task_end(lorc_client *client, void *cookie) {
  static_cast<HookLog *>(cookie)->add(std::string("end ") +
                                      (lorc_is_client_thread(client) ? "client" : "other"));
}
void on_idle(lorc_client *client, void *cookie) {
  auto *hooks = static_cast<HookLog *>(cookie);
  hooks->idle.fetch_add(1);
  if (!lorc_is_client_thread(client)) hooks->idleOffThread.fetch_add(1);
}
void on_sysmsg(lorc_client *client, uint32_t type, uint32_t subType, void *cookie) {
  std::ostringstream out;
  out << "sysmsg 0x" << std::hex << type << "/" << subType << " "
      << (lorc_is_client_thread(client) ? "client" : "other");
  static_cast<HookLog *>(cookie)->add(out.str());
}

lorc_hooks make_hooks(HookLog *log, uint32_t idleTimeMs) {
  lorc_hooks hooks{};
  hooks.cookie = log;
  hooks.idleTimeMs = idleTimeMs;
  hooks.onTaskStart = on_task_start;
  hooks.onTaskEnd = on_task_end;
  hooks.onIdleTimer = on_idle;
  hooks.onSysMsg = on_sysmsg;
  return hooks;
}

// --- Start and end -------------------------------------------------------------

TEST(LorcClientInit, RefusesMissingArguments) {
  LogCapture log;
  lorc_client *client = reinterpret_cast<lorc_client *>(0x1);
  lorc_init_params params{};
  EXPECT_EQ(lorc_init(&client, nullptr), -22);
  EXPECT_TRUE(log.has_line("lorc_init(NULL): need initialization parameters!\n"));
  EXPECT_EQ(lorc_init(nullptr, &params), -22);
  EXPECT_TRUE(log.has_line("lorc_init(NULL): need to return client handle!\n"));
  log.clear();
  EXPECT_EQ(lorc_init(nullptr, nullptr), -22);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"lorc_init(NULL): need initialization parameters!\n"});
  EXPECT_EQ(client, reinterpret_cast<lorc_client *>(0x1));
}

TEST(LorcClientInit, WithoutAnLmqServerNothingIsLeft) {
  TestAllocator alloc;
  lorc_client *client = reinterpret_cast<lorc_client *>(0x1);
  lorc_init_params params{};
  params.allocator = alloc.handle();
  EXPECT_EQ(lorc_init(&client, &params), -22);
  EXPECT_EQ(client, reinterpret_cast<lorc_client *>(0x1));
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(LorcClientInit, NormalModeRunsLorcmainWithItsHooks) {
  HookLog hooks;
  lorc_hooks h = make_hooks(&hooks, 0);
  ClientFixture f;
  int before = threads_named("lorcmain");
  LogCapture log;
  ClientSetup setup;
  setup.hooks = &h;
  ASSERT_EQ(f.add_client(setup), 0);
  lorc_client *c = f.client();
  EXPECT_TRUE(ClientFixture::wait_until([&] { return threads_named("lorcmain") == before + 1; }));
  EXPECT_TRUE(log.has_line("lorc_init(): success\n"));
  EXPECT_TRUE(log.has_line("REG_CLIENT_TEST lorc_init(): success to create reg client , handle = 0x" +
                           hex(reinterpret_cast<uintptr_t>(c)) + ".\n"));
  ASSERT_TRUE(ClientFixture::wait_until([&] { return log.contains("LOREG client task spawned"); }));
  bool spawned = false;
  for (const auto &t : log.texts()) {
    if (t.rfind("lorc_client.c:", 0) == 0 &&
        t.find(":lorc_task_main(): LOREG client task spawned\n") != std::string::npos) {
      spawned = true;
    }
  }
  EXPECT_TRUE(spawned);
  EXPECT_FALSE(lorc_is_client_thread(c));
  EXPECT_EQ(c->idleTimerId, 0);
  EXPECT_EQ(tmrq_TimerGet(c->timers, 0, nullptr), -2);  // no idle timer without a period
  // The service id is that of "LOREG" on this lmq server.
  EXPECT_EQ(lorc_get_service_id(c), f.wire().service_id());
  EXPECT_NE(c->lmq.queue, nullptr);

  log.clear();
  ASSERT_EQ(f.stop_client(0), 0);
  EXPECT_EQ(threads_named("lorcmain"), before);
  EXPECT_TRUE(log.has_line("lorc_shutdown(): wait for message loop task to exit...\n"));
  EXPECT_TRUE(log.has_line("lorc_shutdown() ... message task joined. \n"));
  EXPECT_TRUE(log.has_line("lorc_shutdown(): done.\n"));
  bool ended = false;
  for (const auto &t : log.texts()) {
    if (t.rfind("lorc_client.c:", 0) == 0 &&
        t.find(":lorc_task_main(): LOREG client task ends.\n") != std::string::npos) {
      ended = true;
    }
  }
  EXPECT_TRUE(ended);
  auto events = hooks.all();
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events.front(), "start client");
  EXPECT_EQ(events.back(), "end client");
}

TEST(LorcClientInit, SystemMessagesReachTheHookOnTheClientThread) {
  HookLog hooks;
  lorc_hooks h = make_hooks(&hooks, 0);
  ClientFixture f;
  ClientSetup setup;
  setup.hooks = &h;
  ASSERT_EQ(f.add_client(setup), 0);
  LogCapture log;
  ASSERT_EQ(f.add_server(), 0);  // a host appears: the client is told
  ASSERT_TRUE(f.wait_roots(0, 1));
  EXPECT_TRUE(log.has_line("lorc_task_dispatch_sysmsg(type=0x185627f3, subType=0x1)\n"));
  auto events = hooks.all();
  EXPECT_NE(std::find(events.begin(), events.end(), "sysmsg 0x185627f3/1 client"), events.end());
}

TEST(LorcClientShutdown, RefusesAClientWithoutMagic) {
  LogCapture log;
  EXPECT_EQ(lorc_shutdown(nullptr), -14);
  EXPECT_EQ(lorc_shutdown(dead_client()), -14);
  EXPECT_EQ(log.count("lorc_shutdown(): client not yet initialized.\n"), 2u);
}

TEST(LorcClientShutdown, ExternalModeHasNoThreadToJoin) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_setup()), 0);
  lorc_client *c = f.client();
  EXPECT_EQ(c->lmq.queue, nullptr);
  EXPECT_EQ(c->lmq.client, f.external_lmq_client(0));
  LogCapture log;
  ASSERT_EQ(f.stop_client(0), 0);
  EXPECT_FALSE(log.contains("wait for message loop task"));
  EXPECT_TRUE(log.has_line("lorc_shutdown(): done.\n"));
}

TEST(LorcClientShutdown, FreesEverythingAndWakesNobodyLeftBehind) {
  TestAllocator alloc;
  HookLog hooks;
  lorc_hooks h = make_hooks(&hooks, 250);
  {
    ClientFixture f;
    ASSERT_EQ(f.add_server(), 0);
    ClientSetup setup;
    setup.allocator = alloc.handle();
    setup.hooks = &h;
    ASSERT_EQ(f.add_client(setup), 0);
    lorc_client *c = f.client();
    ASSERT_TRUE(f.wait_roots(0, 1));  // a root node
    ASSERT_GT(lorc_job_cb_register(c, [](lorc_client *, int32_t, int32_t, int32_t, void *) {},
                                   nullptr),
              0);
    ASSERT_GT(lorc_job_create_timer(c, 60000, 0, 0), 0);  // an open job and its timer
    ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/x", "1", 1, kPlain, 5), 0);
    int done = lorc_value_set(c, 0, "/com/norvi/x", "2", 1, kPlain, 0);  // done, uncollected
    ASSERT_GT(done, 0);
    ASSERT_EQ(lorc_job_wait(c, done, 5), 0);
    EXPECT_GT(alloc.live_blocks(), 0u);
    LogCapture log;
    ASSERT_EQ(f.stop_client(0), 0);
    EXPECT_TRUE(log.has_line("apij_InstDestroy(): 2 jobs deleted.\n")) << log.dump();
    EXPECT_TRUE(log.has_line("apij_InstDestroy(): 1 callback subscriptions deleted.\n"));
    EXPECT_EQ(alloc.live_blocks(), 0u);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(LorcClientServiceId, BadClientGivesZero) {
  LogCapture log;
  EXPECT_EQ(lorc_get_service_id(nullptr), 0);
  lorc_client *dead = dead_client();
  EXPECT_EQ(lorc_get_service_id(dead), 0);
  char text[64];
  std::snprintf(text, sizeof text, "lorc_get_service_id(%p): client not initialized.\n",
                static_cast<void *>(dead));
  EXPECT_TRUE(log.has_line(text));
  std::snprintf(text, sizeof text, "lorc_get_service_id(%p): client not initialized.\n",
                static_cast<void *>(nullptr));
  EXPECT_TRUE(log.has_line(text));
}

// --- Failure of a start at each allocation ---------------------------------------

TEST(LorcClientInit, EachAllocationFailureUnwindsWithoutLeaks) {
  ClientFixture f;
  TestAllocator alloc;
  HookLog hooks;
  lorc_hooks h = make_hooks(&hooks, 1000);
  lorc_init_params params{};
  params.allocator = alloc.handle();
  params.lmqServer = f.lmq();
  params.hooks = &h;

  int failures = 0;
  int timerFailures = 0;
  bool succeeded = false;
  for (uint64_t n = 1; n < 50; n++) {
    LogCapture log;
    lorc_client *client = reinterpret_cast<lorc_client *>(0x1);
    alloc.fail_at(n);
    int rc = lorc_init(&client, &params);
    bool failed = alloc.failed();
    alloc.disarm();
    if (!failed) {
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(lorc_shutdown(client), 0);
      succeeded = true;
      break;
    }
    failures++;
    EXPECT_EQ(client, reinterpret_cast<lorc_client *>(0x1)) << "allocation " << n;
    EXPECT_EQ(alloc.live_blocks(), 0u) << "allocation " << n;
    if (log.has_line("lorc_init(): failed creating idle hook timer (code -12)\n")) {
      EXPECT_EQ(rc, -14);  // the timer's own failure is reported as such
      timerFailures++;
    } else {
      EXPECT_EQ(rc, -12) << "allocation " << n << "\n" << log.dump();
    }
    switch (n) {
      case 1:
        EXPECT_TRUE(log.has_line("lorc_init() failed to alloc " + S(sizeof(lorc_client)) +
                                 " bytes context\n"));
        break;
      case 2:
        EXPECT_TRUE(log.has_line("lorc_init() failed to alloc " + S(sizeof(lorc_hooks)) +
                                 " bytes hook struct\n"));
        break;
      case 3:
        EXPECT_TRUE(log.has_line("lorc_init(): failed initializing job handler instance.\n"));
        break;
      case 4:
        EXPECT_TRUE(log.has_line("lorc_init(): failed initializing timer queue instance.\n"));
        break;
      default:
        break;
    }
  }
  EXPECT_TRUE(succeeded);
  // Context, hooks, job handler, timer queue, the lmq queue and client
  // block, the idle timer.
  EXPECT_EQ(failures, 7);
  EXPECT_EQ(timerFailures, 1);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(LorcClientInit, ExternalModeAllocationFailuresUnwind) {
  ClientFixture f;
  TestAllocator alloc;
  lmq_client lmq{};
  std::vector<unsigned char> queue(16384);
  ASSERT_EQ(lmqClientInit(&lmq, queue.data(), static_cast<uint32_t>(queue.size())), 0);
  ASSERT_EQ(lmqServerAddClient(f.lmq(), &lmq), 0);
  lorc_init_params params{};
  params.allocator = alloc.handle();
  params.lmqServer = f.lmq();
  params.lmqClient = &lmq;
  int failures = 0;
  for (uint64_t n = 1; n < 20; n++) {
    lorc_client *client = nullptr;
    alloc.fail_at(n);
    int rc = lorc_init(&client, &params);
    bool failed = alloc.failed();
    alloc.disarm();
    if (!failed) {
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(client->thread, pthread_t{});
      EXPECT_EQ(lorc_shutdown(client), 0);
      break;
    }
    failures++;
    EXPECT_EQ(rc, -12);
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(alloc.live_blocks(), 0u);
  }
  EXPECT_EQ(failures, 3);  // context, job handler, timer queue
  EXPECT_EQ(alloc.live_blocks(), 0u);
  lmqServerRemoveClient(f.lmq(), &lmq);
  lmqClientRelease(&lmq);
}

// --- The idle hook timer -----------------------------------------------------------

int64_t usec_between(const _cspOsalTime_struct &later, const _cspOsalTime_struct &earlier) {
  return (later.sec - earlier.sec) * 1000000 + (later.usec - earlier.usec);
}

TEST(LorcClientIdleTimer, PeriodOfOneAndAHalfSeconds) {
  HookLog hooks;
  lorc_hooks h = make_hooks(&hooks, 1500);
  ClientFixture f;
  ClientSetup setup;
  setup.hooks = &h;
  ASSERT_EQ(f.add_client(setup), 0);
  lorc_client *c = f.client();
  ASSERT_GT(c->idleTimerId, 0);
  tmrq_info info{};
  ASSERT_GE(tmrq_TimerGet(c->timers, c->idleTimerId, &info), 0);
  EXPECT_EQ(info.period.sec, 1);
  EXPECT_EQ(info.period.usec, 500000);

  // Up to 50 ms before the timer falls due: nothing. 50 ms after it: once.
  for (int round = 1; round <= 2; round++) {
    _cspOsalTime_struct now;
    ASSERT_EQ(cspOsalGetUptime(&now), 0);
    int64_t left_ms = usec_between(info.timeout, now) / 1000;
    ASSERT_GT(left_ms, 50) << "the test ran too slowly";
    f.advance_uptime(static_cast<uint64_t>(left_ms - 50));
    EXPECT_EQ(hooks.idle.load(), round - 1);
    f.advance_uptime(100);
    EXPECT_EQ(hooks.idle.load(), round);
    tmrq_info next{};
    ASSERT_GE(tmrq_TimerGet(c->timers, c->idleTimerId, &next), 0);
    EXPECT_EQ(usec_between(next.timeout, info.timeout), 1500000);
    info = next;
  }
  EXPECT_EQ(hooks.idleOffThread.load(), 0);
}

// --- Dispatch --------------------------------------------------------------------

TEST(LorcClientDispatch, NormalModeClientRefusesFeedingAndNothingChanges) {
  HookLog hooks;
  lorc_hooks h = make_hooks(&hooks, 0);
  ClientFixture f;
  ClientSetup setup;
  setup.hooks = &h;
  ASSERT_EQ(f.add_client(setup), 0);
  lorc_client *c = f.client();
  int job = lorc_job_create_timer(c, 60000, 5, 0);
  ASSERT_GT(job, 0);
  ASSERT_TRUE(f.sync_client(0));
  size_t events = hooks.all().size();

  LogCapture log;
  loreg_msg msg{};
  msg.header.msgtype = 0x1001;
  msg.header.reqid = static_cast<uint32_t>(job);
  lmq_rx_info info{};
  EXPECT_EQ(lorc_dispatch_msg(c, &msg, &info), -227);
  EXPECT_EQ(lorc_dispatch_msg(c, nullptr, &info), -227);
  EXPECT_EQ(lorc_dispatch_msg(c, &msg, nullptr), -227);
  EXPECT_EQ(lorc_dispatch_msg(nullptr, &msg, &info), -227);
  EXPECT_EQ(lorc_dispatch_msg(dead_client(), &msg, &info), -227);
  lorc_dispatch_sysmsg(c, 0x185627F3u, 1);
  lorc_dispatch_sysmsg(nullptr, 0x185627F3u, 1);
  lorc_dispatch_sysmsg(dead_client(), 0x185627F3u, 1);
  EXPECT_FALSE(log.contains("lorc_onReply"));
  EXPECT_FALSE(log.contains("lorc_task_dispatch_sysmsg"));
  EXPECT_EQ(hooks.all().size(), events);
  int32_t out = 0;
  EXPECT_EQ(lorc_job_get_result(c, job, &out), -115);
  EXPECT_EQ(lorc_job_cancel(c, job), 0);
}

TEST(LorcClientDispatch, ExternalModeIsFedByTheCallersThread) {
  HookLog hooks;
  lorc_hooks h = make_hooks(&hooks, 0);
  ClientFixture f;
  ASSERT_EQ(f.add_server(), 0);
  ASSERT_EQ(f.add_client(external_setup(&h)), 0);
  lorc_client *c = f.client();
  EXPECT_EQ(c->thread, pthread_t{});
  // Nothing happens until the caller feeds the client: then the server's
  // presence arrives, the client asks for the root, and the answer is fed.
  EXPECT_EQ(f.valid_roots(0), 0);
  ASSERT_TRUE(f.wait_roots(0, 1));
  auto events = hooks.all();
  EXPECT_NE(std::find(events.begin(), events.end(), "sysmsg 0x185627f3/1 other"), events.end());
  EXPECT_EQ(std::count(events.begin(), events.end(), "start client"), 0);

  LogCapture log;
  int job = lorc_value_set(c, 0, "/com/norvi/e", "ext", 3, kPlain, 0);
  ASSERT_GT(job, 0);
  EXPECT_TRUE(log.has_line("lorc_value_set(job=" + S(job) + "): send as reply\n"));
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    f.pump_client(0);
    return lorc_job_wait(c, job, 0) == 0;
  }));
  int32_t out = 1;
  EXPECT_EQ(lorc_job_get_result(c, job, &out), 0);
  EXPECT_EQ(out, 0);
  // The feeding thread is not the client thread: synchronous calls from it
  // are not refused, they would only never see their reply.
  EXPECT_FALSE(lorc_is_client_thread(c));
}

TEST(LorcClientDispatch, HostPresenceIsAnsweredWithARootKeyQuery) {
  HookLog hooks;
  lorc_hooks h = make_hooks(&hooks, 0);
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_setup(&h)), 0);
  lorc_client *c = f.client();
  Swallower host(f.lmq());
  LogCapture log;
  f.pump_client(0);  // the host's presence
  ASSERT_TRUE(host.wait_commands(LOREG_MSG_ROOT_KEY_QUERY, 1));
  WireMessage query = host.commands(LOREG_MSG_ROOT_KEY_QUERY).at(0);
  EXPECT_EQ(query.header.reqid, 0u);
  EXPECT_EQ(query.header.arg0, 0u);
  EXPECT_EQ(query.header.arg1, 0u);
  EXPECT_EQ(query.header.tid, 0);
  EXPECT_EQ(query.header.len0, 0u);
  EXPECT_EQ(query.header.len1, 0u);
  EXPECT_TRUE(log.has_line("lorc_task_dispatch_sysmsg(type=0x185627f3, subType=0x1)\n"));

  // Another subtype or type: only the hook hears of it.
  lorc_dispatch_sysmsg(c, 0x185627F3u, 2);
  lorc_dispatch_sysmsg(c, 0x185627F4u, 1);
  EXPECT_TRUE(log.has_line("lorc_task_dispatch_sysmsg(type=0x185627f3, subType=0x2)\n"));
  EXPECT_TRUE(log.has_line("lorc_task_dispatch_sysmsg(type=0x185627f4, subType=0x1)\n"));
  host.wire().receive(20);
  EXPECT_EQ(host.commands(LOREG_MSG_ROOT_KEY_QUERY).size(), 1u);
  auto events = hooks.all();
  EXPECT_NE(std::find(events.begin(), events.end(), "sysmsg 0x185627f3/2 other"), events.end());
  EXPECT_NE(std::find(events.begin(), events.end(), "sysmsg 0x185627f4/1 other"), events.end());
}

// A root query that finds the bus full is not lost: it goes again on the
// client's timer, after 100 ms, then after twice as long for each further
// failure, and the retries end with the first query that goes out. The
// uptime clock also moves with real time, so the waits are read off the
// retry timer's due time rather than guessed from a clock step.
TEST(LorcClientDispatch, RootQueryThatFindsTheBusFullIsSentAgainLater) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_setup()), 0);
  lorc_client *c = f.client();
  Swallower host(f.lmq(), 4096);
  auto fill_host = [&] {
    int rc = 0;
    for (int i = 0; i < 1000 && rc == 0; i++) {
      rc = f.wire().send(LOREG_MSG_VALUE_QUERY, 1, 0, 0, 0, "/com/norvi/filler", "");
    }
    return rc;
  };
  auto queries = [&] {
    host.wire().poll();
    return host.commands(LOREG_MSG_ROOT_KEY_QUERY).size();
  };
  auto uptime_us = [] {
    _cspOsalTime_struct t{};
    EXPECT_EQ(cspOsalGetUptime(&t), 0);
    return t.sec * 1000000 + t.usec;
  };
  // When the pending retry falls due (uptime, microseconds); -1 for none.
  auto retry_due_us = [&]() -> int64_t {
    tmrq_info info{};
    if (c->rootQueryTimerId == 0 || tmrq_TimerGet(c->timers, c->rootQueryTimerId, &info) < 0 ||
        info.inactive) {
      return -1;
    }
    return info.timeout.sec * 1000000 + info.timeout.usec;
  };
  // The retry was armed for delay_ms at some moment between before and
  // after.
  auto expect_retry_in = [&](int64_t before, int64_t after, int64_t delay_ms) {
    int64_t due = retry_due_us();
    EXPECT_GE(due, before + delay_ms * 1000);
    EXPECT_LE(due, after + delay_ms * 1000);
  };
  const std::string not_sent = "lorc_root_query_send(): root query not sent (code -105), again in ";

  ASSERT_EQ(fill_host(), -105);
  LogCapture log;
  int64_t before = uptime_us();
  f.pump_client(0);  // the host's presence: the query finds no room
  expect_retry_in(before, uptime_us(), LORC_ROOT_QUERY_RETRY_MS);
  EXPECT_TRUE(log.has_line(not_sent + S(LORC_ROOT_QUERY_RETRY_MS) + " ms\n")) << log.dump();
  EXPECT_EQ(queries(), 0u);

  // Still full at the retry: the next one waits twice as long.
  ASSERT_EQ(fill_host(), -105);
  before = uptime_us();
  f.advance_uptime(LORC_ROOT_QUERY_RETRY_MS);
  expect_retry_in(before + LORC_ROOT_QUERY_RETRY_MS * 1000, uptime_us(),
                  2 * LORC_ROOT_QUERY_RETRY_MS);
  EXPECT_TRUE(log.has_line(not_sent + S(2 * LORC_ROOT_QUERY_RETRY_MS) + " ms\n")) << log.dump();
  EXPECT_EQ(queries(), 0u);

  // Room again: the retry goes out at its time, and no other follows.
  f.advance_uptime(2 * LORC_ROOT_QUERY_RETRY_MS);
  EXPECT_EQ(queries(), 1u);
  EXPECT_EQ(retry_due_us(), -1);
  f.advance_uptime(2 * LORC_ROOT_QUERY_RETRY_MAX_MS);
  EXPECT_EQ(queries(), 1u);

  // A failure after a success starts again at the shortest wait, and a
  // query that goes out meanwhile (another host's presence) ends the
  // pending retry.
  ASSERT_EQ(fill_host(), -105);
  before = uptime_us();
  lorc_dispatch_sysmsg(c, LMQ_SYSMSG_HOST_PRESENT, LMQ_SYSMSG_SUBTYPE_PRESENT);
  expect_retry_in(before, uptime_us(), LORC_ROOT_QUERY_RETRY_MS);
  EXPECT_EQ(log.count(not_sent + S(LORC_ROOT_QUERY_RETRY_MS) + " ms\n"), 2u);
  EXPECT_EQ(queries(), 1u);
  lorc_dispatch_sysmsg(c, LMQ_SYSMSG_HOST_PRESENT, LMQ_SYSMSG_SUBTYPE_PRESENT);
  EXPECT_EQ(queries(), 2u);
  EXPECT_EQ(retry_due_us(), -1);
  f.advance_uptime(LORC_ROOT_QUERY_RETRY_MAX_MS);
  EXPECT_EQ(queries(), 2u);
}

TEST(LorcClientDispatch, NeitherTypeBitGives201AndStillServesTimers) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_setup()), 0);
  lorc_client *c = f.client();
  int job = lorc_job_create_timer(c, 100, 77, 0);
  ASSERT_GT(job, 0);
  _cspOsalTime_struct delta = {0, 200000};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&delta), 0);
  EXPECT_EQ(lorc_job_wait(c, job, 0), 110);  // nobody has served the timers yet

  loreg_msg msg{};
  msg.header.msgtype = LOREG_MSG_VALUE_QUERY;
  lmq_rx_info info{};
  EXPECT_EQ(lorc_dispatch_msg(c, &msg, &info), -201);
  EXPECT_EQ(lorc_job_wait(c, job, 0), 0);
  int32_t out = 0;
  EXPECT_EQ(lorc_job_get_result(c, job, &out), 0);
  EXPECT_EQ(out, 77);
}

TEST(LorcClientDispatch, ReplyOfATimedOutJobIsDroppedAndTimersAreServed) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_setup()), 0);
  lorc_client *c = f.client();
  Swallower host(f.lmq());
  LogCapture log;

  // Another thread waits synchronously; nobody answers within 1 s.
  int rc = 0;
  std::thread caller([&] {
    char buffer[8];
    rc = lorc_value_query(c, 0, "/com/norvi/x", buffer, sizeof buffer, 1);
  });
  ASSERT_TRUE(host.wait_commands(LOREG_MSG_VALUE_QUERY, 1));
  caller.join();
  EXPECT_EQ(rc, -110);
  WireMessage request = host.commands(LOREG_MSG_VALUE_QUERY).at(0);
  int job = static_cast<int>(request.header.reqid);
  EXPECT_EQ(job, last_job(log, "lorc_value_query"));
  EXPECT_EQ(lorc_job_get_result(c, job, nullptr), -2);

  int timerJob = lorc_job_create_timer(c, 50, 9, 0);
  ASSERT_GT(timerJob, 0);
  _cspOsalTime_struct delta = {0, 100000};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&delta), 0);

  ASSERT_EQ(host.wire().send_to(request.info.reply, 0x1001, request.header.reqid, 0, 0, 0, "late",
                                ""),
            0);
  loreg_msg msg{};
  lmq_rx_info info{};
  bool found = false;
  while (f.receive_external(0, &msg, &info)) {
    if (msg.header.msgtype == 0x1001) {
      found = true;
      break;
    }
  }
  ASSERT_TRUE(found);
  EXPECT_EQ(lorc_dispatch_msg(c, &msg, &info), 0);
  EXPECT_FALSE(log.contains("lorc_onReply(job=" + S(job) + ")"));
  int32_t out = 0;
  EXPECT_EQ(lorc_job_get_result(c, timerJob, &out), 0);
  EXPECT_EQ(out, 9);
}

// The client's own address, for messages sent straight to it.
lmq_address address_of(lorc_client *c) {
  lmq_address address{};
  EXPECT_EQ(lmqClientAddress(c->lmq.client, &address), 0);
  return address;
}

TEST(LorcClientDispatch, OddMessagesAreLoggedAndDropped) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  WireClient sender(f.lmq(), false);
  lmq_address to = address_of(c);
  int timerJob = lorc_job_create_timer(c, 60000, 0, 0);
  ASSERT_GT(timerJob, 0);
  ASSERT_TRUE(f.sync_client(0));

  LogCapture log;
  EXPECT_EQ(sender.send_to(to, 0x2005, 0, 0, 0, 0, "", ""), 0);
  EXPECT_EQ(sender.send_to(to, 0x1001, static_cast<uint32_t>(timerJob), 0, 0, 0, "", ""), 0);
  EXPECT_EQ(sender.send_to(to, 0x1001, 4242, 0, 0, 0, "", ""), 0);  // no such job
  EXPECT_EQ(sender.send_to(to, 0x0005, 0, 0, 0, 0, "", ""), 0);
  EXPECT_EQ(sender.send_to(to, LOREG_MSG_IDLE, 0, 0, 0, 0, "", ""), 0);
  ASSERT_TRUE(f.sync_client(0));
  EXPECT_TRUE(log.has_line("lorc_onNotification( msgtype=0x2005 ) unknown notification - ignored\n"));
  EXPECT_TRUE(log.has_line("lorc_onReply(job=" + S(timerJob) + ")\n"));
  EXPECT_TRUE(log.has_line("lorc_onReply(job=" + S(timerJob) +
                           ") unexpected request type 0x0030 - ignored\n"));
  EXPECT_FALSE(log.contains("lorc_onReply(job=4242)"));
  EXPECT_TRUE(log.has_line("loreg_msgloop(): unexpected msgtype (0x0005) - message ignored\n"));
  EXPECT_GE(log.count("idle notification\n"), 1u);
  EXPECT_EQ(lorc_job_wait(c, timerJob, 0), 110);  // the reply changed nothing
  EXPECT_EQ(lorc_job_cancel(c, timerJob), 0);
}

struct TimerProbe {
  std::atomic<int> job{0};
};

// Waits until the client thread has handled everything sent to it so far:
// a message sent now lies behind all of it in the client's queue (a timer
// job may complete by a timer pass before the idle notification that its
// creation sent has been read).
bool drain_queue(ClientFixture &f, lorc_client *c, LogCapture &log, int round) {
  WireClient sender(f.lmq(), false);
  uint16_t type = static_cast<uint16_t>(0x2100 + round);
  if (sender.send_to(address_of(c), type, 0, 0, 0, 0, "", "") != 0) return false;
  char line[96];
  std::snprintf(line, sizeof line,
                "lorc_onNotification( msgtype=0x%04x ) unknown notification - ignored\n", type);
  return ClientFixture::wait_until([&] { return log.has_line(line); });
}

TEST(LorcClientTimers, ANewFirstTimerWakesTheLoopUnlessCreatedOnIt) {
  TimerProbe probe;
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  LogCapture log;
  int first = lorc_job_create_timer(c, 60000, 0, 0);  // the first timer: a wake-up
  ASSERT_GT(first, 0);
  ASSERT_TRUE(ClientFixture::wait_until([&] { return log.count("idle notification\n") == 1; }));
  int second = lorc_job_create_timer(c, 120000, 0, 0);  // behind it: none
  ASSERT_GT(second, 0);
  ASSERT_TRUE(f.sync_client(0));  // its own timer job: one more
  ASSERT_TRUE(drain_queue(f, c, log, 1));
  EXPECT_EQ(log.count("idle notification\n"), 2u);

  // On the client thread, a new first timer needs no wake-up.
  int cb = lorc_job_cb_register(
      c,
      [](lorc_client *client, int32_t, int32_t, int32_t, void *cookie) {
        static_cast<TimerProbe *>(cookie)->job.store(lorc_job_create_timer(client, 5000, 0, 0));
      },
      &probe);
  ASSERT_GT(cb, 0);
  log.clear();
  ASSERT_GT(lorc_job_create_timer(c, 0, 0, -cb), 0);  // a wake-up, then the callback
  ASSERT_TRUE(ClientFixture::wait_until([&] { return probe.job.load() != 0; }));
  ASSERT_GT(probe.job.load(), 0);
  ASSERT_TRUE(f.sync_client(0));  // its own timer job: one more
  ASSERT_TRUE(drain_queue(f, c, log, 2));
  EXPECT_EQ(log.count("idle notification\n"), 2u) << log.dump();
  for (int job : {first, second, probe.job.load()}) EXPECT_EQ(lorc_job_cancel(c, job), 0);
}

// --- Key updates ------------------------------------------------------------------

struct Seen {
  std::mutex mutex;
  std::vector<uint32_t> reasons;
  std::vector<std::string> paths;
  int bulkJob = 0;
  int bulkDoneWhenSeen = -1;
  lorc_client *client = nullptr;
};

void on_update(lorc_client *client, uint32_t reason, const lorc_key_struct *item, int32_t,
               const lstr *, void *cookie) {
  auto *seen = static_cast<Seen *>(cookie);
  std::lock_guard<std::mutex> lock(seen->mutex);
  seen->reasons.push_back(reason);
  seen->paths.push_back(item->path);
  if (seen->bulkJob > 0 && std::string(item->path) == "/com/norvi/a/w" &&
      seen->bulkDoneWhenSeen < 0) {
    seen->bulkDoneWhenSeen = lorc_job_wait(client, seen->bulkJob, 0) == 0 ? 1 : 0;
  }
}

TEST(LorcClientKeyUpdate, RootsFirstThenBulkJobsThenSubscribers) {
  Seen seen;
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  ASSERT_EQ(lorc_notification_register(c, on_update, "/com/norvi/a/", &seen), 0);
  LogCapture log;
  ServerSetup setup;
  setup.root_path = "/com/norvi/a";
  ASSERT_EQ(f.add_server(setup), 0);
  ASSERT_TRUE(f.wait_roots(0, 1));
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    std::lock_guard<std::mutex> lock(seen.mutex);
    return seen.reasons.size() >= 2;
  }));
  {
    // Root tracking saw the announcement first and told of the new server;
    // then the subscriber got the update itself.
    std::lock_guard<std::mutex> lock(seen.mutex);
    EXPECT_EQ(seen.reasons[0], LOREG_REASON_SERVER_AVAILABLE);
    EXPECT_EQ(seen.reasons[1], LOREG_REASON_KEY_UPDATE);
    EXPECT_EQ(seen.paths[1], "/com/norvi/a/");
  }
  EXPECT_TRUE(log.contains("key update, flags=0x"));
  EXPECT_TRUE(log.contains(", tid=0, '/com/norvi/a/')\n"));

  // A bulk job waiting for the update is complete before subscribers run.
  lorkc_container *container = lorkc_create(256, nullptr);
  ASSERT_NE(container, nullptr);
  lorc_key_struct wait{"/com/norvi/a/w", LORC_BULKOP_WAITUPDATE, nullptr, 0};
  ASSERT_EQ(lorkc_insert(container, &wait), 0);
  int bulk = lorc_bulk_operation(c, container, 0);
  ASSERT_GT(bulk, 0);
  {
    std::lock_guard<std::mutex> lock(seen.mutex);
    seen.bulkJob = bulk;
  }
  ASSERT_TRUE(f.sync()); // the echo that starts the bulk job is through
  log.clear();
  ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/a/w", "1", 1, kPlain, 5), 0);
  ASSERT_TRUE(f.sync());
  {
    std::lock_guard<std::mutex> lock(seen.mutex);
    EXPECT_EQ(seen.bulkDoneWhenSeen, 1);
  }
  EXPECT_TRUE(log.has_line("key add, flags=0x04, tid=0, '/com/norvi/a/w')\n")) << log.dump();
  int32_t out = 1;
  EXPECT_EQ(lorc_job_get_result(c, bulk, &out), 0);
  EXPECT_EQ(out, 0);
  EXPECT_EQ(lorc_notification_unregister(c, on_update, "/com/norvi/a/", &seen), 0);
  lorkc_destroy(container);
}

}  // namespace
