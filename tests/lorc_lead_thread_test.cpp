// Synchronous client calls across an lmq bus: the calling thread reads the
// bus itself for a short while after it sent a simple request, so that the
// reply, and a key update that nothing in the client acts on, are handled
// in the calling thread. Everything that calls back (subscriptions, roots,
// bulk jobs waiting for updates) still goes through "lorcmain".
//
// One process: a hub message server that runs the repository server, and
// a peer message server joined to it over a socket in a temporary
// directory, on which the registry client runs. A last test keeps client
// and server on one message server, where no bus is involved.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "loreg/lorkc.h"
#include "loreg/loreg_msg.h"
#include "loreg/lors.h"
#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/bus_fixture.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/thread_state.h"

namespace {

using testsupport::LogCapture;
using testsupport::LogLine;

constexpr uint32_t kPlain = 0x30400;
constexpr int kWaitMs = 5000;
constexpr uint32_t kParkForTheTest = 30000000u;  // 30 s
// Where a leader sleeps: in its receive on the hub connection. A caller
// asleep anywhere else (on a lock on its way to the lead) does not lead
// yet, and a reply that came then would be the bus thread's.
const std::string kLeaderWaitChannel = "unix_stream";
// A caller's lead while the fed server holds its requests: far beyond
// what any round needs, since the lead ends as soon as the reply is in.
constexpr uint32_t kHeldLeadMs = 10000;

// The detail line the client logs for a key update.
std::string update_line(const char *reason, uint32_t flags, const std::string &path) {
  char buffer[512];
  std::snprintf(buffer, sizeof buffer, "%s, flags=0x%02x, tid=0, '%s')\n", reason,
                static_cast<unsigned>(flags), path.c_str());
  return buffer;
}

// All lines with exactly this text.
std::vector<LogLine> lines_equal(const LogCapture &log, const std::string &text) {
  std::vector<LogLine> out;
  for (const auto &l : log.lines()) {
    if (l.text == text) out.push_back(l);
  }
  return out;
}

// A line printed by the client's own threads, not by a caller: the bus
// thread offers what it reads to the client before "lorcmain" takes it.
bool handled_by_the_client(pid_t tid) {
  std::string name = testsupport::thread_name(tid);
  return tid != testsupport::current_tid() && (name == "lorcmain" || name == "lmqbus");
}

// The log with the name and id of the printing thread on each line, for
// failure messages.
std::string dump_with_threads(const LogCapture &log) {
  std::string out;
  for (const auto &l : log.lines()) {
    out += testsupport::thread_name(l.tid) + "/" + std::to_string(l.tid) + ": " + l.text;
  }
  return out;
}

// The job id of the synchronous call that the calling thread logged with
// "<caller>(): sync job=N"; -1 when there is none.
int sync_job(const LogCapture &log, const std::string &caller) {
  std::string prefix = caller + "(): sync job=";
  pid_t self = testsupport::current_tid();
  for (const auto &l : log.lines()) {
    if (l.tid == self && l.text.compare(0, prefix.size(), prefix) == 0) {
      return std::atoi(l.text.c_str() + prefix.size());
    }
  }
  return -1;
}

// The thread that handled the reply of the calling thread's synchronous
// call `caller` (its "lorc_onReply" line); 0 unless the call and that
// line are both in the log exactly once.
pid_t reply_thread(const LogCapture &log, const std::string &caller) {
  int job = sync_job(log, caller);
  if (job <= 0) return 0;
  std::vector<LogLine> replies =
      lines_equal(log, "lorc_onReply(job=" + std::to_string(job) + ")\n");
  return replies.size() == 1 ? replies[0].tid : 0;
}

int set_value(lorc_client *client, const std::string &path, const std::string &value) {
  return lorc_value_set(client, 0, path.c_str(), value.data(),
                        static_cast<uint32_t>(value.size()), kPlain, 5);
}

// The value of a key, or "<rc>" when the query failed.
std::string query_value(lorc_client *client, const std::string &path) {
  char buffer[256];
  std::memset(buffer, 0x55, sizeof buffer);
  int rc = lorc_value_query(client, 0, path.c_str(), buffer, sizeof buffer, 5);
  if (rc < 0) return "<" + std::to_string(rc) + ">";
  if (static_cast<size_t>(rc) >= sizeof buffer || buffer[rc] != '\0') return "<unterminated>";
  return std::string(buffer, static_cast<size_t>(rc));
}

// One handler call as the subscriber saw it.
struct Call {
  uint32_t reason;
  std::string path;
  std::string value;
  pid_t tid;
};

// A subscriber that records its calls. Once closed is set (right after
// its unregister returned) every further call counts as late.
struct Subscriber {
  std::mutex mutex;
  std::vector<Call> calls;
  std::atomic<int> count{0};
  std::atomic<bool> closed{false};
  std::atomic<int> late{0};

