// The registry daemon loregd killed while clients work: a caller thread of
// this process is inside a synchronous call when the server dies.
//
// The daemons run as processes of the build tree (see loregd_test.cpp);
// this file is the threaded part, which also runs under ThreadSanitizer.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "loreg/loreg_msg.h"
#include "loreg/lorc.h"
#include "platform/csp_osal.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/loregd_fixture.h"
#include "support/temp_dir.h"

namespace {

using namespace loregdtest;

TEST(LoregdFaults, KillDashNineWhileClientsWork) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon a(dir, "a");
  Daemon b(dir, "b");
  ASSERT_TRUE(a.start_hub(sock, "/com/norvi/a")) << a.err();
  ASSERT_TRUE(b.start_peer(sock, "/com/norvi/b")) << b.err();

  LibClient lib;
  ASSERT_EQ(lib.connect(sock), 0);
  ASSERT_TRUE(lib.wait_root_valid("/com/norvi/a/"));
  ASSERT_TRUE(lib.wait_root_valid("/com/norvi/b/"));
  ASSERT_EQ(set_value(lib.get(), "/com/norvi/b/k", "before"), 0);
  ASSERT_EQ(lib.subscribe("/com/norvi/b/"), 0);

  // Another client process that keeps watching through all of it.
  ChildProcess watch;
  ASSERT_TRUE(watch.start({LOREGCTL_PATH, "--socket", sock, "watch", "/com/norvi/b/"},
                          dir.file("watch.err")));
  std::string seen;
  ASSERT_TRUE(watch.wait_line("server available flags=0x28 tid=0 /com/norvi/b/=", kWaitMs, &seen))
      << seen << watch.err();

  // The server hangs with a request of ours in its socket, then dies. The
  // client logs that it waits for the job once the request is sent.
  ASSERT_TRUE(b.proc().stop());
  int in_flight_rc = 0;
  std::chrono::steady_clock::duration in_flight_took{};
  {
    testsupport::LogCapture log;
    std::thread caller([&] {
      auto begin = std::chrono::steady_clock::now();
      query(lib.get(), "/com/norvi/b/k", &in_flight_rc, 2);
      in_flight_took = std::chrono::steady_clock::now() - begin;
    });
    EXPECT_TRUE(LibClient::wait([&] { return log.contains("lorc_value_query(): sync job="); },
                                kWaitMs))
        << log.dump();
    b.proc().kill_and_reap();
    caller.join();
  }
  EXPECT_EQ(in_flight_rc, -110);
  EXPECT_GE(in_flight_took, std::chrono::milliseconds(1900));
  EXPECT_LT(in_flight_took, std::chrono::milliseconds(4000));

  // The next call finds the server's node gone at once.
  auto begin = std::chrono::steady_clock::now();
  int rc = 0;
  query(lib.get(), "/com/norvi/b/k", &rc, 2);
  EXPECT_EQ(rc, -113);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000));
  ProcessResult r = ctl(dir, sock, {"get", "/com/norvi/b/k"});
  EXPECT_EQ(r.exit_status, kNoServer);
  EXPECT_EQ(r.err, "loregctl: get /com/norvi/b/k: no server\n");
  // The rest of the bus works.
  EXPECT_EQ(set_value(lib.get(), "/com/norvi/a/k", "fine"), 0);
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/a/k"}).out, "fine\n");
  EXPECT_TRUE(watch.running());

  // Without announcements the root turns stale after 127 seconds.
  EXPECT_EQ(lib.root_flags("/com/norvi/b/") & LORC_ROOT_STALE, 0);
  _cspOsalTime_struct later{128, 0};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&later), 0);
  EXPECT_EQ(lib.root_flags("/com/norvi/b/"), 0x28 | LORC_ROOT_STALE);

  // A restarted server announces its root again and serves.
  lib.clear_notes();
  ASSERT_TRUE(b.start_peer(sock, "/com/norvi/b")) << b.err();
  EXPECT_TRUE(lib.wait_note(LOREG_REASON_KEY_UPDATE, "/com/norvi/b/"));
  ASSERT_TRUE(lib.wait_root_valid("/com/norvi/b/"));
  EXPECT_EQ(set_value(lib.get(), "/com/norvi/b/k", "after"), 0);
  EXPECT_EQ(query(lib.get(), "/com/norvi/b/k", &rc), "after");
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/b/k"}).out, "after\n");
  // The restarted server may or may not have saved the key before it
  // died: the watch sees it added or changed.
  EXPECT_TRUE(watch.wait_line(" flags=0x04 tid=0 /com/norvi/b/k=after", kWaitMs, &seen)) << seen;
  EXPECT_TRUE(watch.running());
}

}  // namespace
