// The client API against real repository servers: the operations, the
// three meanings of timeOut, the job functions, timer jobs, simple request
// replies and their post-processing, and the argument checks.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/test_allocator.h"
#include "support/wire_client.h"
#include "platform/csp_debug.h"

using testsupport::ClientFixture;
using testsupport::ServerSetup;
using testsupport::ClientSetup;
using testsupport::LogCapture;
using testsupport::TestAllocator;
using testsupport::WireClient;
using testsupport::WireMessage;

namespace {

constexpr uint32_t kPlain = 0x30400;  // create the key and its directories, apply the value

// The id of the newest "<fn>(): created job=N" line, or -1.
int last_job(const LogCapture &log, const std::string &fn) {
  const std::string prefix = fn + "(): created job=";
  int id = -1;
  for (const auto &text : log.texts()) {
    if (text.compare(0, prefix.size(), prefix) == 0) id = std::stoi(text.substr(prefix.size()));
  }
  return id;
}

// The timer id of the newest "<fn>(job=J): timer T created" line, or -1.
int last_timer(const LogCapture &log, const std::string &fn, int job) {
  const std::string prefix = fn + "(job=" + std::to_string(job) + "): timer ";
  int id = -1;
  for (const auto &text : log.texts()) {
    if (text.compare(0, prefix.size(), prefix) == 0) id = std::stoi(text.substr(prefix.size()));
  }
  return id;
}

std::string S(int v) { return std::to_string(v); }

// Drives servers without a thread until the job is done, then collects it.
int32_t complete(ClientFixture &f, lorc_client *c, int job) {
  bool done = ClientFixture::wait_until([&] {
    for (size_t i = 0; i < f.server_count(); i++) f.pump_server(i);
    return lorc_job_wait(c, job, 0) == 0;
  });
  EXPECT_TRUE(done) << "job " << job;
  int32_t value = 12345;
  EXPECT_EQ(lorc_job_get_result(c, job, &value), 0);
  return value;
}

// Pumps servers without a thread until the client holds n valid roots.
bool roots(ClientFixture &f, int n) {
  return ClientFixture::wait_until([&] {
    for (size_t i = 0; i < f.server_count(); i++) f.pump_server(i);
    return f.valid_roots(0) >= n;
  });
}

// A zeroed record: a client that was never made, or whose magic is gone.
lorc_client *dead_client() {
  static lorc_client dead;
  std::memset(&dead, 0, sizeof dead);
  return &dead;
}

// --- Job callbacks -------------------------------------------------------

struct CallbackCall {
  lorc_client *client;
  int32_t callbackId;
  int32_t jobId;
  int32_t result;
  void *cookie;
  bool onClientThread;
};

struct CallbackLog {
  std::mutex mutex;
  std::vector<CallbackCall> calls;
  size_t size() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls.size();
  }
  CallbackCall at(size_t i) {
    std::lock_guard<std::mutex> lock(mutex);
    return calls.at(i);
  }
};

void record_callback(lorc_client *client, int32_t callbackId, int32_t jobId, int32_t result,
                     void *cookie) {
  auto *log = static_cast<CallbackLog *>(cookie);
  std::lock_guard<std::mutex> lock(log->mutex);
  log->calls.push_back({client, callbackId, jobId, result, cookie, lorc_is_client_thread(client) != 0});
}

// --- One threaded server under /com/norvi, one client ---------------------

class LorcApi : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(f.add_server(), 0);
    ASSERT_EQ(f.add_client(), 0);
    ASSERT_TRUE(f.wait_roots(0, 1));
    c = f.client();
  }

  ClientFixture f;
  lorc_client *c = nullptr;
};

TEST_F(LorcApi, ValueSetAndQueryGoToTheRootsServerAsReplies) {
  LogCapture log;
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/a", "hello", 5, kPlain, 5), 0);
  int set = last_job(log, "lorc_value_set");
  EXPECT_TRUE(log.has_line("lorc_value_set(): created job=" + S(set) + ", cbid=0, timeout=5\n"));
  EXPECT_TRUE(log.has_line("lorc_value_set(job=" + S(set) + "): send as reply\n"));
  EXPECT_TRUE(log.has_line("lorc_value_set(): sync job=" + S(set) + "\n"));
  EXPECT_TRUE(log.has_line("Job " + S(set) + ": result=0.\n"));

  char buffer[32];
  std::memset(buffer, 'X', sizeof buffer);
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/a", buffer, sizeof buffer, 5), 5);
  EXPECT_STREQ(buffer, "hello");
  int query = last_job(log, "lorc_value_query");
  EXPECT_TRUE(log.has_line("lorc_value_query(job=" + S(query) + "): send as reply\n"));
  EXPECT_TRUE(log.has_line("lorc_onReply(job=" + S(query) + ")\n"));
  EXPECT_TRUE(log.has_line("Job " + S(query) + " (VALUE_QUERY): result=0. 5 byte(s)\n"));
  // A synchronous job is gone once its caller has its value.
  int32_t out = 0;
  EXPECT_EQ(lorc_job_get_result(c, query, &out), -2);
  EXPECT_EQ(out, -11);
}

TEST_F(LorcApi, LongValueIsCutToTheBufferLessOneAndTerminated) {
  ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/ten", "0123456789", 10, kPlain, 5), 0);
  char buffer[9];
  std::memset(buffer, 'X', sizeof buffer);
  LogCapture log;
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/ten", buffer, 8, 5), 7);
  EXPECT_EQ(std::string(buffer, 7), "0123456");
  EXPECT_EQ(buffer[7], '\0');
  EXPECT_EQ(buffer[8], 'X');  // nothing beyond bufferSize
  int job = last_job(log, "lorc_value_query");
  EXPECT_TRUE(log.has_line("Job " + S(job) + " (VALUE_QUERY): result=0. 7 byte(s)\n"));
}

TEST_F(LorcApi, QueryWithoutBufferOnlyTestsTheKey) {
  ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/k", "abc", 3, kPlain, 5), 0);
  LogCapture log;
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/k", nullptr, 0, 5), 0);
  int job = last_job(log, "lorc_value_query");
  EXPECT_TRUE(log.has_line("Job " + S(job) + " (VALUE_QUERY): result=0. 0 byte(s)\n"));
  // A key that can't be read still says so.
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/nokey", nullptr, 0, 5), -2);
}

TEST_F(LorcApi, QueryOfAMissingKeyGivesTheServersReason) {
  LogCapture log;
  char buffer[8] = "keep";
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/missing", buffer, sizeof buffer, 5), -2);
  EXPECT_STREQ(buffer, "keep");
  int job = last_job(log, "lorc_value_query");
  EXPECT_TRUE(log.has_line("Job " + S(job) + " (VALUE_QUERY): result=-2. 0 byte(s)\n"));
}

TEST_F(LorcApi, EmptyValueWithNullPointerIsAllowed) {
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/empty", nullptr, 0, kPlain, 5), 0);
  char buffer[4] = "xyz";
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/empty", buffer, sizeof buffer, 5), 0);
  EXPECT_EQ(buffer[0], '\0');
}

TEST_F(LorcApi, KeyCountQueryAndDelete) {
  ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/dir/k1", "1", 1, kPlain, 5), 0);
  ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/dir/k2", "22", 2, kPlain, 5), 0);
  LogCapture log;
  EXPECT_EQ(lorc_key_count(c, 0, "/com/norvi/dir/", 0xFFFFFFFFu, 5), 2);
  int count = last_job(log, "lorc_key_count");
  EXPECT_TRUE(log.has_line("Job " + S(count) + " (KEY_COUNT): result=0. 2 key(s)\n"));

  char name[16];
  uint32_t flags = 0xDEAD;
  EXPECT_EQ(lorc_key_query(c, 0, "/com/norvi/dir/", 0xFFFFFFFFu, 1, &flags, name, sizeof name, 5),
            2);
  EXPECT_STREQ(name, "k2");
  EXPECT_NE(flags & 0x04u, 0u);  // a key with a value
  int query = last_job(log, "lorc_key_query");
  EXPECT_TRUE(log.has_line("Job " + S(query) + " (KEY_QUERY): result=0. 2 byte(s)\n"));

  // Index -1: the key itself; a null flags pointer is allowed.
  EXPECT_EQ(lorc_key_query(c, 0, "/com/norvi/dir/k1", 0, -1, nullptr, name, sizeof name, 5), 2);
  EXPECT_STREQ(name, "k1");
  // Past the end: the server's -2, and the flags stay untouched.
  flags = 0xDEAD;
  EXPECT_EQ(lorc_key_query(c, 0, "/com/norvi/dir/", 0xFFFFFFFFu, 2, &flags, name, sizeof name, 5),
            -2);
  EXPECT_EQ(flags, 0xDEADu);

  EXPECT_EQ(lorc_key_delete(c, 0, "/com/norvi/dir/", 5), 0);
  EXPECT_EQ(lorc_key_count(c, 0, "/com/norvi/dir/", 0xFFFFFFFFu, 5), -2);
}