  static void handler(lorc_client *, uint32_t reason, const lorc_key_struct *item, int32_t,
                      const lstr *, void *cookie) {
    auto *self = static_cast<Subscriber *>(cookie);
    if (self->closed.load()) self->late++;
    Call call{reason, item->path != nullptr ? item->path : "",
              item->value != nullptr
                  ? std::string(static_cast<const char *>(item->value), item->value_len)
                  : std::string(),
              testsupport::current_tid()};
    {
      std::lock_guard<std::mutex> lock(self->mutex);
      self->calls.push_back(call);
    }
    self->count++;
  }
  std::vector<Call> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls;
  }
  int count_reason(uint32_t reason) {
    std::lock_guard<std::mutex> lock(mutex);
    int n = 0;
    for (const auto &c : calls) n += c.reason == reason;
    return n;
  }
  bool wait_reason(uint32_t reason, int n = 1) {
    return testsupport::bus_wait_until([&] { return count_reason(reason) >= n; }, kWaitMs);
  }
};

// The repository server on the hub, the client on a peer.
//
// The server runs either with its own thread, or fed by a thread of the
// fixture. A reply that comes back before the caller has started to read
// the bus is delivered by the bus thread, as without leading; which of
// the two happens first is up to the scheduler. To test the leading
// itself, the fed server can hold each request back until a given thread
// sleeps: the caller then waits for the reply in its read of the bus (or,
// if it did not lead, in its ordinary wait, which the assertions on the
// printing thread then catch). Meanwhile the caller leads for kHeldLeadMs
// instead of LORC_LEAD_MS: on a slow or stalled machine a 20 ms lead can
// end before the gate has seen it, and the reply would then reach
// "lorcmain" for a reason that has nothing to do with the code under test.
class LeadAcrossBus : public ::testing::Test {
 protected:
  enum class Mode { Threaded, Fed };

  // The caller's peer keeps its hub connection parked between calls for
  // as long as a test runs: the parking timer's expiry hands it back to
  // the bus thread, which then reads a reply first whenever the caller
  // sleeps on its way to the lead (say, on a lock the bus thread holds),
  // and the tests that expect the caller to read it would fail at random.
  // Each test's own unannounced sends (bus syncs, registrations) still
  // take it back.
  void SetUp() override {
    m_peer = &m_bus.add_peer();
    ASSERT_EQ(lmqServerBusSetParking(m_peer->get(), kParkForTheTest), 0);
  }

  void TearDown() override {
    if (m_client != nullptr) {
      EXPECT_EQ(lorc_shutdown(m_client), 0);
    }
    m_client = nullptr;
    m_stop = true;
    if (m_feeder.joinable()) m_feeder.join();
    if (m_server != nullptr) {
      EXPECT_EQ(lors_shutdown(m_server), 0);
    }
    m_server = nullptr;
    m_fed.reset();
  }

  int start_server(Mode mode = Mode::Threaded) {
    m_fio = g_lors_default_fio;
    m_file0 = m_repo.file("loreg0.dat");
    m_file1 = m_repo.file("loreg1.dat");
    m_fio.file0 = m_file0.c_str();
    m_fio.file1 = m_file1.c_str();
    lors_params params{};
    params.lmq_server = m_bus.hub().get();
    params.options = LORS_OPT_NO_PERSIST;
    params.fio = &m_fio;
    if (mode == Mode::Fed) {
      m_fed.reset(new testsupport::BusClient(m_bus.hub().get(), 256 * 1024));
      params.lmq_client = m_fed->get();
    }
    int rc = lors_init(&m_server, &params);
    if (rc != 0) {
      m_server = nullptr;
      return rc;
    }
    if (mode == Mode::Fed) m_feeder = std::thread([this] { feed(); });
    return 0;
  }

