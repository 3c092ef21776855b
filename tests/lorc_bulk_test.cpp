// Tests of compound bulk requests: a key container carried out as one job,
// against a real server, and against a host of the service that records
// the exact messages the client sends.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "loreg/loreg_lmq.h"
#include "loreg/lors.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/lorc_notify_helpers.h"
#include "support/test_allocator.h"
#include "support/wire_client.h"

namespace {

using testsupport::BulkKeys;
using testsupport::ClientFixture;
using testsupport::ServerSetup;
using testsupport::ClientSetup;
using testsupport::LogCapture;
using testsupport::SpyHost;
using testsupport::TestAllocator;
using testsupport::WireClient;
using testsupport::WireMessage;

constexpr uint32_t kCreate = 0x30400;  // set flags: create key and directories, apply value
constexpr uint32_t kSet = LORC_BULKOP_SET | kCreate;
constexpr uint32_t kDoneMask = 0x300000;

// A client and a server under the default root, the root known.
struct Rig {
  LogCapture log;
  ClientFixture f;
  lorc_client *c = nullptr;
  explicit Rig(const loreg_allocator *allocator = nullptr) {
    EXPECT_EQ(f.add_server(), 0);
    ClientSetup options;
    options.allocator = allocator;
    EXPECT_EQ(f.add_client(options), 0);
    c = f.client();
    EXPECT_TRUE(f.wait_roots(0, 1));
  }
  int set(const std::string &path, const std::string &value) {
    return lorc_value_set(c, 0, path.c_str(), value.data(), static_cast<uint32_t>(value.size()),
                          kCreate, 5);
  }
  std::string get(const std::string &path) {
    char buffer[256];
    int rc = lorc_value_query(c, 0, path.c_str(), buffer, sizeof buffer, 5);
    return rc >= 0 ? std::string(buffer, static_cast<size_t>(rc)) : "<" + std::to_string(rc) + ">";
  }
};

// Jobs created with a job callback (the sub-jobs of bulk jobs), from the
// "created job" lines.
int callback_jobs(const LogCapture &log) {
  int n = 0;
  for (const auto &text : log.texts()) {
    size_t at = text.find("(): created job=");
    if (at == std::string::npos) continue;
    int job = 0, cbid = 0, timeout = 0;
    if (sscanf(text.c_str() + at, "(): created job=%d, cbid=%d, timeout=%d", &job, &cbid,
               &timeout) == 3 &&
        cbid != 0) {
      n++;
    }
  }
  return n;
}

// The callback id of the sub-jobs of bulk job `job`: that of the first job
// created after it with a callback.
int callback_id_of(const LogCapture &log, int job) {
  for (const auto &text : log.texts()) {
    size_t at = text.find("(): created job=");
    if (at == std::string::npos) continue;
    int id = 0, cbid = 0, timeout = 0;
    if (sscanf(text.c_str() + at, "(): created job=%d, cbid=%d, timeout=%d", &id, &cbid,
               &timeout) == 3 &&
        id > job && cbid != 0) {
      return cbid;
    }
  }
  return 0;
}

// Key update notifications seen by a wire client, in arrival order.
std::vector<WireMessage> updates(WireClient &w) {
  w.poll();
  return w.notifications();
}

// --- Basic operations -----------------------------------------------------

TEST(LorcBulk, SetQueryAndDeleteResultsAreWrittenIntoTheContainer) {
  Rig s;
  ASSERT_EQ(s.set("/com/norvi/q", "hello"), 0);
  ASSERT_EQ(s.set("/com/norvi/d", "gone"), 0);
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/s", kSet, "42"), 0);
  ASSERT_EQ(keys.add("/com/norvi/ignored", 0x1F, "x"), 0);
  ASSERT_EQ(keys.add("/com/norvi/q", LORC_BULKOP_QUERY), 0);
  ASSERT_EQ(keys.add("/com/norvi/d", LORC_BULKOP_DELETE), 0);
  s.log.clear();

  EXPECT_EQ(lorc_bulk_operation(s.c, keys.get(), 5), 0);

  EXPECT_EQ(keys.flags("/com/norvi/s"), kSet | LORC_BULKOP_DONE);
  EXPECT_EQ(keys.key("/com/norvi/s").value, "42");
  // The query's value and the key's flags (KEYF_VALUE) come from the reply.
  auto q = keys.key("/com/norvi/q");
  EXPECT_EQ(q.value, "hello");
  EXPECT_EQ(q.flags, LORC_BULKOP_QUERY | LORC_BULKOP_DONE | 0x04u);
  EXPECT_EQ(keys.flags("/com/norvi/d"), LORC_BULKOP_DELETE | LORC_BULKOP_DONE);
  EXPECT_EQ(keys.flags("/com/norvi/ignored"), 0x1Fu);

  EXPECT_EQ(s.get("/com/norvi/s"), "42");
  EXPECT_EQ(s.get("/com/norvi/d"), "<-2>");
  EXPECT_EQ(callback_jobs(s.log), 3);
  EXPECT_EQ(s.log.count("(COMPOUND) successfully done.\n"), 1u) << s.log.dump();
}

TEST(LorcBulk, FailingKeyIsMarkedAndItsErrorIsTheResult) {
  Rig s;
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/first", kSet, "1"), 0);
  // A set without the create bits on a missing key: the server answers -2.
  ASSERT_EQ(keys.add("/com/norvi/missing", LORC_BULKOP_SET | 0x400, "2"), 0);
  ASSERT_EQ(keys.add("/com/norvi/later", kSet, "3"), 0);
  s.log.clear();

  int job = lorc_bulk_operation(s.c, keys.get(), 0);
  ASSERT_GT(job, 0);
  ASSERT_EQ(lorc_job_wait(s.c, job, 5), 0);
  int32_t value = 0;
  ASSERT_EQ(lorc_job_get_result(s.c, job, &value), 0);
  EXPECT_EQ(value, -2);

  EXPECT_EQ(keys.flags("/com/norvi/first"), kSet | LORC_BULKOP_DONE);
  EXPECT_EQ(keys.flags("/com/norvi/missing"), LORC_BULKOP_SET | 0x400 | LORC_BULKOP_FAILED);
  EXPECT_EQ(keys.flags("/com/norvi/later"), kSet);  // not reached
  EXPECT_TRUE(s.log.has_line("_lorc_req_compound_cb(" + std::to_string(job) +
                             "): value set failed - bulk job terminates with error -2.\n"))
      << s.log.dump();
  EXPECT_EQ(s.get("/com/norvi/later"), "<-2>");
  EXPECT_FALSE(s.log.contains("successfully done")) << s.log.dump();
}

TEST(LorcBulk, FailingQueryAndDelete) {
  Rig s;
  for (uint32_t op : {LORC_BULKOP_QUERY, LORC_BULKOP_DELETE}) {
    BulkKeys keys;
    ASSERT_EQ(keys.add("/com/norvi/none", op), 0);
    s.log.clear();
    int job = lorc_bulk_operation(s.c, keys.get(), 0);
    ASSERT_GT(job, 0);
    ASSERT_EQ(lorc_job_wait(s.c, job, 5), 0);
    int32_t value = 0;
    ASSERT_EQ(lorc_job_get_result(s.c, job, &value), 0);
    EXPECT_EQ(value, -2);
    EXPECT_EQ(keys.flags("/com/norvi/none"), op | LORC_BULKOP_FAILED);
    const char *word = op == LORC_BULKOP_QUERY ? "value query" : "key delete";
    EXPECT_TRUE(s.log.has_line("_lorc_req_compound_cb(" + std::to_string(job) + "): " + word +
                               " failed - bulk job terminates with error -2.\n"))
        << s.log.dump();
  }
}

TEST(LorcBulk, EmptyContainerAndContainerWithoutOperations) {
  Rig s;
  BulkKeys empty;
  EXPECT_EQ(lorc_bulk_operation(s.c, empty.get(), 5), -22);
  EXPECT_TRUE(s.log.has_line("lorc_req_compound_start(): container is empty.\n")) << s.log.dump();

  BulkKeys plain;
  ASSERT_EQ(plain.add("/com/norvi/p", 0x04, "v"), 0);
  s.log.clear();
  EXPECT_EQ(lorc_bulk_operation(s.c, plain.get(), 5), 0);
  EXPECT_TRUE(s.log.has_line(
      "lorc_req_compound_start(): no LORC_BULKOP_xxx code found in container - continue "
      "anyway.\n"))
      << s.log.dump();
  EXPECT_EQ(plain.flags("/com/norvi/p"), 0x04u);
  EXPECT_EQ(callback_jobs(s.log), 0);
}

TEST(LorcBulk, CallbackJobReportsItsResultOnTheClientThread) {
  Rig s;
  struct Seen {
    std::mutex m;
    std::condition_variable cv;
    bool called = false;
    int32_t callbackId = 0, jobId = 0, result = 99;
    bool onClientThread = false;
  } seen;
  auto fn = [](lorc_client *client, int32_t callbackId, int32_t jobId, int32_t result,
               void *cookie) {
    auto *x = static_cast<Seen *>(cookie);
    std::lock_guard<std::mutex> lock(x->m);
    x->called = true;
    x->callbackId = callbackId;
    x->jobId = jobId;
    x->result = result;
    x->onClientThread = lorc_is_client_thread(client) != 0;
    x->cv.notify_all();
  };
  int cbid = lorc_job_cb_register(s.c, fn, &seen);
  ASSERT_GT(cbid, 0);
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/cb", kSet, "v"), 0);
  int job = lorc_bulk_operation(s.c, keys.get(), -cbid);
  ASSERT_GT(job, 0);
  {
    std::unique_lock<std::mutex> lock(seen.m);
    ASSERT_TRUE(seen.cv.wait_for(lock, std::chrono::seconds(5), [&] { return seen.called; }));
    EXPECT_EQ(seen.callbackId, cbid);
    EXPECT_EQ(seen.jobId, job);
    EXPECT_EQ(seen.result, 0);
    EXPECT_TRUE(seen.onClientThread);
  }
  ASSERT_TRUE(s.f.sync());
  EXPECT_EQ(keys.flags("/com/norvi/cb"), kSet | LORC_BULKOP_DONE);
  // A callback job is destroyed after its callback.
  int32_t value = 0;
  EXPECT_LT(lorc_job_get_result(s.c, job, &value), 0);
  EXPECT_EQ(lorc_job_cb_unregister(s.c, cbid, 0), 0);
}

TEST(LorcBulk, RerunningAContainerClearsTheMarks) {
  Rig s;
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/r/a", LORC_BULKOP_SET | 0x400, "1"), 0);
  ASSERT_EQ(keys.add("/com/norvi/r/b", kSet | LORC_BULKOP_DONE, "2"), 0);
  ASSERT_EQ(keys.add("/com/norvi/r/z", kDoneMask, "keeps its bits"), 0);

  // /com/norvi/r/a does not exist: it fails, b is never reached and has
  // lost its old mark, z carries no operation and is left alone.
  EXPECT_EQ(lorc_bulk_operation(s.c, keys.get(), 5), -2);
  EXPECT_EQ(keys.flags("/com/norvi/r/a"), LORC_BULKOP_SET | 0x400 | LORC_BULKOP_FAILED);
  EXPECT_EQ(keys.flags("/com/norvi/r/b"), kSet);
  EXPECT_EQ(keys.flags("/com/norvi/r/z"), kDoneMask);

  ASSERT_EQ(s.set("/com/norvi/r/a", "0"), 0);
  EXPECT_EQ(lorc_bulk_operation(s.c, keys.get(), 5), 0);
  EXPECT_EQ(keys.flags("/com/norvi/r/a"), LORC_BULKOP_SET | 0x400 | LORC_BULKOP_DONE);
  EXPECT_EQ(keys.flags("/com/norvi/r/b"), kSet | LORC_BULKOP_DONE);
  EXPECT_EQ(keys.flags("/com/norvi/r/z"), kDoneMask);
  EXPECT_EQ(s.get("/com/norvi/r/a"), "1");
  EXPECT_EQ(s.get("/com/norvi/r/b"), "2");
}

// --- Transactions -----------------------------------------------------------

TEST(LorcBulkTransaction, KeyAtTheEndOpensFirstAndTheOthersRunInside) {
  Rig s;
  ASSERT_EQ(s.set("/com/norvi/t/", ""), 0);
  WireClient w(s.f.lmq(), true);
  ASSERT_TRUE(s.f.sync());
  w.poll();
  w.clear();

  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/t/x", kSet, "1"), 0);
  ASSERT_EQ(keys.add("/com/norvi/t/y", kSet, "2"), 0);
  ASSERT_EQ(keys.add("/com/norvi/t/", LORC_BULKOP_TRANSACTION), 0);
  EXPECT_EQ(lorc_bulk_operation(s.c, keys.get(), 5), 0);
  ASSERT_TRUE(s.f.sync());

  auto notes = updates(w);
  std::vector<std::pair<uint32_t, std::string>> seen;
  int32_t tid = 0;
  for (const auto &n : notes) {
    if (n.header.arg0 == LOREG_REASON_KEY_UPDATE) continue;  // root announcements
    seen.emplace_back(n.header.arg0, n.data1);
    if (n.header.arg0 == LOREG_REASON_TA_START) tid = n.header.tid;
    EXPECT_EQ(n.header.tid, tid) << testsupport::describe(n);
  }
  ASSERT_GT(tid, 0);
  std::vector<std::pair<uint32_t, std::string>> expected = {
      {LOREG_REASON_TA_START, "/com/norvi/t/"},
      {LOREG_REASON_KEY_ADD, "/com/norvi/t/x"},
      {LOREG_REASON_KEY_ADD, "/com/norvi/t/y"},
      {LOREG_REASON_TA_END, "/com/norvi/t/"},
  };
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(keys.flags("/com/norvi/t/"), LORC_BULKOP_TRANSACTION | LORC_BULKOP_DONE);
  EXPECT_EQ(keys.flags("/com/norvi/t/x"), kSet | LORC_BULKOP_DONE);
  EXPECT_EQ(keys.flags("/com/norvi/t/y"), kSet | LORC_BULKOP_DONE);
}

TEST(LorcBulkTransaction, WaitTimeComesFromTheKeyValue) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  SpyHost spy(f.lmq());

