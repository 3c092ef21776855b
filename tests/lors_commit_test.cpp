// Dirty tracking, auto-commit and the timers of the repository server.
#include <gtest/gtest.h>

#include <algorithm>

#include <memory>
#include <string>
#include <vector>

#include "loreg/lors.h"
#include "loreg/lors_commit.h"
#include "loreg/lors_tas.h"
#include "support/fault_fio.h"
#include "support/log_capture.h"
#include "support/server_fixture.h"

namespace {

using testsupport::FaultFio;
using testsupport::LogCapture;
using testsupport::ServerFixture;
using testsupport::ServerOptions;
using testsupport::WireMessage;

const char kDirtyLine[] = "Repository just became dirty.\n";
const char kCleanLine[] = "Repository is clean again.\n";
const char kFinalCommit[] = "(delayed final auto-commit) Committing changes.\n";
const char kIntermediateCommit[] = "(delayed intermediate auto-commit) Committing changes.\n";
const char kChangeCommit[] = "(immediate change auto-commit) Committing changes.\n";
const char kTaEndCommit[] = "(immediate ta-end auto-commit) Committing changes.\n";

// Lines whose text is exactly the given one.
size_t Exact(const LogCapture &log, const std::string &text) {
  size_t n = 0;
  for (const auto &line : log.texts()) {
    if (line == text) n++;
  }
  return n;
}

class CommitTest : public ::testing::Test {
 protected:
  void Start(ServerOptions options) {
    options.fio = fio.table();
    f = std::make_unique<ServerFixture>(options);
    ASSERT_EQ(f->start(), 0);
    f->client().clear();
  }

  void TearDown() override { f.reset(); }

  lors_ctx *server() { return f->server(); }

  // Files opened for writing, i.e. files the server wrote.
  size_t Writes() const {
    size_t n = 0;
    for (const auto &opened : fio.opened()) {
      if ((opened.mode & LORS_FIO_MODE_WRITE) != 0 && opened.ok) n++;
    }
    return n;
  }

  void Set(const std::string &relative, const std::string &value) {
    auto r = f->set(relative, value);
    ASSERT_TRUE(r);
    ASSERT_EQ(r->header.result, 0);
  }

  tmrq_info Timer(int32_t id) {
    tmrq_info info{};
    EXPECT_GE(tmrq_TimerGet(server()->timers, id, &info), 0) << "timer " << id;
    return info;
  }

  FaultFio fio;  // outlives the server
  std::unique_ptr<ServerFixture> f;
};

ServerOptions Delayed(uint32_t final_ms, uint32_t intermediate_ms, uint32_t more = 0) {
  ServerOptions o;
  o.options = LORS_OPT_COMMIT_DELAYED | more;
  o.commit_delay_final = final_ms;
  o.commit_delay_intermediate = intermediate_ms;
  return o;
}

// --- Dirty marks -------------------------------------------------------------

TEST_F(CommitTest, DirtyAndCleanLinesMarkEachTransitionOnce) {
  Start(ServerOptions());
  LogCapture log;
  Set("/a", "1");
  Set("/a", "2");
  Set("/b", "1");
  EXPECT_EQ(Exact(log, kDirtyLine), 1u) << log.dump();
  EXPECT_EQ(server()->dirty, -1);

  auto stored = f->request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->header.result, 0);
  EXPECT_EQ(Exact(log, kCleanLine), 1u);
  EXPECT_EQ(server()->dirty, 0);

  // Direct calls report whether the state changed.
  log.clear();
  EXPECT_EQ(lors_repositorySetDirty(server(), 0), 0);
  EXPECT_EQ(log.texts().size(), 0u);
  EXPECT_EQ(lors_repositorySetDirty(server(), 1), 1);
  EXPECT_EQ(lors_repositorySetDirty(server(), 5), 0);
  EXPECT_EQ(server()->dirty, -1);
  EXPECT_EQ(lors_repositorySetDirty(server(), 0), 1);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(log.texts(), std::vector<std::string>({kDirtyLine, kCleanLine}));
}