  // The fed server's loop: what comes for it is dispatched at once, or,
  // while a thread is named by m_gate, once that thread sleeps in its
  // receive on the bus.
  void feed() {
    std::vector<unsigned char> buffer(LORS_MSG_BUFFER_SIZE);
    while (!m_stop.load()) {
      lmq_iovec entry{buffer.data(), static_cast<uint32_t>(buffer.size() - 1)};
      lmq_rx_info info{};
      _cspOsalTime_struct poll{0, 5000};
      if (lmqCXReceive(m_fed->get(), &entry, 1, &info, &poll) < 0) continue;
      if (info.reply.kind == LMQ_KIND_SYSTEM) {
        lmq_sysmsg_pair pair{m_server, [](void *context, uint32_t type, uint32_t subtype,
                                          int16_t service_id) {
                               auto *server = static_cast<lors_ctx *>(context);
                               if (service_id == lors_get_service_id(server)) {
                                 lors_dispatch_sysmsg(server, type, subtype);
                               }
                             }};
        lmqCXHandleSystemMessage(m_bus.hub().get(), m_fed->get(), &pair, &info, &entry, 1);
        continue;
      }
      pid_t gate = m_gate.load();
      if (gate != 0 && !testsupport::wait_until_sleeping_in(gate, kLeaderWaitChannel,
                                                            std::chrono::seconds(2))) {
        m_gate_missed++;
      }
      if (gate != 0 && m_gate_delay_ms.load() > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(m_gate_delay_ms.load()));
      }
      loreg_msg msg{};
      if (loreg_validate_msg(&msg, buffer.data(), static_cast<uint32_t>(buffer.size()), &info) !=
          0) {
        continue;
      }
      lors_dispatch_msg(m_server, &msg, &info);
    }
  }

  // Requests reach the fed server only while the calling thread sleeps in
  // its receive on the bus (and delay_ms later), and the caller's lead is
  // long enough for that.
  void hold_requests_for_me(int delay_ms = 0) {
    ASSERT_EQ(lorc_client_set_lead(m_client, kHeldLeadMs), 0);
    m_gate_delay_ms = delay_ms;
    m_gate = testsupport::current_tid();
  }
  void release_requests() {
    m_gate = 0;
    m_gate_delay_ms = 0;
    ASSERT_EQ(lorc_client_set_lead(m_client, LORC_LEAD_MS), 0);
  }

  int start_client() {
    lorc_init_params params{};
    params.lmqServer = m_peer->get();
    return lorc_init(&m_client, &params);
  }

  // Flags of the root with this path as lorc_root_query gives them, -1
  // when the client does not know it.
  int64_t root_flags(const std::string &path) {
    char buffer[256];
    for (int i = 0;; i++) {
      uint32_t flags = 0;
      int rc = lorc_root_query(m_client, i, &flags, buffer, sizeof buffer);
      if (rc < 0) return -1;
      if (path == std::string(buffer, static_cast<size_t>(rc))) return flags;
    }
  }
  bool wait_root_valid() {
    return testsupport::bus_wait_until(
        [&] {
          int64_t flags = root_flags("/com/norvi/");
          return flags >= 0 && (flags & LORC_ROOT_STALE) == 0;
        },
        kWaitMs);
  }

  // Both sides up, the root known, the client thread idle.
  void start_both(Mode mode = Mode::Threaded) {
    ASSERT_EQ(start_server(mode), 0);
    ASSERT_EQ(start_client(), 0);
    ASSERT_TRUE(wait_root_valid());
    idle();
  }

  // Everything sent so far has arrived, and "lorcmain" waits.
  void idle() {
    m_bus.settle();
    ASSERT_TRUE(testsupport::wait_until_sleeping("lorcmain"));
  }

  // Registers a subscriber and waits for its "server available" call, so
  // that it has no roots pending any more.
  void subscribe(Subscriber *s, const std::string &path) {
    ASSERT_EQ(lorc_notification_register(m_client, Subscriber::handler, path.c_str(), s), 0);
    ASSERT_TRUE(s->wait_reason(LOREG_REASON_SERVER_AVAILABLE));
    ASSERT_EQ(s->count_reason(LOREG_REASON_SERVER_AVAILABLE), 1);
  }

  testsupport::Bus m_bus;
  testsupport::BusServer *m_peer = nullptr;
  testsupport::TempDir m_repo;
  std::string m_file0, m_file1;
  lors_fio m_fio{};
  std::unique_ptr<testsupport::BusClient> m_fed;
  std::thread m_feeder;
  std::atomic<bool> m_stop{false};
  std::atomic<pid_t> m_gate{0};
  std::atomic<int> m_gate_missed{0};
  std::atomic<int> m_gate_delay_ms{0};
  lors_ctx *m_server = nullptr;
  lorc_client *m_client = nullptr;
};