TEST_F(LorcApi, TransactionsStartEndAndGuardTheirSubtree) {
  ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/t/k", "0", 1, kPlain, 5), 0);
  LogCapture log;
  int tid = lorc_transaction_start(c, "/com/norvi/t/", 5);
  ASSERT_GT(tid, 0);
  int start = last_job(log, "lorc_transaction_start");
  EXPECT_TRUE(log.has_line("Job " + S(start) + " (TIMED_TRANSACTION_START): result=0. tid=" +
                           S(tid) + "\n"));
  EXPECT_EQ(lorc_value_set(c, tid, "/com/norvi/t/k", "1", 1, kPlain, 5), 0);
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/t/k", "2", 1, kPlain, 5), -13);
  // Waiting 0 ms for the locked subtree: refused at once.
  EXPECT_EQ(lorc_transaction_timed_start(c, "/com/norvi/t/k", 0, 1000, 5), -13);
  EXPECT_EQ(lorc_transaction_end(c, tid, 5), 0);
  int end = last_job(log, "lorc_transaction_end");
  EXPECT_TRUE(log.has_line("lorc_transaction_end(job=" + S(end) + "): send as command\n"));
  EXPECT_TRUE(log.has_line("Job " + S(end) + ": result=0.\n"));
  int tid2 = lorc_transaction_timed_start(c, "/com/norvi/t/k", 100, 0, 5);
  EXPECT_GT(tid2, tid);
  EXPECT_EQ(lorc_transaction_end(c, tid2, 5), 0);
  // A transaction on a missing key.
  EXPECT_EQ(lorc_transaction_start(c, "/com/norvi/none/", 5), -2);
}

TEST_F(LorcApi, TransactionIdAcquireAndRelease) {
  LogCapture log;
  int tid = lorc_transid_acquire(c, "/com/norvi/q", 5);
  ASSERT_GT(tid, 0);
  int job = last_job(log, "lorc_transid_acquire");
  EXPECT_TRUE(log.has_line("Job " + S(job) + " (TRANSID_ACQUIRE): result=0. tid=" + S(tid) + "\n"));
  EXPECT_EQ(lorc_value_set(c, tid, "/com/norvi/q", "v", 1, kPlain, 5), 0);
  EXPECT_EQ(lorc_transid_release(c, "/com/norvi/q", tid, 5), 0);
  EXPECT_EQ(lorc_transid_release(c, "/com/norvi/q", tid, 5), -2);
}

TEST_F(LorcApi, RepositoryStoreAndReloadWithOneRootTakeOneReply) {
  LogCapture log;
  EXPECT_EQ(lorc_repository_store(c, 5), 0);
  int store = last_job(log, "lorc_repository_store");
  EXPECT_TRUE(log.has_line("lorc_repository_store(job=" + S(store) + "): send as command\n"));
  EXPECT_EQ(log.count("lorc_onReply(job=" + S(store) + ")\n"), 1u);
  EXPECT_EQ(lorc_repository_reload(c, 5), 0);
  int reload = last_job(log, "lorc_repository_reload");
  EXPECT_TRUE(log.has_line("Job " + S(reload) + ": result=0.\n"));
}

// Live blocks of a client's allocator once its thread is idle: a
// synchronous caller may return while the client thread still holds its
// reference to the finished job; a synchronising round trip waits for it.
size_t settled(ClientFixture &f, size_t client, const TestAllocator &alloc) {
  EXPECT_TRUE(f.sync_client(client));
  return alloc.live_blocks();
}