TEST_F(CommitTest, CommitDefaultOnACleanRepositoryDoesNothing) {
  Start(ServerOptions());
  LogCapture log;
  EXPECT_EQ(lors_commit_default(server(), "test"), 0);
  EXPECT_EQ(Writes(), 0u);
  EXPECT_EQ(log.count("Committing changes"), 0u);

  Set("/a", "1");
  log.clear();
  EXPECT_EQ(lors_commit_default(server(), "test"), 0);
  EXPECT_TRUE(log.has_line("(test) Committing changes.\n")) << log.dump();
  EXPECT_EQ(Writes(), 1u);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(server()->commit_count, 1u);
}

TEST_F(CommitTest, CommitDefaultWithoutPersistenceDoesNothing) {
  ServerOptions o;
  o.options = LORS_OPT_NO_PERSIST | LORS_OPT_COMMIT_ON_CHANGE;
  Start(o);
  LogCapture log;
  Set("/a", "1");
  EXPECT_EQ(server()->dirty, -1);
  EXPECT_EQ(lors_commit_default(server(), "test"), 0);
  EXPECT_EQ(log.count("Committing changes"), 0u) << log.dump();
  EXPECT_EQ(Writes(), 0u);
  EXPECT_EQ(server()->dirty, -1);
}

// --- Delayed commits ---------------------------------------------------------

TEST_F(CommitTest, DelayedWithBothDelaysZeroMakesNoTimerAndStaysDirtyUntilStore) {
  Start(Delayed(0, 0));
  Set("/a", "1");
  EXPECT_EQ(server()->dirty, -1);
  EXPECT_EQ(server()->commit_timer_final, 0);
  EXPECT_EQ(server()->commit_timer_intermediate, 0);

  f->advance_ms(3600 * 1000);
  EXPECT_EQ(Writes(), 0u);
  EXPECT_EQ(server()->dirty, -1);
  EXPECT_EQ(server()->commit_count, 0u);
  EXPECT_EQ(server()->commit_timer_final, 0);
  EXPECT_EQ(server()->commit_timer_intermediate, 0);

  auto stored = f->request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->header.result, 0);
  EXPECT_EQ(Writes(), 1u);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(server()->commit_count, 1u);
}

TEST_F(CommitTest, DelayedWithBothDelaysZeroStaysDirtyUntilShutdown) {
  Start(Delayed(0, 0, LORS_OPT_COMMIT_ON_SHUTDOWN));
  Set("/a", "1");
  f->advance_ms(3600 * 1000);
  EXPECT_EQ(Writes(), 0u);
  EXPECT_EQ(server()->dirty, -1);

  LogCapture log;
  EXPECT_EQ(f->stop(), 0);
  EXPECT_EQ(Writes(), 1u);
  EXPECT_TRUE(log.has_line("(shutdown) Committing changes.\n")) << log.dump();
}

TEST_F(CommitTest, TenQuickChangesGiveOneExportAfterTheFinalDelay) {
  Start(Delayed(1000, 0));
  LogCapture log;
  for (int i = 0; i < 10; i++) {
    Set("/k", std::to_string(i));
    f->advance_ms(50);
  }
  EXPECT_EQ(server()->commit_timer_intermediate, 0);
  ASSERT_GT(server()->commit_timer_final, 0);
  EXPECT_EQ(Writes(), 0u);

  // The last change was 50 ms ago: the final timer falls due 950 ms later.
  f->advance_ms(850);
  EXPECT_EQ(Writes(), 0u);
  EXPECT_EQ(server()->commit_count, 0u);
  f->advance_ms(100);
  EXPECT_EQ(Writes(), 1u);
  EXPECT_EQ(server()->commit_count, 1u);
  EXPECT_EQ(server()->export_count, 1u);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(Exact(log, kFinalCommit), 1u) << log.dump();
  EXPECT_EQ(Exact(log, kDirtyLine), 1u);
  EXPECT_EQ(Exact(log, kCleanLine), 1u);

  f->advance_ms(10000);
  EXPECT_EQ(Writes(), 1u);
  EXPECT_EQ(Exact(log, kFinalCommit), 1u);
  // The final timer is parked, not destroyed.
  EXPECT_EQ(Timer(server()->commit_timer_final).inactive, 1);
}