// 1. The reply of a synchronous query is taken by the caller itself.
TEST_F(LeadAcrossBus, SynchronousQueryCompletesInTheCallingThread) {
  start_both(Mode::Fed);
  ASSERT_EQ(set_value(m_client, "/com/norvi/q", "v1"), 0);
  idle();

  LogCapture log;
  char buffer[16];
  std::memset(buffer, 0x55, sizeof buffer);
  hold_requests_for_me();
  ASSERT_EQ(lorc_value_query(m_client, 0, "/com/norvi/q", buffer, sizeof buffer, 5), 2);
  release_requests();
  EXPECT_STREQ(buffer, "v1");
  EXPECT_EQ(m_gate_missed.load(), 0);

  int job = sync_job(log, "lorc_value_query");
  ASSERT_GT(job, 0) << dump_with_threads(log);
  // The request went straight to the server that announced the root.
  EXPECT_TRUE(log.has_line("lorc_value_query(job=" + std::to_string(job) + "): send as reply\n"))
      << dump_with_threads(log);
  EXPECT_EQ(reply_thread(log, "lorc_value_query"), testsupport::current_tid())
      << dump_with_threads(log);
}

// 2. With no subscriber, the set's key update and its reply are both
// handled by the caller.
TEST_F(LeadAcrossBus, SynchronousSetWithoutSubscribersIsTakenInline) {
  start_both(Mode::Fed);
  ASSERT_EQ(set_value(m_client, "/com/norvi/s2", "old"), 0);
  idle();

  LogCapture log;
  hold_requests_for_me();
  ASSERT_EQ(set_value(m_client, "/com/norvi/s2", "new"), 0);
  release_requests();
  EXPECT_EQ(m_gate_missed.load(), 0);
  std::vector<LogLine> updates =
      lines_equal(log, update_line("key change", 0x04, "/com/norvi/s2"));
  ASSERT_EQ(updates.size(), 1u) << dump_with_threads(log);
  EXPECT_EQ(updates[0].tid, testsupport::current_tid()) << dump_with_threads(log);
  EXPECT_EQ(reply_thread(log, "lorc_value_set"), testsupport::current_tid())
      << dump_with_threads(log);

  EXPECT_EQ(query_value(m_client, "/com/norvi/s2"), "new");
}

// 3. A subscriber on the path is called on "lorcmain", and the set returns
// only after it was called.
TEST_F(LeadAcrossBus, SubscriberRunsOnTheClientThreadBeforeTheSetReturns) {
  start_both(Mode::Fed);
  const std::string path = "/com/norvi/sub/k";
  ASSERT_EQ(set_value(m_client, path, "start"), 0);
  Subscriber s;
  subscribe(&s, path);
  idle();

  hold_requests_for_me();
  for (int round = 0; round < 50; round++) {
    LogCapture log;
    std::string value = "v" + std::to_string(round);
    int before = s.count_reason(LOREG_REASON_KEY_CHANGE);
    ASSERT_EQ(set_value(m_client, path, value), 0) << "round " << round;
    std::vector<Call> calls = s.snapshot();
    ASSERT_EQ(s.count_reason(LOREG_REASON_KEY_CHANGE), before + 1) << "round " << round;
    const Call &last = calls.back();
    EXPECT_EQ(last.reason, LOREG_REASON_KEY_CHANGE) << "round " << round;
    EXPECT_EQ(last.path, path) << "round " << round;
    EXPECT_EQ(last.value, value) << "round " << round;
    EXPECT_NE(last.tid, testsupport::current_tid()) << "round " << round;
    EXPECT_EQ(testsupport::thread_name(last.tid), "lorcmain") << "round " << round;
    std::vector<LogLine> updates = lines_equal(log, update_line("key change", 0x04, path));
    ASSERT_EQ(updates.size(), 1u) << "round " << round << "\n" << dump_with_threads(log);
    EXPECT_EQ(testsupport::thread_name(updates[0].tid), "lorcmain")
        << "round " << round << "\n" << dump_with_threads(log);
  }
  release_requests();
  EXPECT_EQ(m_gate_missed.load(), 0);
  EXPECT_EQ(lorc_notification_unregister(m_client, Subscriber::handler, path.c_str(), &s), 0);
}