TEST_F(LorcApi, ClientAllocatedQueriesAndFree) {
  TestAllocator alloc;
  ClientSetup setup;
  setup.allocator = alloc.handle();
  ASSERT_EQ(f.add_client(setup), 1);
  lorc_client *m = f.client(1);
  ASSERT_TRUE(f.wait_roots(1, 1));
  ASSERT_EQ(lorc_value_set(m, 0, "/com/norvi/mdir/key", "hello", 5, kPlain, 5), 0);

  size_t before = settled(f, 1, alloc);
  char *value = reinterpret_cast<char *>(0x1);
  EXPECT_EQ(lorc_m_value_query(m, 0, "/com/norvi/mdir/key", &value, 5), 5);
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(value, "hello");
  // The result comes from the client's allocator.
  EXPECT_EQ(settled(f, 1, alloc), before + 1);
  // A bad client can't give it back: the block stays.
  lorc_m_free(nullptr, value);
  EXPECT_EQ(alloc.live_blocks(), before + 1);
  lorc_m_free(m, value);
  EXPECT_EQ(alloc.live_blocks(), before);

  char *key = nullptr;
  uint32_t flags = 0;
  EXPECT_EQ(lorc_m_key_query(m, 0, "/com/norvi/mdir/", 0xFFFFFFFFu, 0, &flags, &key, 5), 3);
  ASSERT_NE(key, nullptr);
  EXPECT_STREQ(key, "key");
  EXPECT_NE(flags & 0x04u, 0u);
  lorc_m_free(m, key);
  EXPECT_EQ(settled(f, 1, alloc), before);

  // A failed query sets the pointer to null and allocates nothing.
  value = reinterpret_cast<char *>(0x1);
  EXPECT_EQ(lorc_m_value_query(m, 0, "/com/norvi/mdir/none", &value, 5), -2);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(settled(f, 1, alloc), before);

  ASSERT_EQ(f.stop_client(1), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST_F(LorcApi, ClientAllocatedQueryUnderAllocationFailure) {
  TestAllocator alloc;
  ClientSetup setup;
  setup.allocator = alloc.handle();
  ASSERT_EQ(f.add_client(setup), 1);
  lorc_client *m = f.client(1);
  ASSERT_TRUE(f.wait_roots(1, 1));
  ASSERT_EQ(lorc_value_set(m, 0, "/com/norvi/oom", "hello", 5, kPlain, 5), 0);
  size_t before = settled(f, 1, alloc);

  int failures = 0;
  for (uint64_t n = 1; n < 10; n++) {
    LogCapture log;
    char *value = reinterpret_cast<char *>(0x1);
    alloc.fail_at(n);
    int rc = lorc_m_value_query(m, 0, "/com/norvi/oom", &value, 5);
    bool failed = alloc.failed();
    alloc.disarm();
    if (!failed) {
      EXPECT_EQ(rc, 5);
      ASSERT_NE(value, nullptr);
      EXPECT_STREQ(value, "hello");
      lorc_m_free(m, value);
      break;
    }
    failures++;
    EXPECT_EQ(rc, -12) << "allocation " << n;
    EXPECT_EQ(value, nullptr);
    if (n == 1) {
      EXPECT_TRUE(log.has_line("lorc_m_value_query(): failed creating job. (code -12)\n"));
    } else {
      int job = last_job(log, "lorc_m_value_query");
      EXPECT_TRUE(log.has_line("lorc_req_simple_reply(reqid=" + S(job) +
                               ") failed to alloc 6 bytes for result\n"))
          << log.dump();
      EXPECT_TRUE(log.has_line("Job " + S(job) + " (VALUE_QUERY): result=-12. 0 byte(s)\n"));
    }
    EXPECT_EQ(settled(f, 1, alloc), before) << "allocation " << n;
  }
  EXPECT_EQ(failures, 2);  // the job, then the result buffer
  ASSERT_EQ(f.stop_client(1), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// --- Argument checks -------------------------------------------------------

TEST_F(LorcApi, EveryOperationRefusesABadClient) {
  for (lorc_client *bad : {static_cast<lorc_client *>(nullptr), dead_client()}) {
    LogCapture log;
    char buffer[4];
    char *pointer = reinterpret_cast<char *>(0x1);
    uint32_t flags = 0;
    int32_t out = 0;
    lorkc_container *container = lorkc_create(64, nullptr);
    EXPECT_EQ(lorc_value_query(bad, 0, "/com/norvi/a", buffer, 4, 5), -14);
    EXPECT_EQ(lorc_value_set(bad, 0, "/com/norvi/a", "v", 1, kPlain, 5), -14);
    EXPECT_EQ(lorc_key_delete(bad, 0, "/com/norvi/a", 5), -14);
    EXPECT_EQ(lorc_key_count(bad, 0, "/com/norvi/a", 0, 5), -14);
    EXPECT_EQ(lorc_key_query(bad, 0, "/com/norvi/a", 0, 0, &flags, buffer, 4, 5), -14);
    EXPECT_EQ(lorc_transaction_start(bad, "/com/norvi/a", 5), -14);
    EXPECT_EQ(lorc_transaction_timed_start(bad, "/com/norvi/a", 0, 0, 5), -14);
    EXPECT_EQ(lorc_transaction_end(bad, 1, 5), -14);
    EXPECT_EQ(lorc_transid_acquire(bad, "/com/norvi/a", 5), -14);
    EXPECT_EQ(lorc_transid_release(bad, "/com/norvi/a", 1, 5), -14);
    EXPECT_EQ(lorc_repository_store(bad, 5), -14);
    EXPECT_EQ(lorc_repository_reload(bad, 5), -14);
    EXPECT_EQ(lorc_m_value_query(bad, 0, "/com/norvi/a", &pointer, 5), -14);
    EXPECT_EQ(pointer, nullptr);
    pointer = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(lorc_m_key_query(bad, 0, "/com/norvi/a", 0, 0, &flags, &pointer, 5), -14);
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(lorc_bulk_operation(bad, container, 5), -14);
    EXPECT_EQ(lorc_job_wait(bad, 1, 0), -14);
    EXPECT_EQ(lorc_job_get_result(bad, 1, &out), -14);
    EXPECT_EQ(out, -11);
    EXPECT_EQ(lorc_job_cancel(bad, 1), -14);
    EXPECT_EQ(lorc_job_cb_register(bad, record_callback, nullptr), -14);
    EXPECT_EQ(lorc_job_cb_unregister(bad, 1, 0), -14);
    EXPECT_EQ(lorc_job_create_timer(bad, 10, 0, 0), -14);
    EXPECT_EQ(lorc_root_query(bad, 0, &flags, buffer, 4), -14);
    lorc_m_free(bad, nullptr);
    for (const char *fn :
         {"lorc_value_query", "lorc_value_set", "lorc_key_delete", "lorc_key_count",
          "lorc_key_query", "lorc_transaction_start", "lorc_transaction_timed_start",
          "lorc_transaction_end", "lorc_transid_acquire", "lorc_transid_release",
          "lorc_repository_store", "lorc_repository_reload", "lorc_m_value_query",
          "lorc_m_key_query", "lorc_bulk_operation", "lorc_job_wait", "lorc_job_get_result",
          "lorc_job_cancel", "lorc_job_cb_register", "lorc_job_cb_unregister",
          "lorc_job_create_timer", "lorc_root_query", "lorc_m_free"}) {
      EXPECT_EQ(log.count(std::string(fn) + "(): client not yet initialized.\n"), 1u) << fn;
    }
    // The internal entry checks the same.
    lorc_request request;
    std::memset(&request, 0, sizeof request);
    request.type = LORC_REQ_SIMPLE;
    EXPECT_EQ(lorc_api_job_process(bad, &request, nullptr, 5, "caller"), -14);
    EXPECT_TRUE(log.has_line("caller(): client not yet initialized.\n"));
    EXPECT_FALSE(log.contains("created job="));
    lorkc_destroy(container);
  }
}

TEST_F(LorcApi, NullPathIsRefusedWithTheFunctionsSpelling) {
  LogCapture log;
  char buffer[4];
  char *pointer = nullptr;
  uint32_t flags = 0;
  EXPECT_EQ(lorc_value_query(c, 0, nullptr, buffer, 4, 5), -22);
  EXPECT_EQ(lorc_value_set(c, 0, nullptr, "v", 1, kPlain, 5), -22);
  EXPECT_EQ(lorc_key_delete(c, 0, nullptr, 5), -22);
  EXPECT_EQ(lorc_key_count(c, 0, nullptr, 0, 5), -22);
  EXPECT_EQ(lorc_key_query(c, 0, nullptr, 0, 0, &flags, buffer, 4, 5), -22);
  EXPECT_EQ(lorc_m_value_query(c, 0, nullptr, &pointer, 5), -22);
  EXPECT_EQ(lorc_m_key_query(c, 0, nullptr, 0, 0, &flags, &pointer, 5), -22);
  for (const char *fn : {"lorc_value_query", "lorc_value_set", "lorc_key_delete",
                         "lorc_key_count", "lorc_key_query", "lorc_m_value_query",
                         "lorc_m_key_query"}) {
    EXPECT_TRUE(log.has_line(std::string(fn) + "(): path missiing.\n")) << fn;
  }
  EXPECT_EQ(lorc_transaction_start(c, nullptr, 5), -22);
  EXPECT_EQ(lorc_transaction_timed_start(c, nullptr, 10, 10, 5), -22);
  EXPECT_EQ(lorc_transid_acquire(c, nullptr, 5), -22);
  EXPECT_EQ(lorc_transid_release(c, nullptr, 1, 5), -22);
  for (const char *fn : {"lorc_transaction_start", "lorc_transaction_timed_start",
                         "lorc_transid_acquire", "lorc_transid_release"}) {
    EXPECT_TRUE(log.has_line(std::string(fn) + "(): path missing.\n")) << fn;
  }
  EXPECT_FALSE(log.contains("created job="));
}

TEST_F(LorcApi, SizeWithoutBufferIsRefused) {
  LogCapture log;
  uint32_t flags = 0;
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/a", nullptr, 8, 5), -22);
  EXPECT_EQ(lorc_key_query(c, 0, "/com/norvi/a", 0, 0, &flags, nullptr, 8, 5), -22);
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/a", nullptr, 3, kPlain, 5), -22);
  EXPECT_TRUE(log.has_line("lorc_value_query(): invalid buffer given.\n"));
  EXPECT_TRUE(log.has_line("lorc_key_query(): invalid buffer given.\n"));
  EXPECT_TRUE(log.has_line("lorc_value_set(): invalid buffer given.\n"));
  EXPECT_FALSE(log.contains("created job="));
}

TEST_F(LorcApi, AllocatedQueriesNeedTheirPointer) {
  LogCapture log;
  uint32_t flags = 0;
  EXPECT_EQ(lorc_m_value_query(c, 0, "/com/norvi/a", nullptr, 5), -22);
  EXPECT_TRUE(log.has_line("lorc_m_value_query(): ppValue is NULL.\n"));
  EXPECT_EQ(lorc_m_key_query(c, 0, "/com/norvi/a", 0, 0, &flags, nullptr, 5), -22);
  EXPECT_TRUE(log.has_line("lorc_m_key_query(): ppKey is NULL.\n"));
  EXPECT_FALSE(log.contains("created job="));
}

TEST_F(LorcApi, OverlongLengthsAreRefusedRatherThanCut) {
  LogCapture log;
  std::string path = "/com/norvi/" + std::string(70000, 'p');
  EXPECT_EQ(lorc_value_set(c, 0, path.c_str(), "v", 1, kPlain, 5), -22);
  EXPECT_TRUE(log.has_line("lorc_value_set(): path too long (70011 bytes).\n"));
  std::string value(70000, 'v');
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/a", value.data(), 70000, kPlain, 5), -22);
  EXPECT_TRUE(log.has_line("lorc_value_set(): value too long (70000 bytes).\n"));
  // Within 16 bits but beyond one message: the send's own error.
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/a", value.data(), 9000, kPlain, 5), -90);
  int job = last_job(log, "lorc_value_set");
  EXPECT_TRUE(log.has_line("lorc_value_set(job=" + S(job) +
                           "): failed sending command as reply. (code=-90)\n"));
}

TEST_F(LorcApi, BulkOperationNeedsAContainer) {
  LogCapture log;
  EXPECT_EQ(lorc_bulk_operation(c, nullptr, 5), -22);
  EXPECT_TRUE(log.has_line("lorc_bulk_operation(): container is NULL.\n"));
  EXPECT_FALSE(log.contains("created job="));

  // A container is one compound job, routed to its start and post-processing.
  lorkc_container *container = lorkc_create(256, nullptr);
  ASSERT_NE(container, nullptr);
  lorc_key_struct key{"/com/norvi/bulk", LORC_BULKOP_SET | kPlain, "b", 1};
  ASSERT_EQ(lorkc_insert(container, &key), 0);
  EXPECT_EQ(lorc_bulk_operation(c, container, 5), 0);
  int job = last_job(log, "lorc_bulk_operation");
  EXPECT_TRUE(log.has_line("lorc_bulk_operation(): created job=" + S(job) + ", cbid=0, timeout=5\n"));
  char buffer[4];
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/bulk", buffer, sizeof buffer, 5), 1);
  lorkc_destroy(container);
}

TEST_F(LorcApi, CallbackRegistrationNeedsARoutine) {
  LogCapture log;
  EXPECT_EQ(lorc_job_cb_register(c, nullptr, nullptr), -22);
  EXPECT_TRUE(log.has_line("lorc_api_job_cb_register(): can't register NULL\n"));
  EXPECT_EQ(lorc_api_job_cb_register(c, nullptr, nullptr, nullptr), -22);
  EXPECT_EQ(log.count("lorc_api_job_cb_register(): can't register NULL\n"), 2u);
}

TEST_F(LorcApi, CallbackRegistrationLogsTwoTestLines) {
  LogCapture log;
  CallbackLog calls;
  int id = lorc_job_cb_register(c, record_callback, &calls);
  ASSERT_GT(id, 0);
  EXPECT_EQ(log.count("REG_CLIENT_TEST lorc_job_cb_register(): "), 2u);
  EXPECT_TRUE(log.has_line("REG_CLIENT_TEST lorc_job_cb_register(): job callback id = " + S(id) +
                           ".\n"));
  EXPECT_EQ(lorc_job_cb_unregister(c, id, 0), 0);
  EXPECT_EQ(lorc_job_cb_unregister(c, id, 0), -2);
}

TEST_F(LorcApi, TimerJobRefusesAPositiveCallbackId) {
  LogCapture log;
  EXPECT_EQ(lorc_job_create_timer(c, 100, 42, 3), -22);
  EXPECT_TRUE(log.has_line("lorc_job_create_timer(): 'callbackId' must be <= 0 (is 3).\n"));
  EXPECT_FALSE(log.contains("created job="));
}

TEST_F(LorcApi, ClientTimerArguments) {
  _cspOsalTime_struct t = {1, 0};
  EXPECT_EQ(lorc_timer_create(c, nullptr, nullptr), -22);
  EXPECT_EQ(lorc_timer_create(nullptr, &t, nullptr), -22);
  EXPECT_EQ(lorc_timer_destroy(c, 0), -22);
  EXPECT_EQ(lorc_timer_destroy(c, -4), -22);
  EXPECT_EQ(lorc_timer_destroy(nullptr, 5), -22);
  int id = lorc_timer_create(c, &t, nullptr);
  ASSERT_GT(id, 0);
  EXPECT_EQ(lorc_timer_destroy(c, id), 0);
  EXPECT_EQ(lorc_timer_destroy(c, id), -2);
}

TEST_F(LorcApi, JobFunctionsOnAnUnknownJob) {
  int32_t out = 0;
  EXPECT_EQ(lorc_job_get_result(c, 999, &out), -2);
  EXPECT_EQ(out, -11);
  EXPECT_EQ(lorc_job_get_result(c, 999, nullptr), -2);
  EXPECT_EQ(lorc_job_cancel(c, 999), -2);
  EXPECT_EQ(lorc_job_wait(c, 999, 0), 110);
  EXPECT_EQ(lorc_job_wait(c, 999, 1), -2);
}

TEST_F(LorcApi, UnknownRequestKindsAreRefused) {
  LogCapture log;
  lorc_request request;
  std::memset(&request, 0, sizeof request);
  request.type = 0x40;
  EXPECT_EQ(lorc_api_job_process(c, &request, nullptr, 0, "caller"), -14);
  int job = last_job(log, "caller");
  ASSERT_GT(job, 0);
  EXPECT_TRUE(log.has_line("caller(job=" + S(job) + "): unknown request type 0x0040.\n"));
  EXPECT_EQ(lorc_job_cancel(c, job), -2);  // destroyed

  // Post-processing a job of no known kind.
  request.type = 0x50;
  apij_job_ref ref;
  int id = apij_JobCreate(c->jobs, &request, -1, 0, &ref);
  ASSERT_GT(id, 0);
  EXPECT_EQ(lorc_api_job_postproc(c, &ref), -14);
  EXPECT_TRUE(log.has_line("lorc_api_job_postproc(job=" + S(id) + "): unknown request type 0x0050.\n"));
  EXPECT_EQ(apij_JobRefRelease(c->jobs, &ref), 0);
  EXPECT_EQ(apij_JobDestroy(c->jobs, id), 0);
}

// --- Job callbacks and timer jobs ----------------------------------------------

TEST_F(LorcApi, CallbackJobIsCollectedByItsCallbackOnTheClientThread) {
  CallbackLog calls;
  int cb = lorc_job_cb_register(c, record_callback, &calls);
  ASSERT_GT(cb, 0);
  LogCapture log;
  int job = lorc_value_set(c, 0, "/com/norvi/cb", "x", 1, kPlain, -cb);
  ASSERT_GT(job, 0);
  EXPECT_TRUE(log.has_line("lorc_value_set(): created job=" + S(job) + ", cbid=" + S(cb) +
                           ", timeout=" + S(-cb) + "\n"));
  EXPECT_TRUE(log.has_line("lorc_value_set(): async job=" + S(job) + "\n"));
  ASSERT_TRUE(ClientFixture::wait_until([&] { return calls.size() == 1; }));
  CallbackCall call = calls.at(0);
  EXPECT_EQ(call.client, c);
  EXPECT_EQ(call.callbackId, cb);
  EXPECT_EQ(call.jobId, job);
  EXPECT_EQ(call.result, 0);
  EXPECT_EQ(call.cookie, &calls);
  EXPECT_TRUE(call.onClientThread);
  // The callback was the collector: nothing is left to collect.
  ASSERT_TRUE(ClientFixture::wait_until([&] { return lorc_job_cancel(c, job) == -2; }));

  // A failing operation hands its reason to the callback.
  char buffer[8];
  job = lorc_value_query(c, 0, "/com/norvi/nothere", buffer, sizeof buffer, -cb);
  ASSERT_GT(job, 0);
  ASSERT_TRUE(ClientFixture::wait_until([&] { return calls.size() == 2; }));
  EXPECT_EQ(calls.at(1).result, -2);
  EXPECT_EQ(calls.at(1).jobId, job);
  EXPECT_EQ(lorc_job_cb_unregister(c, cb, 0), 0);
}

struct NestedProbe {
  lorc_client *client = nullptr;
  std::atomic<int> calls{0};
  int syncResult = 0;
  int asyncJob = 0;
  int completedJob = 0;
};

void nested_callback(lorc_client *client, int32_t, int32_t jobId, int32_t, void *cookie) {
  auto *probe = static_cast<NestedProbe *>(cookie);
  char buffer[8];
  probe->completedJob = jobId;
  probe->syncResult = lorc_value_query(client, 0, "/com/norvi/n", buffer, sizeof buffer, 5);
  // An asynchronous call is allowed here.
  probe->asyncJob = lorc_job_create_timer(client, 60000, 0, 0);
  probe->calls.fetch_add(1);
}

TEST_F(LorcApi, SynchronousCallFromAJobCallbackIsRefusedWithoutAJob) {
  NestedProbe probe;
  probe.client = c;
  int cb = lorc_job_cb_register(c, nested_callback, &probe);
  ASSERT_GT(cb, 0);
  LogCapture log;
  int job = lorc_value_set(c, 0, "/com/norvi/n", "1", 1, kPlain, -cb);
  ASSERT_GT(job, 0);
  ASSERT_TRUE(ClientFixture::wait_until([&] { return probe.calls.load() == 1; }));
  EXPECT_EQ(probe.completedJob, job);
  EXPECT_EQ(probe.syncResult, -11);
  EXPECT_TRUE(
      log.has_line("lorc_value_query(): nested API call from callback! Would block with timeOut=5\n"));
  EXPECT_FALSE(log.contains("lorc_value_query(): created job="));
  // The refused call took no job id: the next job is the very next id.
  EXPECT_EQ(probe.asyncJob, job + 1);
  EXPECT_EQ(lorc_job_cancel(c, probe.asyncJob), 0);
  EXPECT_EQ(lorc_job_cb_unregister(c, cb, 0), 0);
}

TEST_F(LorcApi, TimerJobYieldsItsExpiryValue) {
  LogCapture log;
  int job = lorc_job_create_timer(c, 1000, 42, 0);
  ASSERT_GT(job, 0);
  int timer = last_timer(log, "lorc_job_create_timer", job);
  ASSERT_GT(timer, 0);
  EXPECT_TRUE(log.has_line("lorc_job_create_timer(job=" + S(job) + "): timer " + S(timer) +
                           " created, 1000 ms\n"));
  EXPECT_TRUE(log.has_line("lorc_job_create_timer(): async job=" + S(job) + "\n"));
  f.advance_uptime(900);
  int32_t out = 0;
  EXPECT_EQ(lorc_job_wait(c, job, 0), 110);
  EXPECT_EQ(lorc_job_get_result(c, job, &out), -115);
  EXPECT_EQ(out, -11);
  f.advance_uptime(200);
  EXPECT_EQ(lorc_job_wait(c, job, 0), 0);
  EXPECT_EQ(lorc_job_get_result(c, job, &out), 0);
  EXPECT_EQ(out, 42);
  // Collecting took the parked timer away with the job.
  EXPECT_EQ(tmrq_TimerGet(c->timers, timer, nullptr), -2);
  EXPECT_EQ(lorc_job_get_result(c, job, &out), -2);
}

TEST_F(LorcApi, TimerJobWithCallbackDeliversTheExpiryValue) {
  CallbackLog calls;
  int cb = lorc_job_cb_register(c, record_callback, &calls);
  ASSERT_GT(cb, 0);
  int job = lorc_job_create_timer(c, 500, -7, -cb);
  ASSERT_GT(job, 0);
  f.advance_uptime(600);
  ASSERT_TRUE(ClientFixture::wait_until([&] { return calls.size() == 1; }));
  EXPECT_EQ(calls.at(0).jobId, job);
  EXPECT_EQ(calls.at(0).result, -7);
  EXPECT_TRUE(calls.at(0).onClientThread);
  EXPECT_EQ(lorc_job_cancel(c, job), -2);
}

TEST_F(LorcApi, CancellingATimerJobRemovesItsTimer) {
  LogCapture log;
  int job = lorc_job_create_timer(c, 10000, 1, 0);
  ASSERT_GT(job, 0);
  int timer = last_timer(log, "lorc_job_create_timer", job);
  ASSERT_GT(timer, 0);
  EXPECT_GE(tmrq_TimerGet(c->timers, timer, nullptr), 0);
  EXPECT_EQ(lorc_job_cancel(c, job), 0);
  EXPECT_TRUE(log.has_line("lorc_req_timer_postproc(job=" + S(job) + "): not done yet!\n"));
  EXPECT_EQ(tmrq_TimerGet(c->timers, timer, nullptr), -2);
  EXPECT_EQ(lorc_job_get_result(c, job, nullptr), -2);
  f.advance_uptime(11000);  // nothing left to fire
  EXPECT_EQ(lorc_job_cancel(c, job), -2);
}

TEST_F(LorcApi, CancellingADoneJobDropsItsValue) {
  int job = lorc_value_set(c, 0, "/com/norvi/cancel", "1", 1, kPlain, 0);
  ASSERT_GT(job, 0);
  ASSERT_EQ(lorc_job_wait(c, job, 5), 0);
  EXPECT_EQ(lorc_job_cancel(c, job), 0);
  EXPECT_EQ(lorc_job_get_result(c, job, nullptr), -2);
}

// --- A server without a thread: the test decides when replies come --------------

class LorcApiFed : public ::testing::Test {
 protected:
  void SetUp() override {
    ServerSetup setup;
    setup.own_thread = false;
    ASSERT_EQ(f.add_server(setup), 0);
    ASSERT_EQ(f.add_client(), 0);
    c = f.client();
    ASSERT_TRUE(roots(f, 1));
    int job = lorc_value_set(c, 0, "/com/norvi/key", "value", 5, kPlain, 0);
    ASSERT_GT(job, 0);
    ASSERT_EQ(complete(f, c, job), 0);
  }

  ClientFixture f;
  lorc_client *c = nullptr;
};

TEST_F(LorcApiFed, AsynchronousJobWithoutCallbackIsPolledUntilItsReply) {
  char buffer[16];
  LogCapture log;
  int job = lorc_value_query(c, 0, "/com/norvi/key", buffer, sizeof buffer, 0);
  ASSERT_GT(job, 0);
  EXPECT_TRUE(log.has_line("lorc_value_query(): created job=" + S(job) + ", cbid=0, timeout=0\n"));
  EXPECT_TRUE(log.has_line("lorc_value_query(): async job=" + S(job) + "\n"));
  f.sync_client(0);
  int32_t out = 0;
  EXPECT_EQ(lorc_job_wait(c, job, 0), 110);
  EXPECT_EQ(lorc_job_get_result(c, job, &out), -115);
  EXPECT_EQ(out, -11);
  EXPECT_EQ(lorc_job_wait(c, job, 0), 110);

  EXPECT_EQ(f.pump_server(0), 1u);
  EXPECT_EQ(lorc_job_wait(c, job, 5), 0);
  EXPECT_EQ(lorc_job_wait(c, job, 0), 0);
  EXPECT_EQ(lorc_job_get_result(c, job, &out), 0);
  EXPECT_EQ(out, 5);
  EXPECT_STREQ(buffer, "value");
  EXPECT_EQ(lorc_job_get_result(c, job, &out), -2);
}

TEST_F(LorcApiFed, UnknownCallbackIdCompletesSilentlyAndWaitsForItsCollector) {
  LogCapture log;
  int job = lorc_value_set(c, 0, "/com/norvi/key", "other", 5, kPlain, -7);
  ASSERT_GT(job, 0);
  EXPECT_TRUE(log.has_line("lorc_value_set(): created job=" + S(job) + ", cbid=7, timeout=-7\n"));
  f.pump_server(0);
  ASSERT_EQ(lorc_job_wait(c, job, 5), 0);
  f.sync_client(0);
  // Still there, done, until collected.
  int32_t out = 1;
  EXPECT_EQ(lorc_job_get_result(c, job, &out), 0);
  EXPECT_EQ(out, 0);
  EXPECT_EQ(lorc_job_get_result(c, job, &out), -2);
}

TEST_F(LorcApiFed, ReplyForARootTurnedInvalidStillCompletesItsJob) {
  char first[16];
  char second[16];
  LogCapture log;
  int job1 = lorc_value_query(c, 0, "/com/norvi/key", first, sizeof first, 0);
  ASSERT_GT(job1, 0);
  EXPECT_TRUE(log.has_line("lorc_value_query(job=" + S(job1) + "): send as reply\n"));

  // The root turns stale while the reply is on its way; the server's own
  // timers don't run, so nothing renews it.
  _cspOsalTime_struct delta = {128, 0};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&delta), 0);
  ASSERT_TRUE(f.sync_client(0));
  EXPECT_EQ(f.valid_roots(0), 0);

  // Sending looks at validity: a new request goes to the service.
  int job2 = lorc_value_query(c, 0, "/com/norvi/key", second, sizeof second, 0);
  ASSERT_GT(job2, 0);
  EXPECT_TRUE(log.has_line("lorc_value_query(job=" + S(job2) + "): send as command\n"));
  EXPECT_EQ(complete(f, c, job1), 5);
  EXPECT_EQ(complete(f, c, job2), 5);
  EXPECT_STREQ(first, "value");
  EXPECT_STREQ(second, "value");
}

TEST_F(LorcApiFed, RootQueryMarksAStaleRoot) {
  char path[32];
  uint32_t flags = 0;
  EXPECT_EQ(lorc_root_query(c, 0, &flags, path, sizeof path), 11);
  EXPECT_STREQ(path, "/com/norvi/");
  EXPECT_NE(flags & 0x20u, 0u);
  EXPECT_EQ(flags & LORC_ROOT_STALE, 0u);
  // Without flags, the path alone; past the end -2.
  EXPECT_EQ(lorc_root_query(c, 0, nullptr, path, sizeof path), 11);
  EXPECT_EQ(lorc_root_query(c, 1, &flags, path, sizeof path), -2);

  _cspOsalTime_struct delta = {128, 0};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&delta), 0);
  flags = 0;
  EXPECT_EQ(lorc_root_query(c, 0, &flags, path, sizeof path), 11);
  EXPECT_NE(flags & LORC_ROOT_STALE, 0u);
  EXPECT_NE(flags & 0x20u, 0u);
}