TEST_F(CommitTest, SteadyChangesCommitOnlyByTheIntermediateTimer) {
  // A change every 100 ms keeps postponing the final commit; its delay
  // leaves the real clock, which moves too, seconds to spare.
  Start(Delayed(3000, 5000));
  LogCapture log;
  int32_t final_id = 0;
  int32_t intermediate_id = 0;
  // A commit leaves the repository clean, and the next change starts a
  // new dirty period whose intermediate timer runs 5000 ms from that
  // change. The uptime clock also moves with real time, so whether a
  // commit is due is read off the clock around each step rather than off
  // the step count.
  auto uptime_us = [] {
    _cspOsalTime_struct t{};
    EXPECT_EQ(cspOsalGetUptime(&t), 0);
    return t.sec * 1000000 + t.usec;
  };
  const int64_t period_us = 5000000;
  int64_t period_lo = 0;  // the first change of the dirty period was made
  int64_t period_hi = 0;  // between these two readings
  bool period_starts = true;
  for (int k = 0; k < 200; k++) {
    const uint64_t commits_before = server()->commit_count;
    int64_t before = uptime_us();
    Set("/k", std::to_string(k));
    if (period_starts) {
      period_lo = before;
      period_hi = uptime_us();
      period_starts = false;
    }
    if (k == 0) {
      final_id = server()->commit_timer_final;
      intermediate_id = server()->commit_timer_intermediate;
      ASSERT_GT(final_id, 0);
      ASSERT_GT(intermediate_id, 0);
      EXPECT_EQ(Timer(intermediate_id).period.sec, 5);
    }
    f->advance_ms(100);
    int64_t after = uptime_us();
    // The step's timer pass ran between before + 100 ms and after; the
    // intermediate timer was due between period_lo and period_hi + 5 s.
    const uint64_t commits = server()->commit_count;
    ASSERT_LE(commits, commits_before + 1) << "k=" << k;
    if (commits > commits_before) {
      ASSERT_GE(after, period_lo + period_us) << "committed early, k=" << k;
      period_starts = true;
    } else {
      ASSERT_LT(before + 100000, period_hi + period_us) << "commit missing, k=" << k;
    }
  }
  // At most 50 steps of 100 ms per dirty period: at least four commits
  // in the 200 steps (more only as the real clock shortens periods,
  // bounded step by step above).
  const uint64_t commits = server()->commit_count;
  EXPECT_GE(commits, 4u);
  EXPECT_EQ(Writes(), commits);
  EXPECT_EQ(Exact(log, kIntermediateCommit), commits);
  EXPECT_EQ(Exact(log, kFinalCommit), 0u);
  // Each timer was made once and kept its id.
  EXPECT_EQ(server()->commit_timer_final, final_id);
  EXPECT_EQ(server()->commit_timer_intermediate, intermediate_id);

  // Changes made after the last commit (when the real clock ended a
  // period early) are committed once more, by whichever timer falls due
  // first; then the repository is clean and nothing more comes.
  const uint64_t pending = server()->dirty != 0 ? 1u : 0u;
  EXPECT_EQ(pending, period_starts ? 0u : 1u);
  f->advance_ms(20000);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(Writes(), commits + pending);
  EXPECT_EQ(Exact(log, kIntermediateCommit) + Exact(log, kFinalCommit), commits + pending);
  f->advance_ms(20000);
  EXPECT_EQ(Writes(), commits + pending);
  EXPECT_EQ(Timer(final_id).inactive, 1);
  EXPECT_EQ(Timer(intermediate_id).inactive, 1);
}