  for (const char *value : {"30", ""}) {
    SCOPED_TRACE(std::string("value '") + value + "'");
    BulkKeys keys;
    ASSERT_EQ(keys.add("/com/norvi/t/", LORC_BULKOP_TRANSACTION, value), 0);
    int job = lorc_bulk_operation(c, keys.get(), 0);
    ASSERT_GT(job, 0);

    auto echo = spy.next(LOREG_MSG_ECHO);
    ASSERT_TRUE(echo);
    EXPECT_EQ(echo->header.reqid, static_cast<uint32_t>(job));
    EXPECT_EQ(echo->header.arg0, LORC_COMPOUND_ECHO_MARK);
    EXPECT_EQ(echo->header.arg1, 0u);
    EXPECT_EQ(echo->header.tid, 0);
    EXPECT_EQ(echo->header.len0 + echo->header.len1, 0);
    ASSERT_EQ(spy.reply(*echo, 0, 0), 0);

    auto start = spy.next(LOREG_MSG_TA_START_TIMED);
    ASSERT_TRUE(start);
    EXPECT_EQ(start->header.arg0, value[0] != '\0' ? 30u : 0u);
    EXPECT_EQ(start->header.arg1, 0u);
    EXPECT_EQ(start->data1, "/com/norvi/t/");
    ASSERT_EQ(spy.reply(*start, 0, 77), 0);

    auto end = spy.next(LOREG_MSG_TA_END);
    ASSERT_TRUE(end);
    EXPECT_EQ(end->header.tid, 77);
    ASSERT_EQ(spy.reply(*end, 0, 77), 0);

    ASSERT_EQ(lorc_job_wait(c, job, 5), 0);
    int32_t result = -1;
    ASSERT_EQ(lorc_job_get_result(c, job, &result), 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(keys.flags("/com/norvi/t/"), LORC_BULKOP_TRANSACTION | LORC_BULKOP_DONE);
    // Plain transaction starts (type 6) are never sent.
    for (uint16_t type : spy.poll()) EXPECT_NE(type, LOREG_MSG_TA_START);
  }
}

TEST(LorcBulkTransaction, TransactionIdZeroDoesNotRestartTheTransaction) {
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  SpyHost spy(f.lmq());
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/t/", LORC_BULKOP_TRANSACTION), 0);
  ASSERT_EQ(keys.add("/com/norvi/t/a", kSet, "1"), 0);
  int job = lorc_bulk_operation(c, keys.get(), 0);
  ASSERT_GT(job, 0);
  auto echo = spy.next(LOREG_MSG_ECHO);
  ASSERT_TRUE(echo);
  ASSERT_EQ(spy.reply(*echo, 0, 0), 0);
  // A server that opens the transaction with the id 0.
  auto start = spy.next(LOREG_MSG_TA_START_TIMED);
  ASSERT_TRUE(start);
  ASSERT_EQ(spy.reply(*start, 0, 0), 0);
  // The walk goes on with the next key; it does not open it again.
  auto set = spy.next(LOREG_MSG_VALUE_SET);
  ASSERT_TRUE(set);
  EXPECT_EQ(set->data1, "/com/norvi/t/a");
  EXPECT_EQ(set->header.tid, 0);
  ASSERT_EQ(spy.reply(*set, 0, 0), 0);
  ASSERT_EQ(lorc_job_wait(c, job, 5), 0);
  int32_t result = -1;
  ASSERT_EQ(lorc_job_get_result(c, job, &result), 0);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(keys.flags("/com/norvi/t/"), LORC_BULKOP_TRANSACTION | LORC_BULKOP_DONE);
  EXPECT_EQ(keys.flags("/com/norvi/t/a"), kSet | LORC_BULKOP_DONE);
  for (uint16_t type : spy.poll()) EXPECT_NE(type, LOREG_MSG_TA_START_TIMED);
}

TEST(LorcBulkTransaction, TwoTransactionKeysAreRefusedBeforeAnyMessage) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  SpyHost spy(f.lmq());
  // The client asks a new host for its roots: let that pass first.
  ASSERT_TRUE(spy.next(LOREG_MSG_ROOT_KEY_QUERY));

  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/t1", LORC_BULKOP_TRANSACTION), 0);
  ASSERT_EQ(keys.add("/com/norvi/s", kSet, "1"), 0);
  ASSERT_EQ(keys.add("/com/norvi/t2", LORC_BULKOP_TRANSACTION), 0);
  EXPECT_EQ(lorc_bulk_operation(c, keys.get(), 5), -22);
  EXPECT_TRUE(
      log.has_line("lorc_req_compound_start(): more than one key with BULKOP_TRANSACTION.\n"))
      << log.dump();
  // A send is a copy into the host's queue: had the echo gone out, it would
  // be there now.
  EXPECT_TRUE(spy.poll().empty());
}