TEST_F(LorcApiFed, SendingToAServerThatIsGoneFailsAndDestroysTheJob) {
  ASSERT_EQ(f.stop_server(0), 0);  // no thread: no farewell broadcast, the root stays
  LogCapture log;
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/key", "v", 1, kPlain, 5), -113);
  int job = last_job(log, "lorc_value_set");
  EXPECT_TRUE(log.has_line("lorc_value_set(job=" + S(job) + "): send as reply\n"));
  EXPECT_TRUE(log.has_line("lorc_value_set(job=" + S(job) +
                           "): failed sending command as reply. (code=-113)\n"));
  EXPECT_EQ(lorc_job_get_result(c, job, nullptr), -2);
}

// --- Several servers -------------------------------------------------------------

TEST(LorcApiStore, ThreeRootsCompleteAtTheThirdReplyWithTheSecondsError) {
  ClientFixture f;
  ServerSetup setup;
  setup.own_thread = false;
  setup.root_path = "/com/norvi/a";
  ASSERT_EQ(f.add_server(setup), 0);
  setup.root_path = "/com/norvi/b";
  setup.options = 0;  // this one persists, so an active transaction refuses its store
  ASSERT_EQ(f.add_server(setup), 1);
  setup.root_path = "/com/norvi/c";
  setup.options = LORS_OPT_NO_PERSIST;
  ASSERT_EQ(f.add_server(setup), 2);
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  ASSERT_TRUE(roots(f, 3));

  int start = lorc_transaction_start(c, "/com/norvi/b/", 0);
  ASSERT_GT(start, 0);
  ASSERT_GT(complete(f, c, start), 0);

  LogCapture log;
  int job = lorc_repository_store(c, 0);
  ASSERT_GT(job, 0);
  EXPECT_TRUE(log.has_line("lorc_repository_store(job=" + S(job) + "): send as command\n"));
  f.pump_server(0);
  ASSERT_TRUE(f.sync_client(0));
  EXPECT_EQ(log.count("lorc_onReply(job=" + S(job) + ")\n"), 1u);
  EXPECT_EQ(lorc_job_wait(c, job, 0), 110);
  f.pump_server(1);
  ASSERT_TRUE(f.sync_client(0));
  EXPECT_EQ(log.count("lorc_onReply(job=" + S(job) + ")\n"), 2u);
  EXPECT_EQ(lorc_job_wait(c, job, 0), 110);
  f.pump_server(2);
  ASSERT_TRUE(f.sync_client(0));
  EXPECT_EQ(log.count("lorc_onReply(job=" + S(job) + ")\n"), 3u);
  EXPECT_EQ(lorc_job_wait(c, job, 0), 0);
  int32_t out = 0;
  EXPECT_EQ(lorc_job_get_result(c, job, &out), 0);
  EXPECT_EQ(out, -13);
  EXPECT_TRUE(log.has_line("Job " + S(job) + ": result=-13.\n"));
}