// 4. A subscriber elsewhere neither gets the update nor keeps it from being
// taken inline.
TEST_F(LeadAcrossBus, UnrelatedSubscriptionLeavesTheUpdateInline) {
  start_both(Mode::Fed);
  const std::string path = "/com/norvi/plain";
  ASSERT_EQ(set_value(m_client, path, "start"), 0);
  Subscriber s;
  subscribe(&s, "/com/norvi/other/");
  idle();

  hold_requests_for_me();
  for (int round = 0; round < 10; round++) {
    LogCapture log;
    std::string value = "v" + std::to_string(round);
    ASSERT_EQ(set_value(m_client, path, value), 0) << "round " << round;
    std::vector<LogLine> updates = lines_equal(log, update_line("key change", 0x04, path));
    ASSERT_EQ(updates.size(), 1u) << "round " << round << "\n" << dump_with_threads(log);
    EXPECT_EQ(updates[0].tid, testsupport::current_tid())
        << "round " << round << "\n" << dump_with_threads(log);
  }
  release_requests();
  EXPECT_EQ(m_gate_missed.load(), 0);
  idle();
  EXPECT_EQ(s.count.load(), 1) << "only the server-available call";

  // The subscription is alive: an update under its path reaches it.
  ASSERT_EQ(set_value(m_client, "/com/norvi/other/x", "y"), 0);
  ASSERT_EQ(s.count_reason(LOREG_REASON_KEY_ADD), 1);
  std::vector<Call> calls = s.snapshot();
  EXPECT_EQ(calls.back().path, "/com/norvi/other/x");
  EXPECT_EQ(calls.back().value, "y");
  EXPECT_EQ(testsupport::thread_name(calls.back().tid), "lorcmain");
  EXPECT_EQ(lorc_notification_unregister(m_client, Subscriber::handler, "/com/norvi/other/", &s),
            0);
}

// 5. Unregistering while another thread keeps setting the watched key:
// the unregister returns, no call comes after it, and the sets go on.
// Afterwards nothing matches, and the update is taken inline again.
// The unregistering thread's wake-up of "lorcmain" is a send of the
// client too: a set that follows it does not lead, and its reply must
// still be read at once, not when the parking time runs out.
TEST_F(LeadAcrossBus, UnregisterWhileUpdatesFlow) {
  start_both(Mode::Fed);
  const std::string path = "/com/norvi/flow";
  ASSERT_EQ(set_value(m_client, path, "start"), 0);

  for (int cycle = 0; cycle < 10; cycle++) {
    Subscriber s;
    subscribe(&s, path);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::atomic<int> sets_after{0};
    std::thread setter([&] {
      for (int i = 0; !stop.load() || sets_after.load() < 20; i++) {
        bool after = s.closed.load();
        if (set_value(m_client, path, "c" + std::to_string(cycle) + "i" + std::to_string(i)) != 0)
          failures++;
        if (after) sets_after++;
      }
    });
    ASSERT_TRUE(testsupport::bus_wait_until(
        [&] { return s.count_reason(LOREG_REASON_KEY_CHANGE) >= 5; }, kWaitMs));
    EXPECT_EQ(lorc_notification_unregister(m_client, Subscriber::handler, path.c_str(), &s), 0);
    s.closed = true;
    stop = true;
    setter.join();
    EXPECT_EQ(failures.load(), 0) << "cycle " << cycle;
    EXPECT_EQ(s.late.load(), 0) << "cycle " << cycle;
    EXPECT_GE(s.count_reason(LOREG_REASON_KEY_CHANGE), 5) << "cycle " << cycle;
    idle();
  }

  LogCapture log;
  hold_requests_for_me();
  ASSERT_EQ(set_value(m_client, path, "last"), 0);
  release_requests();
  std::vector<LogLine> updates = lines_equal(log, update_line("key change", 0x04, path));
  ASSERT_EQ(updates.size(), 1u) << dump_with_threads(log);
  EXPECT_EQ(updates[0].tid, testsupport::current_tid()) << dump_with_threads(log);
  EXPECT_EQ(query_value(m_client, path), "last");
}

// 6. Root announcements go to "lorcmain": the client learns the root when
// the server starts, and a renewal keeps it valid.
TEST_F(LeadAcrossBus, RootAnnouncementsReachTheClientThread) {
  ASSERT_EQ(start_client(), 0);
  m_bus.settle();
  ASSERT_TRUE(testsupport::wait_until_sleeping("lorcmain"));
  EXPECT_EQ(root_flags("/com/norvi/"), -1);

  LogCapture log;
  const std::string announced = update_line("key update", 0x28, "/com/norvi/");
  ASSERT_EQ(start_server(), 0);
  ASSERT_TRUE(wait_root_valid());
  EXPECT_EQ(root_flags("/com/norvi/"), 0x28);
  // The start's broadcast, and the answer to the client's greeting of a
  // new host.
  ASSERT_TRUE(testsupport::bus_wait_until([&] { return lines_equal(log, announced).size() == 2; },
                                          kWaitMs))
      << dump_with_threads(log);
  idle();
  for (const auto &l : lines_equal(log, announced)) {
    EXPECT_EQ(testsupport::thread_name(l.tid), "lorcmain") << dump_with_threads(log);
  }

  // The server repeats its announcement after 107 seconds. Without the
  // renewal the root would be stale 127 seconds after the first one.
  _cspOsalTime_struct renewal{108, 0};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&renewal), 0);
  ASSERT_TRUE(testsupport::bus_wait_until([&] { return lines_equal(log, announced).size() == 3; },
                                          kWaitMs))
      << dump_with_threads(log);
  EXPECT_EQ(testsupport::thread_name(lines_equal(log, announced)[2].tid), "lorcmain");
  idle();
  _cspOsalTime_struct later{100, 0};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&later), 0);
  EXPECT_EQ(root_flags("/com/norvi/"), 0x28) << "still valid";

  // And requests still go straight to the server.
  idle();
  log.clear();
  ASSERT_EQ(set_value(m_client, "/com/norvi/r", "x"), 0);
  int job = sync_job(log, "lorc_value_set");
  ASSERT_GT(job, 0) << dump_with_threads(log);
  EXPECT_TRUE(log.has_line("lorc_value_set(job=" + std::to_string(job) + "): send as reply\n"))
      << dump_with_threads(log);
}