TEST_F(CommitTest, MarkingCleanParksBothTimersAndTheNextChangeRearmsThem) {
  Start(Delayed(1000, 5000));
  Set("/a", "1");
  int32_t final_id = server()->commit_timer_final;
  int32_t intermediate_id = server()->commit_timer_intermediate;
  ASSERT_GT(final_id, 0);
  ASSERT_GT(intermediate_id, 0);
  EXPECT_EQ(Timer(final_id).inactive, 0);
  EXPECT_EQ(Timer(intermediate_id).inactive, 0);

  ASSERT_EQ(f->request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "")->header.result, 0);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(server()->commit_timer_final, final_id);
  EXPECT_EQ(server()->commit_timer_intermediate, intermediate_id);
  EXPECT_EQ(Timer(final_id).inactive, 1);
  EXPECT_EQ(Timer(intermediate_id).inactive, 1);
  f->advance_ms(10000);
  EXPECT_EQ(Writes(), 1u);

  Set("/a", "2");
  EXPECT_EQ(server()->commit_timer_final, final_id);
  EXPECT_EQ(server()->commit_timer_intermediate, intermediate_id);
  EXPECT_EQ(Timer(final_id).inactive, 0);
  EXPECT_EQ(Timer(intermediate_id).inactive, 0);
  f->advance_ms(1000);
  EXPECT_EQ(Writes(), 2u);
}

TEST_F(CommitTest, FailedCommitStaysDirtyAndThePeriodicTimerRetries) {
  Start(Delayed(0, 1000));
  Set("/a", "1");
  LogCapture log;
  fio.fail_at(FaultFio::Op::Write, 1);
  f->advance_ms(1000);
  EXPECT_TRUE(fio.failed(FaultFio::Op::Write));
  EXPECT_EQ(server()->dirty, -1);
  EXPECT_EQ(server()->commit_count, 0u);
  EXPECT_EQ(Exact(log, kIntermediateCommit), 1u) << log.dump();
  EXPECT_EQ(Exact(log, kCleanLine), 0u);
  EXPECT_EQ(Timer(server()->commit_timer_intermediate).inactive, 0);

  f->advance_ms(1000);
  EXPECT_EQ(Exact(log, kIntermediateCommit), 2u);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(server()->commit_count, 1u);
  EXPECT_EQ(Exact(log, kCleanLine), 1u);
  EXPECT_EQ(fio.open_handles(), 0u);
}

TEST_F(CommitTest, FailedFinalCommitWaitsForTheNextChange) {
  Start(Delayed(1000, 0));
  Set("/a", "1");
  LogCapture log;
  fio.fail_at(FaultFio::Op::Write, 1);
  f->advance_ms(1000);
  EXPECT_TRUE(fio.failed(FaultFio::Op::Write));
  EXPECT_EQ(server()->dirty, -1);
  const uint64_t writes_after_failure = fio.calls(FaultFio::Op::Write);

  f->advance_ms(60000);
  EXPECT_EQ(fio.calls(FaultFio::Op::Write), writes_after_failure);
  EXPECT_EQ(Exact(log, kFinalCommit), 1u);
  EXPECT_EQ(server()->dirty, -1);

  Set("/a", "2");
  f->advance_ms(1000);
  EXPECT_EQ(Exact(log, kFinalCommit), 2u);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(server()->commit_count, 1u);
}

// --- Immediate commits -------------------------------------------------------