TEST(LorcApiStore, ReloadWithThreeRootsEndsWithZeroWhenAllAgree) {
  ClientFixture f;
  for (const char *root : {"/com/norvi/a", "/com/norvi/b", "/com/norvi/c"}) {
    ServerSetup setup;
    setup.root_path = root;
    ASSERT_GE(f.add_server(setup), 0);
  }
  ASSERT_EQ(f.add_client(), 0);
  ASSERT_TRUE(f.wait_roots(0, 3));
  LogCapture log;
  EXPECT_EQ(lorc_repository_reload(f.client(), 5), 0);
  int job = last_job(log, "lorc_repository_reload");
  EXPECT_EQ(log.count("lorc_onReply(job=" + S(job) + ")\n"), 3u);
  // Commands under a root go to that root's server alone.
  EXPECT_EQ(lorc_value_set(f.client(), 0, "/com/norvi/b/x", "1", 1, kPlain, 5), 0);
  char buffer[4];
  EXPECT_EQ(lorc_value_query(f.client(), 0, "/com/norvi/b/x", buffer, sizeof buffer, 5), 1);
  EXPECT_EQ(lorc_value_query(f.client(), 0, "/com/norvi/a/x", buffer, sizeof buffer, 5), -2);
}

// --- No server: what goes out, and what never comes back ---------------------------