// 7. A host of the service that never answers: the synchronous call
// expires after its timeout, extended by the lead at most.
TEST_F(LeadAcrossBus, SilentServerExpiresWithinTheTimeoutAndTheLead) {
  testsupport::BusClient silent(m_bus.hub().get());
  int16_t id = m_bus.hub().register_id("LOREG");
  ASSERT_GT(id, 0);
  ASSERT_EQ(lmqHostService(silent.get(), id, 0), 0);
  ASSERT_EQ(start_client(), 0);
  EXPECT_EQ(lorc_get_service_id(m_client), id);
  idle();

  LogCapture log;
  char buffer[16] = {};
  auto begin = std::chrono::steady_clock::now();
  int rc = lorc_value_query(m_client, 0, "/com/norvi/q", buffer, sizeof buffer, 1);
  auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(rc, -110);
  EXPECT_GE(took, std::chrono::milliseconds(1000));
  EXPECT_LT(took, std::chrono::milliseconds(1000 + LORC_LEAD_MS + 300));
  int job = sync_job(log, "lorc_value_query");
  ASSERT_GT(job, 0) << dump_with_threads(log);
  EXPECT_TRUE(log.has_line("lorc_value_query(job=" + std::to_string(job) + "): send as command\n"))
      << dump_with_threads(log);

  // The request did reach the silent host.
  testsupport::BusReceived got = testsupport::bus_receive(silent.get(), kWaitMs);
  EXPECT_GT(got.rc, 0);
  EXPECT_EQ(got.info.reply.node, m_peer->node());

  ASSERT_EQ(lorc_shutdown(m_client), 0);
  m_client = nullptr;
}

// 8. Several threads at once: one leads at a time, the others wait as
// usual, and every result is right.
TEST_F(LeadAcrossBus, ManyThreadsSetAndQueryDistinctKeys) {
  start_both();
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::atomic<int> errors{0};
  std::vector<std::string> first_error(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      const std::string path = "/com/norvi/many/t" + std::to_string(t);
      for (int i = 0; i < kRounds; i++) {
        const std::string value = "t" + std::to_string(t) + "r" + std::to_string(i);
        int rc = set_value(m_client, path, value);
        std::string got = query_value(m_client, path);
        if (rc != 0 || got != value) {
          if (errors.fetch_add(1) == 0 || first_error[t].empty()) {
            first_error[t] = "round " + std::to_string(i) + ": set " + std::to_string(rc) +
                             ", read '" + got + "' for '" + value + "'";
          }
        }
      }
    });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(errors.load(), 0);
  for (int t = 0; t < kThreads; t++) EXPECT_EQ(first_error[t], "") << "thread " << t;
  for (int t = 0; t < kThreads; t++) {
    EXPECT_EQ(query_value(m_client, "/com/norvi/many/t" + std::to_string(t)),
              "t" + std::to_string(t) + "r" + std::to_string(kRounds - 1));
  }
}