TEST_F(CommitTest, CommitOnChangeExportsEachChangeAndTheLogStillSaysCaused) {
  ServerOptions o;
  o.options = LORS_OPT_COMMIT_ON_CHANGE;
  Start(o);
  LogCapture log;
  for (int i = 0; i < 3; i++) {
    Set("/k", std::to_string(i));
    EXPECT_EQ(server()->commit_count, static_cast<uint64_t>(i + 1));
    EXPECT_EQ(Writes(), static_cast<size_t>(i + 1));
    EXPECT_EQ(server()->dirty, 0);
    EXPECT_EQ(log.count(" dirty=caused "), static_cast<size_t>(i + 1)) << log.dump();
  }
  EXPECT_EQ(Exact(log, kChangeCommit), 3u);
  EXPECT_EQ(Exact(log, kDirtyLine), 3u);
  EXPECT_EQ(Exact(log, kCleanLine), 3u);

  // Dirty, commit, clean, and only then the command's own line.
  auto texts = log.texts();
  std::vector<std::string> order;
  for (const auto &t : texts) {
    if (t == kDirtyLine || t == kChangeCommit || t == kCleanLine) order.push_back(t);
    if (t.find(" dirty=caused ") != std::string::npos) order.push_back("caused");
  }
  ASSERT_GE(order.size(), 4u);
  EXPECT_EQ(order[0], kDirtyLine);
  EXPECT_EQ(order[1], kChangeCommit);
  EXPECT_EQ(order[2], kCleanLine);
  EXPECT_EQ(order[3], "caused");
}

TEST_F(CommitTest, CommitOnTaEndCommitsAtTheEndOfATransaction) {
  ServerOptions o;
  o.options = LORS_OPT_COMMIT_ON_TA_END;
  Start(o);
  Set("/a/b", "1");
  ASSERT_EQ(f->request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "")->header.result, 0);
  ASSERT_EQ(Writes(), 1u);

  LogCapture log;
  auto start = f->request(LOREG_MSG_TA_START_TIMED, 0, 0, 0, "", f->full("/a/"));
  ASSERT_TRUE(start);
  int32_t tid = start->header.tid;
  auto r = f->set("/a/b", "2", 0x30400, tid);
  ASSERT_TRUE(r);
  ASSERT_EQ(r->header.result, 0);
  EXPECT_EQ(server()->dirty, -1);
  EXPECT_EQ(Writes(), 1u);

  auto end = f->request(LOREG_MSG_TA_END, 0, 0, tid, "", "");
  ASSERT_TRUE(end);
  EXPECT_EQ(end->header.result, 0);
  EXPECT_EQ(Writes(), 2u);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(Exact(log, kTaEndCommit), 1u) << log.dump();

  // A transaction that changed nothing commits nothing.
  start = f->request(LOREG_MSG_TA_START_TIMED, 0, 0, 0, "", f->full("/a/"));
  ASSERT_TRUE(start);
  ASSERT_TRUE(f->request(LOREG_MSG_TA_END, 0, 0, start->header.tid, "", ""));
  EXPECT_EQ(Writes(), 2u);
  EXPECT_EQ(Exact(log, kTaEndCommit), 1u);

  // The end by force commits as well.
  start = f->request(LOREG_MSG_TA_START_TIMED, 0, 1000, 0, "", f->full("/a/"));
  ASSERT_TRUE(start);
  ASSERT_EQ(f->set("/a/b", "3", 0x30400, start->header.tid)->header.result, 0);
  f->advance_ms(1000);
  EXPECT_EQ(Writes(), 3u);
  EXPECT_EQ(server()->dirty, 0);
  EXPECT_EQ(Exact(log, kTaEndCommit), 2u);
}

TEST_F(CommitTest, WithoutCommitOnTaEndTheEndCommitsNothing) {
  Start(ServerOptions());
  Set("/a/b", "1");
  auto start = f->request(LOREG_MSG_TA_START_TIMED, 0, 0, 0, "", f->full("/a/"));
  ASSERT_TRUE(start);
  ASSERT_TRUE(f->request(LOREG_MSG_TA_END, 0, 0, start->header.tid, "", ""));
  EXPECT_EQ(Writes(), 0u);
  EXPECT_EQ(server()->dirty, -1);
}

// --- Timers ------------------------------------------------------------------