// A raw client that hosts "LOREG" and answers nothing by itself.
class Swallower {
 public:
  explicit Swallower(lmq_server *lmq) : m_wire(lmq, false) {
    EXPECT_EQ(lmqHostService(m_wire.client(), m_wire.service_id(), 0), 0);
  }
  ~Swallower() { lmqUnHostService(m_wire.client(), m_wire.service_id()); }
  WireClient &wire() { return m_wire; }
  // Waits for the command with this type and reqid.
  std::optional<WireMessage> command(uint16_t type, uint32_t reqid) {
    std::optional<WireMessage> found;
    ClientFixture::wait_until([&] {
      m_wire.poll();
      for (const auto &m : m_wire.messages()) {
        if (!m.system && m.header.msgtype == type && m.header.reqid == reqid) found = m;
      }
      return found.has_value();
    });
    return found;
  }

 private:
  WireClient m_wire;
};

TEST(LorcApiNoServer, ExpiredSynchronousCallLeavesNoJobAndItsLateReplyIsDropped) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  Swallower swallower(f.lmq());
  LogCapture log;
  char buffer[8] = "keep";
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/x", buffer, sizeof buffer, 1), -110);
  int job = last_job(log, "lorc_value_query");
  ASSERT_GT(job, 0);
  EXPECT_TRUE(log.has_line("lorc_value_query(job=" + S(job) + "): send as command\n"));
  EXPECT_TRUE(log.has_line("lorc_req_simple_postproc(job=" + S(job) + "): not done yet!\n"));
  EXPECT_EQ(lorc_job_get_result(c, job, nullptr), -2);

  auto request = swallower.command(LOREG_MSG_VALUE_QUERY, static_cast<uint32_t>(job));
  ASSERT_TRUE(request);
  EXPECT_EQ(request->data1, "/com/norvi/x");
  EXPECT_EQ(swallower.wire().send_to(request->info.reply, 0x1001, static_cast<uint32_t>(job), 0,
                                     0, 0, "late", ""),
            0);
  // The client's loop serves timers after that reply as before.
  ASSERT_TRUE(f.sync_client(0));
  EXPECT_FALSE(log.contains("lorc_onReply(job=" + S(job) + ")"));
  EXPECT_STREQ(buffer, "keep");
}