// A bulk job that waits for a key's update gets it even when the set that
// causes it comes from a caller that leads: the update goes to "lorcmain".
TEST_F(LeadAcrossBus, BulkJobWaitingForAnUpdateGetsIt) {
  start_both(Mode::Fed);
  const std::string path = "/com/norvi/bw";
  ASSERT_EQ(set_value(m_client, path, "before"), 0);
  lorkc_container *keys = lorkc_create(4096, nullptr);
  ASSERT_NE(keys, nullptr);
  lorc_key_struct wait{path.c_str(), LORC_BULKOP_WAITUPDATE, nullptr, 0};
  ASSERT_EQ(lorkc_insert(keys, &wait), 0);
  int job = lorc_bulk_operation(m_client, keys, 0);
  ASSERT_GT(job, 0);
  // A round trip behind the job's start: its wait is in place afterwards.
  EXPECT_EQ(query_value(m_client, path), "before");
  EXPECT_EQ(lorc_job_wait(m_client, job, 0), 110);
  idle();

  LogCapture log;
  hold_requests_for_me();
  ASSERT_EQ(set_value(m_client, path, "after"), 0);
  release_requests();
  ASSERT_EQ(lorc_job_wait(m_client, job, 5), 0);
  int32_t value = -1;
  ASSERT_EQ(lorc_job_get_result(m_client, job, &value), 0);
  EXPECT_EQ(value, 0);
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(keys, &it, path.c_str()), 1);
  EXPECT_EQ(it.key.flags, LORC_BULKOP_WAITUPDATE | LORC_BULKOP_DONE | 0x04u);
  EXPECT_EQ(std::string(static_cast<const char *>(it.key.value), it.key.value_len), "after");
  std::vector<LogLine> updates = lines_equal(log, update_line("key change", 0x04, path));
  ASSERT_EQ(updates.size(), 1u) << dump_with_threads(log);
  EXPECT_EQ(testsupport::thread_name(updates[0].tid), "lorcmain") << dump_with_threads(log);
  EXPECT_EQ(lorkc_destroy(keys), 0);

  // With the job gone, the next update is taken inline again.
  idle();
  log.clear();
  hold_requests_for_me();
  ASSERT_EQ(set_value(m_client, path, "again"), 0);
  release_requests();
  EXPECT_EQ(m_gate_missed.load(), 0);
  updates = lines_equal(log, update_line("key change", 0x04, path));
  ASSERT_EQ(updates.size(), 1u) << dump_with_threads(log);
  EXPECT_EQ(updates[0].tid, testsupport::current_tid()) << dump_with_threads(log);
}

// Between the synchronous calls of one thread the connection to the hub
// stays parked for the next call; calls that do not lead (an asynchronous
// set, a synchronous bulk job) still get their answers at once, even with
// a parking time far beyond their timeouts.
TEST_F(LeadAcrossBus, CallsThatDoNotLeadAreAnsweredWhileParked) {
  start_both();
  const std::string path = "/com/norvi/park";
  auto parked_after_sync_calls = [&] {
    // The first leader after a call that did not lead gives the connection
    // back; a later one parks. (A reply that reaches "lorcmain" because it
    // was still busy makes that leader give it back too.)
    idle();
    EXPECT_EQ(set_value(m_client, path, "sync1"), 0);
    for (int i = 0; i < 10; i++) {
      EXPECT_EQ(set_value(m_client, path, "sync2"), 0);
      if (m_peer->status().parked == 1u) return true;
    }
    return false;
  };
  ASSERT_TRUE(parked_after_sync_calls());

  int job = lorc_value_set(m_client, 0, path.c_str(), "async", 5, 0, 0);
  ASSERT_GT(job, 0);
  EXPECT_EQ(lorc_job_wait(m_client, job, 5), 0);
  int32_t value = -1;
  ASSERT_EQ(lorc_job_get_result(m_client, job, &value), 0);
  EXPECT_EQ(value, 0);

  ASSERT_TRUE(parked_after_sync_calls());
  lorkc_container *keys = lorkc_create(4096, nullptr);
  ASSERT_NE(keys, nullptr);
  lorc_key_struct read{path.c_str(), LORC_BULKOP_QUERY, nullptr, 0};
  ASSERT_EQ(lorkc_insert(keys, &read), 0);
  EXPECT_EQ(lorc_bulk_operation(m_client, keys, 5), 0);
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(keys, &it, path.c_str()), 1);
  EXPECT_EQ(std::string(static_cast<const char *>(it.key.value), it.key.value_len), "sync2");
  EXPECT_EQ(lorkc_destroy(keys), 0);

  ASSERT_TRUE(parked_after_sync_calls());
  EXPECT_EQ(query_value(m_client, path), "sync2");
}