TEST(LorcBulkTransaction, CancelEndsTheOpenTransaction) {
  Rig s;
  ASSERT_EQ(s.set("/com/norvi/t/", ""), 0);
  WireClient w(s.f.lmq(), true);
  ASSERT_TRUE(s.f.sync());
  w.poll();
  w.clear();

  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/t/", LORC_BULKOP_TRANSACTION), 0);
  // A path the server drops without a reply keeps this sub-job running.
  ASSERT_EQ(keys.add("/com/norvi", kSet, "never answered"), 0);
  int job = lorc_bulk_operation(s.c, keys.get(), 0);
  ASSERT_GT(job, 0);

  int32_t tid = 0;
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    for (const auto &n : updates(w)) {
      if (n.header.arg0 == LOREG_REASON_TA_START) tid = n.header.tid;
    }
    return tid > 0;
  }));
  ASSERT_TRUE(s.f.sync());
  EXPECT_EQ(lorc_job_wait(s.c, job, 0), 110);

  EXPECT_EQ(lorc_job_cancel(s.c, job), 0);
  bool ended = ClientFixture::wait_until([&] {
    for (const auto &n : updates(w)) {
      if (n.header.arg0 == LOREG_REASON_TA_END && n.header.tid == tid) return true;
    }
    return false;
  });
  EXPECT_TRUE(ended);
  // The key is free again.
  int next = lorc_transaction_start(s.c, "/com/norvi/t/", 5);
  EXPECT_GT(next, 0);
  EXPECT_EQ(lorc_transaction_end(s.c, next, 5), 0);
  EXPECT_FALSE(s.log.contains("failed to unregister completion callback")) << s.log.dump();
}