TEST_F(CommitTest, TimerSetOnAParkedTimerRearmsItAndKeepsTheId) {
  Start(ServerOptions());
  const _cspOsalTime_struct one_s = {1, 0};
  int id = lors_timer_create(server(), &one_s, nullptr);
  ASSERT_GT(id, 0);
  int32_t ref = id;
  EXPECT_EQ(lors_timer_stop(server(), &ref, 0), 0);
  EXPECT_EQ(ref, id);
  tmrq_info parked = Timer(id);
  EXPECT_EQ(parked.inactive, 1);
  EXPECT_EQ(parked.callback, &lors_timer_cb);
  EXPECT_EQ(parked.user.ptr, server());

  const _cspOsalTime_struct delay = {2, 500000};
  _cspOsalTime_struct before;
  ASSERT_EQ(cspOsalGetUptime(&before), 0);
  EXPECT_EQ(lors_timer_set(server(), &ref, &delay, nullptr), id);
  EXPECT_EQ(ref, id);
  tmrq_info armed = Timer(id);
  EXPECT_EQ(armed.inactive, 0);
  EXPECT_EQ(armed.period.sec, 0);
  EXPECT_EQ(armed.period.usec, 0);
  EXPECT_EQ(armed.callback, &lors_timer_cb);
  EXPECT_EQ(armed.user.ptr, server());
  _cspOsalTime_struct distance;
  cspOsalSubtractTime3(&distance, &armed.timeout, &before);
  const _cspOsalTime_struct low = {2, 500000}, high = {3, 500000};
  EXPECT_GE(cspOsalCompareTime(&distance, &low), 0);
  EXPECT_LT(cspOsalCompareTime(&distance, &high), 0);

  // A periodic set with only a period is first due after one period.
  const _cspOsalTime_struct period = {0, 300000};
  EXPECT_EQ(lors_timer_set(server(), &ref, nullptr, &period), id);
  tmrq_info periodic = Timer(id);
  EXPECT_EQ(periodic.period.sec, 0);
  EXPECT_EQ(periodic.period.usec, 300000);
  cspOsalSubtractTime3(&distance, &periodic.timeout, &before);
  const _cspOsalTime_struct plow = {0, 300000}, phigh = {1, 300000};
  EXPECT_GE(cspOsalCompareTime(&distance, &plow), 0);
  EXPECT_LT(cspOsalCompareTime(&distance, &phigh), 0);

  EXPECT_EQ(lors_timer_stop(server(), &ref, 1), 0);
  EXPECT_EQ(ref, 0);
  EXPECT_EQ(tmrq_TimerGet(server()->timers, id, nullptr), -2);
  EXPECT_EQ(lors_timer_destroy(server(), id), -2);
}

TEST_F(CommitTest, TimerStopWithoutAStoredIdDoesNothing) {
  Start(ServerOptions());
  const _cspOsalTime_struct one_s = {1, 0};
  int other = lors_timer_create(server(), &one_s, nullptr);
  ASSERT_GT(other, 0);

  int32_t ref = 0;
  EXPECT_EQ(lors_timer_stop(server(), &ref, 0), 0);
  EXPECT_EQ(ref, 0);
  EXPECT_EQ(lors_timer_stop(server(), &ref, 1), 0);
  EXPECT_EQ(ref, 0);
  ref = -5;
  EXPECT_EQ(lors_timer_stop(server(), &ref, 1), 0);
  EXPECT_EQ(ref, -5);
  EXPECT_EQ(Timer(other).inactive, 0);
  EXPECT_EQ(lors_timer_destroy(server(), other), 0);
}