// The lead can be set per client: bad values are refused and logged, and
// what was set is what the next call uses.
TEST_F(LeadAcrossBus, SetLeadRefusesBadValues) {
  ASSERT_EQ(start_client(), 0);
  EXPECT_EQ(lorc_client_lead_ms(m_client), LORC_LEAD_MS);
  LogCapture log;
  EXPECT_EQ(lorc_client_set_lead(nullptr, 5), -14);
  EXPECT_TRUE(log.has_line("lorc_client_set_lead(): client not yet initialized.\n"))
      << dump_with_threads(log);
  EXPECT_EQ(lorc_client_set_lead(m_client, LORC_LEAD_MS_MAX + 1), -22);
  EXPECT_TRUE(log.has_line("lorc_client_set_lead(): lead of " +
                           std::to_string(LORC_LEAD_MS_MAX + 1) + " ms is over " +
                           std::to_string(LORC_LEAD_MS_MAX) + " ms\n"))
      << dump_with_threads(log);
  EXPECT_EQ(lorc_client_lead_ms(m_client), LORC_LEAD_MS) << "unchanged by a refusal";
  EXPECT_EQ(lorc_client_set_lead(m_client, LORC_LEAD_MS_MAX), 0);
  EXPECT_EQ(lorc_client_lead_ms(m_client), LORC_LEAD_MS_MAX);
  EXPECT_EQ(lorc_client_set_lead(m_client, 0), 0);
  EXPECT_EQ(lorc_client_lead_ms(m_client), 0u);
}

// A lead longer than the server takes to answer: the caller still reads
// the reply itself, although it came long after LORC_LEAD_MS.
TEST_F(LeadAcrossBus, ALongerLeadOutlastsASlowServer) {
  start_both(Mode::Fed);
  ASSERT_EQ(set_value(m_client, "/com/norvi/slow", "v"), 0);
  idle();

  LogCapture log;
  constexpr int kServerDelayMs = 100;
  hold_requests_for_me(kServerDelayMs);
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(query_value(m_client, "/com/norvi/slow"), "v");
  auto took = std::chrono::steady_clock::now() - begin;
  release_requests();
  EXPECT_EQ(m_gate_missed.load(), 0);
  EXPECT_GE(took, std::chrono::milliseconds(kServerDelayMs));
  EXPECT_EQ(reply_thread(log, "lorc_value_query"), testsupport::current_tid())
      << dump_with_threads(log);
}

// With no lead, the caller reads nothing: every reply and key update is
// handled by the bus thread or "lorcmain", at once (the connection that
// an earlier lead parked is taken back).
TEST_F(LeadAcrossBus, WithoutALeadRepliesAreHandledByOtherThreads) {
  start_both(Mode::Fed);
  ASSERT_EQ(set_value(m_client, "/com/norvi/nolead", "start"), 0);
  idle();
  ASSERT_EQ(lorc_client_set_lead(m_client, 0), 0);

  for (int round = 0; round < 10; round++) {
    LogCapture log;
    const std::string value = "v" + std::to_string(round);
    auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(set_value(m_client, "/com/norvi/nolead", value), 0) << "round " << round;
    EXPECT_EQ(query_value(m_client, "/com/norvi/nolead"), value) << "round " << round;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5))
        << "round " << round << ": a reply waited for the parking time";
    std::vector<LogLine> updates =
        lines_equal(log, update_line("key change", 0x04, "/com/norvi/nolead"));
    ASSERT_EQ(updates.size(), 1u) << "round " << round << "\n" << dump_with_threads(log);
    EXPECT_TRUE(handled_by_the_client(updates[0].tid))
        << "round " << round << "\n" << dump_with_threads(log);
    for (const char *call : {"lorc_value_set", "lorc_value_query"}) {
      EXPECT_TRUE(handled_by_the_client(reply_thread(log, call)))
          << call << " round " << round << "\n" << dump_with_threads(log);
    }
  }
}

// 9. Client and server on one message server: no bus to read, the calls
// work as they always did.
TEST(LeadSameServer, SynchronousCallsWorkWithoutABus) {
  testsupport::ClientFixture f;
  ASSERT_EQ(f.add_server(), 0);
  ASSERT_EQ(f.add_client(), 0);
  ASSERT_TRUE(f.wait_roots(0, 1));
  for (int i = 0; i < 50; i++) {
    const std::string value = "v" + std::to_string(i);
    ASSERT_EQ(set_value(f.client(), "/com/norvi/same", value), 0) << i;
    ASSERT_EQ(query_value(f.client(), "/com/norvi/same"), value) << i;
  }
  EXPECT_EQ(query_value(f.client(), "/com/norvi/none"), "<-2>");

  Subscriber s;
  ASSERT_EQ(lorc_notification_register(f.client(), Subscriber::handler, "/com/norvi/same", &s), 0);
  ASSERT_TRUE(s.wait_reason(LOREG_REASON_SERVER_AVAILABLE));
  ASSERT_EQ(set_value(f.client(), "/com/norvi/same", "seen"), 0);
  EXPECT_EQ(s.count_reason(LOREG_REASON_KEY_CHANGE), 1);
  EXPECT_EQ(lorc_notification_unregister(f.client(), Subscriber::handler, "/com/norvi/same", &s),
            0);
}

}  // namespace