// --- Awaited updates --------------------------------------------------------

TEST(LorcBulkWait, OnlyWaitUpdateKeysSendNoSubJobAndEndAtTheLastUpdate) {
  Rig s;
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/w1", LORC_BULKOP_WAITUPDATE), 0);
  ASSERT_EQ(keys.add("/com/norvi/w2", LORC_BULKOP_WAITUPDATE), 0);
  s.log.clear();
  int job = lorc_bulk_operation(s.c, keys.get(), 0);
  ASSERT_GT(job, 0);
  // A round trip behind the echo: its reply has been handled afterwards.
  EXPECT_EQ(s.get("/com/norvi/w1"), "<-2>");
  EXPECT_EQ(lorc_job_wait(s.c, job, 0), 110);

  ASSERT_EQ(s.set("/com/norvi/w1", "a"), 0);
  EXPECT_EQ(lorc_job_wait(s.c, job, 0), 110);
  ASSERT_EQ(s.set("/com/norvi/w2", "b"), 0);
  ASSERT_EQ(lorc_job_wait(s.c, job, 5), 0);
  int32_t value = -1;
  ASSERT_EQ(lorc_job_get_result(s.c, job, &value), 0);
  EXPECT_EQ(value, 0);

  auto w1 = keys.key("/com/norvi/w1");
  EXPECT_EQ(w1.value, "a");
  EXPECT_EQ(w1.flags, LORC_BULKOP_WAITUPDATE | LORC_BULKOP_DONE | 0x04u);
  EXPECT_EQ(keys.key("/com/norvi/w2").value, "b");
  EXPECT_EQ(callback_jobs(s.log), 0);
  EXPECT_TRUE(s.log.has_line("Job " + std::to_string(job) + " (COMPOUND) successfully done.\n"))
      << s.log.dump();
}