TEST_F(CommitTest, TimerFunctionsRefuseBadArguments) {
  Start(ServerOptions());
  const _cspOsalTime_struct one_s = {1, 0};
  int32_t ref = 0;
  EXPECT_EQ(lors_timer_set(nullptr, &ref, &one_s, nullptr), -22);
  EXPECT_EQ(lors_timer_set(server(), &ref, nullptr, nullptr), -22);
  EXPECT_EQ(ref, 0);
  EXPECT_EQ(lors_timer_create(nullptr, &one_s, nullptr), -22);
  EXPECT_EQ(lors_timer_destroy(nullptr, 1), -22);
  EXPECT_EQ(lors_timer_destroy(server(), 0), -22);
  EXPECT_EQ(lors_timer_destroy(server(), -3), -22);
  EXPECT_EQ(lors_timer_stop(nullptr, &ref, 0), -22);
  EXPECT_EQ(lors_timer_stop(server(), nullptr, 0), -22);

  // A fresh set through an empty id_ref stores the new id.
  int id = lors_timer_set(server(), &ref, &one_s, nullptr);
  ASSERT_GT(id, 0);
  EXPECT_EQ(ref, id);
  // An id that the queue doesn't know is an error, not a new timer.
  int32_t gone = 99999;
  EXPECT_EQ(lors_timer_set(server(), &gone, &one_s, nullptr), -2);
  EXPECT_EQ(gone, 99999);
  EXPECT_EQ(lors_timer_stop(server(), &gone, 0), -2);
  EXPECT_EQ(lors_timer_stop(server(), &gone, 1), -2);
  EXPECT_EQ(gone, 99999);
}

TEST_F(CommitTest, UnknownTimerEndsInTheTransactionHandlerAndIsIgnored) {
  Start(ServerOptions());
  Set("/a/b", "1");
  auto start = f->request(LOREG_MSG_TA_START_TIMED, 0, 0, 0, "", f->full("/a/"));
  ASSERT_TRUE(start);
  ASSERT_EQ(start->header.result, 0);
  int32_t tid = start->header.tid;
  f->client().clear();

  LogCapture log;
  const _cspOsalTime_struct delay = {0, 100000};
  int id = lors_timer_create(server(), &delay, nullptr);
  ASSERT_GT(id, 0);
  f->advance_ms(100);
  // It fell due: a one-shot timer is parked afterwards.
  EXPECT_EQ(Timer(id).inactive, 1);
  EXPECT_TRUE(f->client().messages().empty());
  EXPECT_EQ(log.count("lors_tas_onTimer"), 0u) << log.dump();
  EXPECT_EQ(log.count("Committing"), 0u);
  EXPECT_NE(lors_tas_findActive(server(), tid), nullptr);
  EXPECT_EQ(server()->dirty, -1);
}

TEST_F(CommitTest, RootTimerBroadcastsTheRootKey) {
  Start(ServerOptions());
  // The fixture's subscriber made the server set up its root timer.
  ASSERT_GT(server()->root_timer, 0);
  f->advance_ms(4900);
  EXPECT_TRUE(f->client().notifications().empty());
  f->advance_ms(100);
  auto notes = f->client().notifications();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].header.arg0, LOREG_REASON_KEY_UPDATE);
  EXPECT_EQ(notes[0].header.tid, 0);
  EXPECT_EQ(notes[0].data1, "/com/norvi/");
  f->advance_ms(107000);
  EXPECT_EQ(f->client().notifications().size(), 2u);
}

TEST_F(CommitTest, TimerProcessGivesTheTimeToTheNextTimer) {
  Start(ServerOptions());
  const _cspOsalTime_struct delay = {0, 300000};
  int id = lors_timer_create(server(), &delay, nullptr);
  ASSERT_GT(id, 0);
  _cspOsalTime_struct next = {0, 0};
  EXPECT_EQ(lors_timer_process(server(), &next), 0);
  const _cspOsalTime_struct low = {0, 200000};
  EXPECT_LE(cspOsalCompareTime(&next, &delay), 0);
  EXPECT_GT(cspOsalCompareTime(&next, &low), 0);

  // With every timer parked there is no next time, and next is left alone.
  int32_t ref = id;
  ASSERT_EQ(lors_timer_stop(server(), &ref, 0), 0);
  ASSERT_EQ(lors_timer_stop(server(), &server()->root_timer, 0), 0);
  next = {42, 7};
  EXPECT_LT(lors_timer_process(server(), &next), 0);
  EXPECT_EQ(next.sec, 42);
  EXPECT_EQ(next.usec, 7);
}

}  // namespace
