// Key commands that reach an idle server ("lorsmain" waiting, nothing
// queued) straight, as clients send them once they know the server's root,
// are served by the sending thread while "lorsmain" stays blocked. Other
// requests go through "lorsmain"; a timer that such a command moves
// forward still fires on time; many threads at once keep the tree
// consistent (one user at a time, checked by ThreadSanitizer too).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "loreg/lorc.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/thread_state.h"

using testsupport::ClientFixture;
using testsupport::LogCapture;
using testsupport::ServerSetup;

namespace {

constexpr uint32_t kPlain = 0x30400;

bool file_exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Threads that printed lines starting with prefix.
std::vector<pid_t> printers(const LogCapture &log, const std::string &prefix) {
  std::vector<pid_t> tids;
  for (const auto &l : log.lines()) {
    if (l.text.compare(0, prefix.size(), prefix) == 0) tids.push_back(l.tid);
  }
  return tids;
}

class IdleServer : public ::testing::Test {
 protected:
  void start(const ServerSetup &setup = ServerSetup()) {
    ASSERT_EQ(f.add_server(setup), 0);
    ASSERT_EQ(f.add_client(), 0);
    ASSERT_TRUE(f.wait_roots(0, 1));
    ASSERT_TRUE(f.sync());
    ASSERT_TRUE(testsupport::wait_until_sleeping("lorsmain"));
  }
  ClientFixture f;
};

TEST_F(IdleServer, ValueSetIsServedByTheCallingThread) {
  start();
  LogCapture log;
  ASSERT_EQ(lorc_value_set(f.client(), 0, "/com/norvi/a", "1", 1, kPlain, 5), 0);
  std::vector<pid_t> served = printers(log, "lors_onValueSet(");
  ASSERT_EQ(served.size(), 1u) << log.dump();
  EXPECT_EQ(served[0], testsupport::current_tid());
  std::vector<pid_t> broadcast = printers(log, "Broadcast: ");
  ASSERT_EQ(broadcast.size(), 1u) << log.dump();
  EXPECT_EQ(broadcast[0], testsupport::current_tid());

  char buffer[8] = {};
  EXPECT_EQ(lorc_value_query(f.client(), 0, "/com/norvi/a", buffer, sizeof buffer, 5), 1);
  EXPECT_STREQ(buffer, "1");
}

TEST_F(IdleServer, TransactionsAreServedByTheServerThread) {
  start();
  ASSERT_EQ(lorc_value_set(f.client(), 0, "/com/norvi/t", "1", 1, kPlain, 5), 0);
  LogCapture log;
  int tid = lorc_transaction_start(f.client(), "/com/norvi/t", 5);
  ASSERT_GT(tid, 0);
  ASSERT_EQ(lorc_transaction_end(f.client(), tid, 5), 0);
  std::vector<pid_t> broadcast = printers(log, "Broadcast: ");
  ASSERT_EQ(broadcast.size(), 2u) << log.dump();
  for (pid_t printer : broadcast) EXPECT_EQ(testsupport::thread_name(printer), "lorsmain");
}

// A command that arrives as a command (not straight to the server's
// address) goes through the server thread.
TEST_F(IdleServer, CommandsToTheServiceGoThroughTheServerThread) {
  start();
  LogCapture log;
  ASSERT_EQ(f.wire().send(LOREG_MSG_VALUE_SET, 77, kPlain, 0, 0, "2", "/com/norvi/w"), 0);
  ASSERT_TRUE(f.sync_servers());
  std::vector<pid_t> served = printers(log, "lors_onValueSet(");
  ASSERT_EQ(served.size(), 1u) << log.dump();
  EXPECT_EQ(testsupport::thread_name(served[0]), "lorsmain");
}

// The first change starts the delayed commit's timer in the calling
// thread; "lorsmain" is told to look at its timers, so the commit comes
// when the clock reaches it, with nothing else sent to the server.
TEST_F(IdleServer, TimerStartedByTheCallingThreadFiresOnTime) {
  ServerSetup setup;
  setup.options = LORS_OPT_COMMIT_DELAYED;
  setup.commit_delay_final = 2000;
  start(setup);
  ASSERT_FALSE(file_exists(f.server_file0(0)) || file_exists(f.server_file1(0)));

  LogCapture log;
  ASSERT_EQ(lorc_value_set(f.client(), 0, "/com/norvi/c", "x", 1, kPlain, 5), 0);
  std::vector<pid_t> served = printers(log, "lors_onValueSet(");
  ASSERT_EQ(served.size(), 1u) << log.dump();
  ASSERT_EQ(served[0], testsupport::current_tid());

  // Before the delay nothing is written; after it the file comes.
  ASSERT_TRUE(testsupport::wait_until_sleeping("lorsmain"));
  _cspOsalTime_struct almost{1, 500000};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&almost), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(file_exists(f.server_file0(0)) || file_exists(f.server_file1(0)));
  _cspOsalTime_struct rest{1, 0};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&rest), 0);
  EXPECT_TRUE(ClientFixture::wait_until(
      [&] { return file_exists(f.server_file0(0)) || file_exists(f.server_file1(0)); }));
}

// Several application threads, each with its own keys, against one server:
// every value read back is the one last written.
TEST_F(IdleServer, ManyCallingThreadsKeepTheTreeConsistent) {
  start();
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      std::string path = "/com/norvi/m/" + std::to_string(t);
      char buffer[32];
      for (int i = 0; i < kRounds; i++) {
        std::string value = std::to_string(t) + ":" + std::to_string(i);
        if (lorc_value_set(f.client(), 0, path.c_str(), value.c_str(),
                           static_cast<uint32_t>(value.size()), kPlain, 5) != 0) {
          failures++;
        }
        int len = lorc_value_query(f.client(), 0, path.c_str(), buffer, sizeof buffer, 5);
        if (len != static_cast<int>(value.size()) || value != buffer) failures++;
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(lorc_key_count(f.client(), 0, "/com/norvi/m/", 0xFFFFFFFFu, 5), kThreads);
}

}  // namespace