TEST(LorcBulkWait, UpdateBeforeTheEchoReplyIsMissed) {
  Rig s;
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/early", LORC_BULKOP_WAITUPDATE), 0);
  // The server handles this set before the echo, so its update reaches the
  // client before the echo's reply, when no wait node exists yet.
  s.f.wire().send(LOREG_MSG_VALUE_SET, 0x7100, kCreate, 0, 0, "first", "/com/norvi/early");
  int job = lorc_bulk_operation(s.c, keys.get(), 0);
  ASSERT_GT(job, 0);
  ASSERT_TRUE(s.f.wire().wait_reply(0x7100));
  EXPECT_EQ(s.get("/com/norvi/early"), "first");  // a round trip behind both
  EXPECT_EQ(lorc_job_wait(s.c, job, 0), 110);
  EXPECT_EQ(keys.flags("/com/norvi/early"), LORC_BULKOP_WAITUPDATE);

  ASSERT_EQ(s.set("/com/norvi/early", "second"), 0);
  ASSERT_EQ(lorc_job_wait(s.c, job, 5), 0);
  int32_t value = -1;
  ASSERT_EQ(lorc_job_get_result(s.c, job, &value), 0);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(keys.key("/com/norvi/early").value, "second");
}

TEST(LorcBulkWait, TriggerPlaysBackTheKeysItWaitsFor) {
  Rig s;
  ASSERT_EQ(s.set("/com/norvi/g/k1", "a"), 0);
  ASSERT_EQ(s.set("/com/norvi/g/k2", "b"), 0);
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/g/", LORC_BULKOP_TRIGGER | (1u << 8)), 0);
  ASSERT_EQ(keys.add("/com/norvi/g/k1", LORC_BULKOP_WAITUPDATE), 0);
  ASSERT_EQ(keys.add("/com/norvi/g/k2", LORC_BULKOP_WAITUPDATE), 0);
  s.log.clear();

  EXPECT_EQ(lorc_bulk_operation(s.c, keys.get(), 5), 0);
  EXPECT_TRUE(s.log.has_line(
      "lorc_notification_trigger('/com/norvi/g/', filter=0xffffffff, max_rec_level=1): success\n"))
      << s.log.dump();
  EXPECT_EQ(keys.flags("/com/norvi/g/"), LORC_BULKOP_TRIGGER | (1u << 8) | LORC_BULKOP_DONE);
  EXPECT_EQ(keys.key("/com/norvi/g/k1").value, "a");
  EXPECT_EQ(keys.key("/com/norvi/g/k2").value, "b");
  EXPECT_EQ(keys.flags("/com/norvi/g/k2"), LORC_BULKOP_WAITUPDATE | LORC_BULKOP_DONE | 0x04u);
  EXPECT_EQ(callback_jobs(s.log), 0);
}