TEST(LorcApiNoServer, FurtherReplyForADoneJobChangesNothing) {
  TestAllocator alloc;
  ClientFixture f;
  ClientSetup setup;
  setup.allocator = alloc.handle();
  ASSERT_EQ(f.add_client(setup), 0);
  lorc_client *c = f.client();
  Swallower swallower(f.lmq());
  size_t before = settled(f, 0, alloc);
  LogCapture log;

  char *value = nullptr;
  int job = lorc_m_value_query(c, 0, "/com/norvi/twice", &value, 0);
  ASSERT_GT(job, 0);
  auto request = swallower.command(LOREG_MSG_VALUE_QUERY, static_cast<uint32_t>(job));
  ASSERT_TRUE(request);
  // Two answers, as two servers give to a command that reached both.
  ASSERT_EQ(swallower.wire().send_to(request->info.reply, 0x1001, static_cast<uint32_t>(job), 0,
                                     0x04, 0, "first", ""),
            0);
  ASSERT_EQ(swallower.wire().send_to(request->info.reply, 0x1001, static_cast<uint32_t>(job), 0,
                                     0x04, 0, "the second", ""),
            0);
  ASSERT_TRUE(f.sync_client(0));
  EXPECT_EQ(log.count("lorc_onReply(job=" + S(job) + ")\n"), 2u);

  int32_t out = 0;
  ASSERT_EQ(lorc_job_get_result(c, job, &out), 0);
  EXPECT_EQ(out, 5);
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(value, "first");
  lorc_m_free(c, value);
  EXPECT_EQ(settled(f, 0, alloc), before);
}

// An allocator that cancels a job from inside the allocation of the
// job's result buffer, which the client thread makes while taking the reply.
struct CancellingAllocator {
  loreg_allocator handle{};
  TestAllocator inner;
  lorc_client *client = nullptr;
  std::atomic<int> job{0};
  std::atomic<size_t> size{0};
  std::atomic<int> cancelled{1};

  CancellingAllocator() {
    handle.context = this;
    handle.alloc = [](void *context, size_t bytes, int zero) -> void * {
      auto *self = static_cast<CancellingAllocator *>(context);
      if (bytes == self->size.load()) {
        int target = self->job.exchange(0);
        if (target > 0) self->cancelled = lorc_job_cancel(self->client, target);
      }
      return self->inner.handle()->alloc(self->inner.handle()->context, bytes, zero);
    };
    handle.free = [](void *context, void *block) {
      auto *self = static_cast<CancellingAllocator *>(context);
      self->inner.handle()->free(self->inner.handle()->context, block);
    };
  }
};

TEST(LorcApiNoServer, ReplyForAJobCancelledMeanwhileLeavesNoBuffer) {
  CancellingAllocator alloc;
  ClientFixture f;
  ClientSetup setup;
  setup.allocator = &alloc.handle;
  ASSERT_EQ(f.add_client(setup), 0);
  lorc_client *c = f.client();
  alloc.client = c;
  Swallower swallower(f.lmq());
  size_t before = settled(f, 0, alloc.inner);
  LogCapture log;

  char *value = nullptr;
  int job = lorc_m_value_query(c, 0, "/com/norvi/gone", &value, 0);
  ASSERT_GT(job, 0);
  auto request = swallower.command(LOREG_MSG_VALUE_QUERY, static_cast<uint32_t>(job));
  ASSERT_TRUE(request);
  const std::string text = "a value of exactly thirty-seven bytes";
  ASSERT_EQ(text.size(), 37u);
  alloc.size = text.size() + 1;
  alloc.job = job;
  ASSERT_EQ(swallower.wire().send_to(request->info.reply, 0x1001, static_cast<uint32_t>(job), 0,
                                     0x04, 0, text, ""),
            0);
  ASSERT_TRUE(f.sync_client(0));
  EXPECT_EQ(alloc.cancelled.load(), 0);
  EXPECT_TRUE(log.has_line("lorc_req_simple_postproc(job=" + S(job) + "): not done yet!\n"));
  EXPECT_EQ(lorc_job_get_result(c, job, nullptr), -2);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(settled(f, 0, alloc.inner), before);
}

// Stops a thread at chosen log lines until the test lets it go on, so that
// a test can put the client thread and a caller into a chosen order. Each
// stop holds the first thread that logs a line containing its fragment.
// Thresholds come from a LogCapture that lives longer than the gate; while
// the gate is installed, lines are not captured but kept here.
class LogGate {
 public:
  explicit LogGate(std::vector<std::string> stops)
      : m_stops(std::move(stops)), m_hit(m_stops.size(), false), m_go(m_stops.size(), false) {
    cspDebugSetSink(&LogGate::sink, this);
  }
  ~LogGate() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_go.assign(m_go.size(), true);
    }
    m_cond.notify_all();
    cspDebugSetSink(nullptr, nullptr);
  }
  LogGate(const LogGate &) = delete;
  LogGate &operator=(const LogGate &) = delete;

  // Waits (real time) until a thread is held at stop i.
  bool wait_held(size_t i) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::seconds(5), [&] { return m_hit[i]; });
  }
  void release(size_t i) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_go[i] = true;
    }
    m_cond.notify_all();
  }
  // Waits (real time) until some thread logged a line containing fragment.
  bool wait_line(const std::string &fragment) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::seconds(5), [&] {
      for (const auto &line : m_lines) {
        if (line.find(fragment) != std::string::npos) return true;
      }
      return false;
    });
  }

 private:
  static void sink(void *context, uint32_t, uint32_t, uint32_t, const char *text) {
    auto *self = static_cast<LogGate *>(context);
    std::unique_lock<std::mutex> lock(self->m_mutex);
    self->m_lines.emplace_back(text);
    self->m_cond.notify_all();
    for (size_t i = 0; i < self->m_stops.size(); i++) {
      if (self->m_hit[i] || self->m_lines.back().find(self->m_stops[i]) == std::string::npos) {
        continue;
      }
      self->m_hit[i] = true;
      self->m_cond.notify_all();
      self->m_cond.wait(lock, [&] { return self->m_go[i]; });
      break;
    }
  }
  std::vector<std::string> m_stops;
  std::vector<bool> m_hit;
  std::vector<bool> m_go;
  std::vector<std::string> m_lines;
  std::mutex m_mutex;
  std::condition_variable m_cond;
};

// Answers a value query from a thread of its own. A reply that reaches an
// idle client is handled in the replying thread, so a gate on the reply's
// log lines must not hold the test's thread.
std::future<int> send_reply_in_own_thread(Swallower &swallower, const WireMessage &request,
                                          int job, const char *value) {
  return std::async(std::launch::async, [&swallower, request, job, value] {
    return swallower.wire().send_to(request.info.reply, 0x1001, static_cast<uint32_t>(job), 0, 0x04,
                                    0, value, "");
  });
}

TEST(LorcApiNoServer, ReplyForAJobGivenUpLeavesTheCallersBufferAlone) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  Swallower swallower(f.lmq());
  LogCapture log;
  char buffer[16] = "untouched";
  int job = lorc_value_query(c, 0, "/com/norvi/q", buffer, sizeof buffer, 0);
  ASSERT_GT(job, 0);
  auto request = swallower.command(LOREG_MSG_VALUE_QUERY, static_cast<uint32_t>(job));
  ASSERT_TRUE(request);
  {
    // The client thread has found the job for its reply; the caller gives
    // the job up before the reply is taken. Once lorc_job_cancel has
    // returned, the buffer is the caller's again.
    LogGate gate({"lorc_onReply(job=" + S(job) + ")\n"});
    std::future<int> sent = send_reply_in_own_thread(swallower, *request, job, "written");
    ASSERT_TRUE(gate.wait_held(0));
    EXPECT_EQ(lorc_job_cancel(c, job), 0);
    gate.release(0);
    EXPECT_EQ(sent.get(), 0);
    ASSERT_TRUE(f.sync_client(0));
  }
  EXPECT_STREQ(buffer, "untouched");
  EXPECT_EQ(lorc_job_get_result(c, job, nullptr), -2);
}

TEST(LorcApiNoServer, ReplyTakenWhileTheJobIsGivenUpLeavesNoBuffer) {
  TestAllocator alloc;
  ClientFixture f;
  ClientSetup setup;
  setup.allocator = alloc.handle();
  ASSERT_EQ(f.add_client(setup), 0);
  lorc_client *c = f.client();
  Swallower swallower(f.lmq());
  size_t before = settled(f, 0, alloc);
  LogCapture log;
  char *value = nullptr;
  int job = lorc_m_value_query(c, 0, "/com/norvi/q", &value, 0);
  ASSERT_GT(job, 0);
  auto request = swallower.command(LOREG_MSG_VALUE_QUERY, static_cast<uint32_t>(job));
  ASSERT_TRUE(request);
  {
    // lorc_job_cancel finds the job open; before it goes on, the client
    // thread takes the reply and completes the job with a buffer allocated
    // for it.
    LogGate gate({"lorc_onReply(job=" + S(job) + ")\n",
                  "lorc_req_simple_postproc(job=" + S(job) + "): not done yet!\n"});
    std::future<int> sent = send_reply_in_own_thread(swallower, *request, job, "late value");
    ASSERT_TRUE(gate.wait_held(0));
    std::future<int> cancel =
        std::async(std::launch::async, [&] { return lorc_job_cancel(c, job); });
    ASSERT_TRUE(gate.wait_held(1));
    gate.release(0);
    EXPECT_TRUE(gate.wait_line("_apij_JobDone_nolock(" + S(job) + "), result=0\n"));
    gate.release(1);
    EXPECT_EQ(cancel.get(), 0);
    EXPECT_EQ(sent.get(), 0);
    ASSERT_TRUE(f.sync_client(0));
  }
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(lorc_job_get_result(c, job, nullptr), -2);
  EXPECT_EQ(settled(f, 0, alloc), before);
}

TEST(LorcApiNoServer, ArgumentsGoIntoTheMessageUnchanged) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  Swallower swallower(f.lmq());
  char buffer[8];
  uint32_t flags = 0;

  int set = lorc_value_set(c, 7, "/com/norvi/s", "val", 3, 0x30602, 0);
  auto m = swallower.command(LOREG_MSG_VALUE_SET, set);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->header.arg0, 0x30602u);
  EXPECT_EQ(m->header.tid, 7);
  EXPECT_EQ(m->data0, "val");
  EXPECT_EQ(m->data1, "/com/norvi/s");

  int count = lorc_key_count(c, -1, "/com/norvi/", 0x10, 0);
  m = swallower.command(LOREG_MSG_KEY_COUNT, count);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->header.arg0, 0x10u);
  EXPECT_EQ(m->header.tid, -1);

  int query = lorc_key_query(c, 0, "/com/norvi/", 0x1F, -1, &flags, buffer, sizeof buffer, 0);
  m = swallower.command(LOREG_MSG_KEY_QUERY, query);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->header.arg0, 0x1Fu);
  EXPECT_EQ(m->header.arg1, 0xFFFFFFFFu);

  int del = lorc_key_delete(c, 3, "/com/norvi/d", 0);
  m = swallower.command(LOREG_MSG_KEY_DELETE, del);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->header.tid, 3);

  int timed = lorc_transaction_timed_start(c, "/com/norvi/t/", 30, 4000, 0);
  m = swallower.command(LOREG_MSG_TA_START_TIMED, timed);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->header.arg0, 30u);
  EXPECT_EQ(m->header.arg1, 4000u);
  EXPECT_EQ(m->data1, "/com/norvi/t/");

  // The plain start is the timed one with zeros; type 6 is never sent.
  int plain = lorc_transaction_start(c, "/com/norvi/t/", 0);
  m = swallower.command(LOREG_MSG_TA_START_TIMED, plain);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->header.arg0, 0u);
  EXPECT_EQ(m->header.arg1, 0u);

  int end = lorc_transaction_end(c, 9, 0);
  m = swallower.command(LOREG_MSG_TA_END, end);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->header.tid, 9);
  EXPECT_EQ(m->header.len1, 0u);

  int acquire = lorc_transid_acquire(c, "/com/norvi/q", 0);
  ASSERT_TRUE(swallower.command(LOREG_MSG_TID_ACQUIRE, acquire));
  int release = lorc_transid_release(c, "/com/norvi/q", 11, 0);
  m = swallower.command(LOREG_MSG_TID_RELEASE, release);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->header.tid, 11);
  EXPECT_EQ(m->data1, "/com/norvi/q");

  int store = lorc_repository_store(c, 0);
  m = swallower.command(LOREG_MSG_REPO_STORE, store);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->header.len0 + m->header.len1, 0);
  int reload = lorc_repository_reload(c, 0);
  ASSERT_TRUE(swallower.command(LOREG_MSG_REPO_RELOAD, reload));

  for (const auto &msg : swallower.wire().messages()) EXPECT_NE(msg.header.msgtype, 0x0006);
  for (int job : {set, count, query, del, timed, plain, end, acquire, release, store, reload}) {
    EXPECT_EQ(lorc_job_cancel(c, job), 0);
  }
}

TEST(LorcApiNoServer, FailedSendIsReturnedAndTheJobDestroyed) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  LogCapture log;
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/x", "1", 1, kPlain, 5), -113);
  int job = last_job(log, "lorc_value_set");
  EXPECT_TRUE(log.has_line("lorc_value_set(job=" + S(job) + "): send as command\n"));
  EXPECT_TRUE(log.has_line("lorc_value_set(job=" + S(job) + "): failed sending command. (code=-113)\n"));
  EXPECT_EQ(lorc_job_get_result(c, job, nullptr), -2);
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/x", "1", 1, kPlain, 0), -113);
}

TEST(LorcApiNoServer, JobCreationFailureGivesMinus12) {
  TestAllocator alloc;
  ClientFixture f;
  ClientSetup setup;
  setup.allocator = alloc.handle();
  ASSERT_EQ(f.add_client(setup), 0);
  LogCapture log;
  size_t before = alloc.live_blocks();
  alloc.fail_at(1);
  EXPECT_EQ(lorc_value_set(f.client(), 0, "/com/norvi/x", "1", 1, kPlain, 5), -12);
  alloc.disarm();
  EXPECT_TRUE(log.has_line("lorc_value_set(): failed creating job. (code -12)\n"));
  EXPECT_EQ(alloc.live_blocks(), before);
  alloc.fail_at(1);
  EXPECT_EQ(lorc_job_create_timer(f.client(), 10, 0, 0), -12);
  alloc.disarm();
  ASSERT_EQ(f.stop_client(0), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(LorcApiNoServer, TimerJobCreationFailureOfTheTimerDestroysTheJob) {
  TestAllocator alloc;
  ClientFixture f;
  ClientSetup setup;
  setup.allocator = alloc.handle();
  ASSERT_EQ(f.add_client(setup), 0);
  LogCapture log;
  size_t before = alloc.live_blocks();
  alloc.fail_at(2);  // the job's node, then the timer's
  EXPECT_EQ(lorc_job_create_timer(f.client(), 10, 0, 0), -12);
  alloc.disarm();
  int job = last_job(log, "lorc_job_create_timer");
  EXPECT_TRUE(log.has_line("lorc_job_create_timer(" + S(job) + "): failed to create timer, -12\n"));
  EXPECT_EQ(lorc_job_get_result(f.client(), job, nullptr), -2);
  EXPECT_EQ(alloc.live_blocks(), before);
  ASSERT_EQ(f.stop_client(0), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

}  // namespace