TEST(LorcBulkWait, UpdateAfterAFailedJobLeavesItsContainerAlone) {
  TestAllocator alloc;
  Rig s(alloc.handle());
  ASSERT_EQ(s.set("/com/norvi/t/", ""), 0);
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/t/", LORC_BULKOP_TRANSACTION), 0);
  ASSERT_EQ(keys.add("/com/norvi/t/x", kSet, "1"), 0);
  ASSERT_EQ(keys.add("/com/norvi/w", LORC_BULKOP_WAITUPDATE), 0);
  s.log.clear();

  // Allocations of this job: the job, the sub-jobs' callback, the wait node,
  // the transaction start, the set, then the transaction end, which fails.
  alloc.fail_at(6);
  int job = lorc_bulk_operation(s.c, keys.get(), 0);
  ASSERT_GT(job, 0);
  ASSERT_EQ(lorc_job_wait(s.c, job, 5), 0);
  EXPECT_TRUE(alloc.failed());
  alloc.disarm();
  EXPECT_TRUE(s.log.contains("_lorc_req_compound_next_subjob(" + std::to_string(job) +
                             "): failed to end transaction timeout="))
      << s.log.dump();
  EXPECT_EQ(keys.flags("/com/norvi/t/x"), kSet | LORC_BULKOP_DONE);

  EXPECT_FALSE(s.log.contains("(COMPOUND) successfully done.")) << s.log.dump();

  // The awaited update arrives after the job has ended with its failure:
  // the job is not completed again, its container (the caller's again) is
  // left alone, and the wait node goes.
  ASSERT_TRUE(s.f.sync());
  size_t blocks = alloc.live_blocks();
  ASSERT_EQ(s.set("/com/norvi/w", "late"), 0);
  ASSERT_TRUE(s.f.sync());
  EXPECT_FALSE(s.log.contains("alredy done")) << s.log.dump();
  EXPECT_EQ(keys.key("/com/norvi/w").value, "");
  EXPECT_EQ(keys.flags("/com/norvi/w"), LORC_BULKOP_WAITUPDATE);
  EXPECT_EQ(alloc.live_blocks(), blocks - 1);  // the wait node
  int32_t value = 0;
  ASSERT_EQ(lorc_job_get_result(s.c, job, &value), 0);
  EXPECT_EQ(value, -12);

  // Collecting the job ended the transaction it left open.
  int tid = lorc_transaction_start(s.c, "/com/norvi/t/", 5);
  EXPECT_GT(tid, 0);
  EXPECT_EQ(lorc_transaction_end(s.c, tid, 5), 0);

  ASSERT_EQ(s.f.stop_client(0), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(LorcBulkTransaction, FailedEndEndsTheJobWithItsErrorOnly) {
  TestAllocator alloc;
  Rig s(alloc.handle());
  ASSERT_EQ(s.set("/com/norvi/t/", ""), 0);
  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/t/", LORC_BULKOP_TRANSACTION), 0);
  ASSERT_EQ(keys.add("/com/norvi/t/x", kSet, "1"), 0);
  s.log.clear();

  // Allocations: the job, the sub-jobs' callback, the transaction start,
  // the set, then the transaction end, which fails.
  alloc.fail_at(5);
  int job = lorc_bulk_operation(s.c, keys.get(), 0);
  ASSERT_GT(job, 0);
  ASSERT_EQ(lorc_job_wait(s.c, job, 5), 0);
  ASSERT_TRUE(s.f.sync());
  EXPECT_TRUE(alloc.failed());
  alloc.disarm();
  EXPECT_TRUE(s.log.has_line("_lorc_req_compound_next_subjob(" + std::to_string(job) +
                             "): failed to end transaction timeout=" +
                             std::to_string(-callback_id_of(s.log, job)) + ". (code -12)\n"))
      << s.log.dump();
  // Nothing reports the job as successful, nor completes it a second time.
  EXPECT_FALSE(s.log.contains("(COMPOUND) successfully done.")) << s.log.dump();
  EXPECT_FALSE(s.log.contains("alredy done")) << s.log.dump();
  int32_t value = 0;
  ASSERT_EQ(lorc_job_get_result(s.c, job, &value), 0);
  EXPECT_EQ(value, -12);
  EXPECT_EQ(keys.flags("/com/norvi/t/x"), kSet | LORC_BULKOP_DONE);
  ASSERT_EQ(s.f.stop_client(0), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// --- Allocation failures -------------------------------------------------------

TEST(LorcBulkAlloc, EveryAllocationFailureEndsTheJobWithENOMEM) {
  TestAllocator alloc;
  Rig s(alloc.handle());
  BulkKeys keys;
  // The set's own update is the one awaited.
  ASSERT_EQ(keys.add("/com/norvi/w", kSet, "1"), 0);
  ASSERT_EQ(keys.append("/com/norvi/w", LORC_BULKOP_WAITUPDATE), 0);
  ASSERT_EQ(lorc_bulk_operation(s.c, keys.get(), 5), 0);

  bool sawWaitNode = false, sawCallback = false, sawSubJob = false;
  int n = 1;
  for (; n < 30; n++) {
    SCOPED_TRACE("allocation " + std::to_string(n));
    s.log.clear();
    alloc.fail_at(static_cast<uint64_t>(n));
    int rc = lorc_bulk_operation(s.c, keys.get(), 5);
    bool failed = alloc.failed();
    alloc.disarm();
    if (!failed) {
      EXPECT_EQ(rc, 0);
      break;
    }
    if (rc == 0) {
      // The job was done; only the late unregistering of its callback failed.
      EXPECT_TRUE(s.log.contains("failed to unregister completion callback. (code -12)"))
          << s.log.dump();
      continue;
    }
    EXPECT_EQ(rc, -12) << s.log.dump();
    if (s.log.contains("): failed to register subjob-callback. (code -12)\n")) sawCallback = true;
    if (s.log.contains("): failed to set value timeout=")) sawSubJob = true;
    if (s.log.has_line("_lorc_waitupd_add(): failed to alloc " +
                       std::to_string(sizeof(lorc_waitupd_node)) + " bytes for new node\n")) {
      sawWaitNode = true;
      EXPECT_TRUE(s.log.contains("): failed to init BULKOP_WAITUPDATE handling. (code -12)\n"))
          << s.log.dump();
    }
  }
  EXPECT_LT(n, 30);
  EXPECT_TRUE(sawCallback);
  EXPECT_TRUE(sawWaitNode);
  EXPECT_TRUE(sawSubJob);
  ASSERT_TRUE(s.f.sync());
  ASSERT_EQ(s.f.stop_client(0), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// --- Several servers --------------------------------------------------------

TEST(LorcBulkServers, EverySubJobGoesToItsOwnerAndTheSecondEchoIsIgnored) {
  LogCapture log;
  ClientFixture f;
  ServerSetup a, b;
  a.root_path = "/com/norvi/a";
  b.root_path = "/com/norvi/b";
  ASSERT_EQ(f.add_server(a), 0);
  ASSERT_EQ(f.add_server(b), 1);
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  ASSERT_TRUE(f.wait_roots(0, 2));
  ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/b/q", "bq", 2, kCreate, 5), 0);

  BulkKeys keys;
  ASSERT_EQ(keys.add("/com/norvi/a/k", kSet, "ak"), 0);
  ASSERT_EQ(keys.add("/com/norvi/b/q", LORC_BULKOP_QUERY), 0);
  log.clear();
  int job = lorc_bulk_operation(c, keys.get(), 0);
  ASSERT_GT(job, 0);
  ASSERT_EQ(lorc_job_wait(c, job, 5), 0);
  ASSERT_TRUE(f.sync());
  int32_t value = -1;
  ASSERT_EQ(lorc_job_get_result(c, job, &value), 0);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(keys.key("/com/norvi/b/q").value, "bq");
  EXPECT_EQ(keys.flags("/com/norvi/a/k"), kSet | LORC_BULKOP_DONE);
  // Both servers answered the echo; the second answer changed nothing.
  EXPECT_EQ(log.count("lorc_req_compound_reply(" + std::to_string(job) +
                      "): unexpected: msgtype=0x100b, parm0=0x5505, subjob="),
            1u)
      << log.dump();
  char buffer[16];
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/a/k", buffer, sizeof buffer, 5), 2);
}

}  // namespace
