// The registry daemon loregd and its client loregctl, as real processes.
//
// Every test starts its daemons from the build tree (fork and exec of
// LOREGD_PATH) with their socket and repository files in a temporary
// directory of its own, runs loregctl (LOREGCTL_PATH) as a process and
// looks at its standard output, standard error and exit status. Some
// tests also join the daemon's bus from this process and use the client
// library directly. Every wait is bounded, and every process is killed
// and reaped at the end of its test, also when the test fails. The kill of
// a daemon under a waiting caller thread is in loregd_thread_test.cpp.
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <string>
#include <vector>

#include "loreg/loreg_msg.h"
#include "loreg/lorc.h"
#include "platform/lmq.h"
#include "support/bus_peer.h"
#include "support/child_process.h"
#include "support/loregd_fixture.h"
#include "support/temp_dir.h"

namespace {

using namespace loregdtest;

// --- Command line -----------------------------------------------------------

TEST(LoregdCommandLine, HelpOfBothPrograms) {
  TempDir dir;
  ProcessResult d = run(dir, {LOREGD_PATH, "--help"});
  EXPECT_EQ(d.exit_status, kOk);
  EXPECT_EQ(d.out.rfind("Usage: loregd [OPTION]...\n", 0), 0u) << d.out;
  for (const char *option : {"--socket PATH", "--socket-mode OCTAL", "--connect PATH", "--root PATH",
                             "--file0 PATH", "--file1 PATH", "--commit-delay MS",
                             "--commit-interval MS", "--no-persist", "--export-both",
                             "--foreground", "-v, --verbose", "/tmp/loreg.sock", "Exit status"}) {
    EXPECT_NE(d.out.find(option), std::string::npos) << option;
  }
  EXPECT_EQ(d.err, "");

  ProcessResult c = run(dir, {LOREGCTL_PATH, "--help"});
  EXPECT_EQ(c.exit_status, kOk);
  EXPECT_EQ(c.out.rfind("Usage: loregctl [--socket PATH] [--timeout S] [-v] COMMAND [ARG]...\n", 0),
            0u)
      << c.out;
  for (const char *command : {"get PATH", "set PATH VALUE", "rm PATH", "ls PATH", "count PATH",
                              "watch [PATH]", "dump PATH", "store", "reload", "roots", "tx PATH --",
                              "Exit status: 0 success, 1 other failure, 2 not found, 3 locked"}) {
    EXPECT_NE(c.out.find(command), std::string::npos) << command;
  }
  EXPECT_EQ(c.err, "");
}

TEST(LoregdCommandLine, DaemonUsageErrorsExit64) {
  TempDir dir;
  struct Case {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"--bogus"}, "loregd: unknown option '--bogus'\n"},
      {{"--root"}, "loregd: option '--root' needs an argument\n"},
      {{"--root", "com/norvi"}, "loregd: root 'com/norvi' must begin with '/'\n"},
      {{"--root", "/com//norvi"}, "loregd: root '/com//norvi' has an empty element\n"},
      {{"--socket-mode", "0999"}, "loregd: --socket-mode wants octal permission bits up to 0777"},
      {{"--socket-mode", "01777"}, "loregd: --socket-mode wants octal permission bits up to 0777"},
      {{"--commit-delay", "soon"}, "loregd: --commit-delay wants milliseconds, not 'soon'\n"},
      {{"--commit-interval", "-1"}, "loregd: --commit-interval wants milliseconds, not '-1'\n"},
      {{"--connect", "/x", "--socket", "/y"}, "loregd: --connect joins another hub's bus"},
      {{"--file0", "/a", "--file1", "/a"}, "loregd: --file0 and --file1 must name two"},
      {{"extra"}, "loregd: unexpected argument 'extra'\n"},
  };
  for (const Case &c : cases) {
    std::vector<std::string> argv{LOREGD_PATH, "--foreground"};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    ProcessResult r = run(dir, argv);
    EXPECT_EQ(r.exit_status, kUsage) << c.args[0];
    EXPECT_EQ(r.err.rfind(c.message, 0), 0u) << r.err;
    EXPECT_NE(r.err.find("Try 'loregd --help' for more information.\n"), std::string::npos);
  }
}

TEST(LoregdCommandLine, ClientUsageErrorsExit64) {
  TempDir dir;
  struct Case {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{}, "loregctl: missing command\n"},
      {{"bogus"}, "loregctl: unknown command 'bogus'\n"},
      {{"get"}, "loregctl: get: missing argument\nusage: loregctl get PATH [--raw]\n"},
      {{"get", "com/x"}, "loregctl: get: path 'com/x' must begin with '/'\n"},
      {{"get", "/a", "/b"}, "loregctl: get: unexpected argument '/b'\n"},
      {{"set", "/a"}, "loregctl: set: missing argument\n"},
      {{"set", "/a", "1", "--sticky"}, "loregctl: set: unknown option '--sticky'\n"},
      {{"ls", "/a", "--mask", "zz"}, "loregctl: ls: --mask wants a hexadecimal 32-bit mask"},
      {{"ls", "/a", "--mask"}, "loregctl: ls: option '--mask' needs a value\n"},
      {{"dump", "/a", "--depth", "x"}, "loregctl: dump: --depth wants a number of levels"},
      {{"--timeout", "0", "get", "/a"}, "loregctl: --timeout wants whole seconds from 1"},
      {{"--frobnicate", "get", "/a"}, "loregctl: unknown option '--frobnicate'\n"},
      {{"tx", "/a"}, "loregctl: tx: expected '--' and a command after the path\n"},
      {{"tx", "/a", "--", "watch"}, "loregctl: tx: 'watch' cannot run inside a transaction\n"},
      {{"tx", "/a", "--", "get", "/a/x", "--"}, "loregctl: tx: empty command between"},
  };
  for (const Case &c : cases) {
    std::vector<std::string> argv{LOREGCTL_PATH};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    ProcessResult r = run(dir, argv);
    EXPECT_EQ(r.exit_status, kUsage) << r.err;
    EXPECT_EQ(r.err.rfind(c.message, 0), 0u) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

// --- One daemon -------------------------------------------------------------

TEST(LoregdProcess, SetGetLsCountRmThroughLoregctl) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/")) << d.err();

  ProcessResult r = ctl(dir, sock, {"set", "/com/norvi/tv/volume", "12"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  r = ctl(dir, sock, {"get", "/com/norvi/tv/volume"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  EXPECT_EQ(r.out, "12\n");

  // Values are bytes: blanks and '%' pass, --raw leaves the newline out,
  // a negative number is a value and not an option.
  EXPECT_EQ(ctl(dir, sock, {"set", "/com/norvi/tv/label", "50% off"}).exit_status, kOk);
  r = ctl(dir, sock, {"get", "/com/norvi/tv/label", "--raw"});
  EXPECT_EQ(r.exit_status, kOk);
  EXPECT_EQ(r.out, "50% off");
  EXPECT_EQ(ctl(dir, sock, {"set", "/com/norvi/tv/offset", "-5"}).exit_status, kOk);
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/tv/offset"}).out, "-5\n");
  EXPECT_EQ(ctl(dir, sock, {"set", "/com/norvi/tv/mode", "x", "--volatile", "--user"}).exit_status,
            kOk);

  // ls: full paths, sorted by name; "/" is added to a directory's path.
  r = ctl(dir, sock, {"ls", "/com/norvi/tv"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  EXPECT_EQ(r.out,
            "/com/norvi/tv/label\n/com/norvi/tv/mode\n/com/norvi/tv/offset\n/com/norvi/tv/volume\n");
  r = ctl(dir, sock, {"ls", "-R", "-l", "/com/norvi/"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  EXPECT_EQ(r.out,
            "0x08 /com/norvi/tv/\n"
            "0x04 /com/norvi/tv/label\n"
            "0x07 /com/norvi/tv/mode\n"
            "0x04 /com/norvi/tv/offset\n"
            "0x04 /com/norvi/tv/volume\n");
  // --mask selects classes: bit 7 (value, volatile, user) only.
  r = ctl(dir, sock, {"ls", "/com/norvi/tv/", "--mask", "80"});
  EXPECT_EQ(r.out, "/com/norvi/tv/mode\n");
  r = ctl(dir, sock, {"ls", "-R", "/com/norvi/", "--mask", "0x10"});
  EXPECT_EQ(r.out, "/com/norvi/tv/label\n/com/norvi/tv/offset\n/com/norvi/tv/volume\n");

  r = ctl(dir, sock, {"count", "/com/norvi/tv"});
  EXPECT_EQ(r.exit_status, kOk);
  EXPECT_EQ(r.out, "4\n");
  EXPECT_EQ(ctl(dir, sock, {"count", "/com/norvi/tv/", "--mask", "80"}).out, "1\n");
  EXPECT_EQ(ctl(dir, sock, {"count", "/com/norvi/", "--mask", "0"}).out, "0\n");

  r = ctl(dir, sock, {"rm", "/com/norvi/tv/label"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  r = ctl(dir, sock, {"get", "/com/norvi/tv/label"});
  EXPECT_EQ(r.exit_status, kNotFound);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "loregctl: get /com/norvi/tv/label: not found\n");
  EXPECT_EQ(ctl(dir, sock, {"count", "/com/norvi/tv/"}).out, "3\n");

  // Missing keys and directories.
  r = ctl(dir, sock, {"ls", "/com/norvi/radio/"});
  EXPECT_EQ(r.exit_status, kNotFound);
  EXPECT_EQ(r.err, "loregctl: ls /com/norvi/radio/: not found\n");
  r = ctl(dir, sock, {"rm", "/com/norvi/radio/x"});
  EXPECT_EQ(r.exit_status, kNotFound);
  EXPECT_EQ(r.err, "loregctl: rm /com/norvi/radio/x: not found\n");
  r = ctl(dir, sock, {"set", "/com/norvi/radio/x", "1", "--no-create"});
  EXPECT_EQ(r.exit_status, kNotFound);
  EXPECT_EQ(r.err, "loregctl: set /com/norvi/radio/x: not found\n");
  EXPECT_EQ(ctl(dir, sock, {"count", "/com/norvi/radio"}).exit_status, kNotFound);

  // A path that no server owns.
  r = ctl(dir, sock, {"get", "/org/other/x"});
  EXPECT_EQ(r.exit_status, kNoServer);
  EXPECT_EQ(r.err, "loregctl: get /org/other/x: no server\n");

  // A plain daemon logs no detail of commands.
  EXPECT_EQ(d.err().find("lors_onValueSet("), std::string::npos) << d.err();
  EXPECT_EQ(d.terminate(), kOk);
}

TEST(LoregdProcess, DumpAndTransactionThroughLoregctl) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/")) << d.err();
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/tv/volume", "12"}).exit_status, kOk);
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/tv/name", "a\tb\\c"}).exit_status, kOk);
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/tv/sub/deep", "1"}).exit_status, kOk);

  ProcessResult r = ctl(dir, sock, {"dump", "/com/norvi/tv/"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  EXPECT_EQ(r.out,
            "key update flags=0x08 tid=0 /com/norvi/tv/=\n"
            "key update flags=0x04 tid=0 /com/norvi/tv/name=a\\x09b\\x5cc\n"
            "key update flags=0x08 tid=0 /com/norvi/tv/sub/=\n"
            "key update flags=0x04 tid=0 /com/norvi/tv/sub/deep=1\n"
            "key update flags=0x04 tid=0 /com/norvi/tv/volume=12\n");
  r = ctl(dir, sock, {"dump", "/com/norvi/tv/", "--depth", "0"});
  EXPECT_EQ(r.out, "key update flags=0x08 tid=0 /com/norvi/tv/=\n");
  r = ctl(dir, sock, {"dump", "/com/norvi/tv/", "--depth", "1"});
  EXPECT_EQ(count_of(r.out, "\n"), 4u) << r.out;
  r = ctl(dir, sock, {"dump", "/com/norvi/none/"});
  EXPECT_EQ(r.exit_status, kNotFound);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "loregctl: dump /com/norvi/none/: not found\n");

  // tx: the commands run with the transaction's id, the lock ends after.
  r = ctl(dir, sock,
          {"tx", "/com/norvi/tv/", "--", "set", "/com/norvi/tv/volume", "13", "--", "get",
           "/com/norvi/tv/volume", "--", "count", "/com/norvi/tv/"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  EXPECT_EQ(r.out, "13\n3\n");
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/tv/volume"}).out, "13\n");
  // A failing command stops the list, and the transaction still ends.
  r = ctl(dir, sock,
          {"tx", "/com/norvi/tv/", "--", "get", "/com/norvi/tv/none", "--", "set",
           "/com/norvi/tv/volume", "14"});
  EXPECT_EQ(r.exit_status, kNotFound);
  EXPECT_EQ(r.err, "loregctl: get /com/norvi/tv/none: not found\n");
  EXPECT_EQ(ctl(dir, sock, {"set", "/com/norvi/tv/volume", "15"}).exit_status, kOk);
  // A transaction starts on an existing key only.
  r = ctl(dir, sock, {"tx", "/com/norvi/none/", "--", "get", "/com/norvi/none/x"});
  EXPECT_EQ(r.exit_status, kNotFound);
  EXPECT_EQ(r.err, "loregctl: tx /com/norvi/none/: not found\n");
}

TEST(LoregdProcess, WatchSeesChangesOfAnotherProcess) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/")) << d.err();

  ChildProcess watch;
  ASSERT_TRUE(watch.start({LOREGCTL_PATH, "--socket", sock, "watch", "/com/norvi/tv/"},
                          dir.file("watch.err")));
  // The subscription is in place once the server's root is announced to it.
  std::string line;
  ASSERT_TRUE(watch.read_line(&line, kWaitMs)) << watch.err();
  EXPECT_EQ(line, "server available flags=0x28 tid=0 /com/norvi/=");

  // Changes elsewhere in the tree don't show; those at and below the
  // path come in order.
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/radio/x", "no"}).exit_status, kOk);
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/tv/w", "one"}).exit_status, kOk);
  ASSERT_TRUE(watch.read_line(&line, kWaitMs));
  EXPECT_EQ(line, "key add flags=0x04 tid=0 /com/norvi/tv/w=one");
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/tv/w", "two\nlines"}).exit_status, kOk);
  ASSERT_TRUE(watch.read_line(&line, kWaitMs));
  EXPECT_EQ(line, "key change flags=0x04 tid=0 /com/norvi/tv/w=two\\x0alines");
  ASSERT_EQ(ctl(dir, sock, {"rm", "/com/norvi/tv/w"}).exit_status, kOk);
  ASSERT_TRUE(watch.read_line(&line, kWaitMs));
  EXPECT_EQ(line, "key delete flags=0x04 tid=0 /com/norvi/tv/w=two\\x0alines");
  // Deleting a directory above the path reaches it too. For the root, the
  // server's announcements of its end and new start come with it.
  ASSERT_EQ(ctl(dir, sock, {"rm", "/com/norvi/"}).exit_status, kOk);
  std::string lines;
  for (int i = 0; i < 3 && watch.read_line(&line, kWaitMs); i++) lines += line + "\n";
  EXPECT_EQ(lines,
            "server gone flags=0x28 tid=0 /com/norvi/=\n"
            "key delete flags=0x28 tid=0 /com/norvi/=\n"
            "server available flags=0x28 tid=0 /com/norvi/=\n");

  // Interrupted, it unsubscribes and ends with 0.
  ASSERT_TRUE(watch.signal(SIGINT));
  ASSERT_TRUE(watch.wait_exit(kWaitMs));
  EXPECT_EQ(watch.exit_status(), kOk);
  EXPECT_EQ(watch.err(), "");
}

TEST(LoregdProcess, WatchOfEverythingSeesRootAnnouncements) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/")) << d.err();
  ChildProcess watch;
  ASSERT_TRUE(watch.start({LOREGCTL_PATH, "--socket", sock, "watch"}, dir.file("watch.err")));
  // The server announces its root when the watch joins the bus; that
  // announcement may come before or after the subscription's own.
  std::string seen;
  ASSERT_TRUE(watch.wait_line("server available flags=0x28 tid=0 /com/norvi/=", kWaitMs, &seen))
      << seen << watch.err();
  EXPECT_TRUE(seen == "server available flags=0x28 tid=0 /com/norvi/=\n" ||
              seen == "key update flags=0x28 tid=0 /com/norvi/=\n"
                      "server available flags=0x28 tid=0 /com/norvi/=\n")
      << seen;
  // Every client that joins the bus makes the server announce its root to
  // all subscribers: a watch of everything shows it.
  ASSERT_EQ(ctl(dir, sock, {"roots"}).exit_status, kOk);
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/x", "1"}).exit_status, kOk);
  seen.clear();
  ASSERT_TRUE(watch.wait_line("key add flags=0x04 tid=0 /com/norvi/x=1", kWaitMs, &seen));
  EXPECT_GE(count_of(seen, "key update flags=0x28 tid=0 /com/norvi/=\n"), 2u) << seen;
  ASSERT_TRUE(watch.signal(SIGTERM));
  ASSERT_TRUE(watch.wait_exit(kWaitMs));
  EXPECT_EQ(watch.exit_status(), kOk);
}

TEST(LoregdProcess, ClientLibraryInThisProcessReachesTheDaemon) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/")) << d.err();

  LibClient lib;
  ASSERT_EQ(lib.connect(sock), 0);
  ASSERT_TRUE(lib.wait_root_valid("/com/norvi/"));
  EXPECT_EQ(lib.hosts(), 1);

  EXPECT_EQ(set_value(lib.get(), "/com/norvi/lib/key", "from the library"), 0);
  int rc = 0;
  EXPECT_EQ(query(lib.get(), "/com/norvi/lib/key", &rc), "from the library");
  EXPECT_EQ(rc, 16);
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/lib/key"}).out, "from the library\n");

  ASSERT_EQ(lib.subscribe("/com/norvi/lib/"), 0);
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/lib/other", "x"}).exit_status, kOk);
  EXPECT_TRUE(lib.wait_note(LOREG_REASON_KEY_ADD, "/com/norvi/lib/other"));
  EXPECT_EQ(lib.unsubscribe("/com/norvi/lib/"), 0);

  EXPECT_EQ(query(lib.get(), "/com/norvi/lib/none", &rc), "");
  EXPECT_EQ(rc, -2);
}

TEST(LoregdProcess, SocketModeAndSocketInUse) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/")) << d.err();
  struct stat st {};
  ASSERT_EQ(stat(sock.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // A second daemon on the same socket refuses to start.
  Daemon second(dir, "second");
  EXPECT_FALSE(second.start_hub(sock, "/com/norvi/"));
  ASSERT_TRUE(second.proc().wait_exit(kWaitMs));
  EXPECT_EQ(second.proc().exit_status(), kDaemonStartFailed);
  EXPECT_NE(second.err().find("loregd: cannot listen on " + sock +
                              ": address in use (is another loregd running there?) (code -98)\n"),
            std::string::npos)
      << second.err();
  // The first one is unharmed.
  EXPECT_EQ(ctl(dir, sock, {"set", "/com/norvi/still", "here"}).exit_status, kOk);
  EXPECT_EQ(d.terminate(), kOk);

  std::string wide = dir.file("wide.sock");
  Daemon g(dir, "g");
  ASSERT_TRUE(g.start_hub(wide, "/com/norvi/", {"--socket-mode", "0660"})) << g.err();
  ASSERT_EQ(stat(wide.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);

  // Joining a bus that isn't there fails too.
  Daemon lost(dir, "lost");
  EXPECT_FALSE(lost.start_peer(dir.file("nobody.sock"), "/com/norvi/b"));
  ASSERT_TRUE(lost.proc().wait_exit(kWaitMs));
  EXPECT_EQ(lost.proc().exit_status(), kDaemonStartFailed);
  EXPECT_NE(lost.err().find("loregd: cannot join the bus at " + dir.file("nobody.sock") +
                            ": no such socket or directory (code -2)\n"),
            std::string::npos)
      << lost.err();

  // loregctl without a daemon.
  ProcessResult r = ctl(dir, dir.file("nobody.sock"), {"get", "/com/norvi/x"});
  EXPECT_EQ(r.exit_status, kNoServer);
  EXPECT_EQ(r.err, "loregctl: cannot connect to " + dir.file("nobody.sock") + ": no server\n");
}

TEST(LoregdProcess, VerboseDaemonLogsCommandDetail) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/", {"-v"})) << d.err();
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/v", "1"}).exit_status, kOk);
  EXPECT_TRUE(d.proc().wait_err(
      "lors_onValueSet(reqid=1 tid=0) old=0x04 new=0x04 dirty=caused val=added(1 byte(s)) "
      "path='/v'\n",
      kWaitMs))
      << d.err();
  EXPECT_NE(d.err().find("Repository just became dirty.\n"), std::string::npos);
}

// --- Persistence ------------------------------------------------------------

TEST(LoregdProcess, SigtermCommitsAndRestartImportsTheNewestFile) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  // Commits wait ten minutes: only store and shutdown write here.
  std::vector<std::string> slow{"-v", "--commit-delay", "600000", "--commit-interval", "0"};
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/", slow)) << d.err();

  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/x", "first"}).exit_status, kOk);
  ASSERT_EQ(ctl(dir, sock, {"store"}).exit_status, kOk);
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/x", "second"}).exit_status, kOk);
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/y", "kept"}).exit_status, kOk);
  // The store wrote one file; the later changes wait.
  std::string f0 = testsupport::read_file(d.file0());
  std::string f1 = testsupport::read_file(d.file1());
  EXPECT_NE(f0.empty(), f1.empty());
  std::string stored = f0 + f1;
  EXPECT_EQ(stored.substr(0, stored.find("CRC ")),
            "DIR 0x28 /\n"
            "  KEY 0x04 x first\n"
            "/DIR\n"
            "COMMIT_COUNT 1\n");

  // A watch learns that the server goes.
  ChildProcess watch;
  ASSERT_TRUE(watch.start({LOREGCTL_PATH, "--socket", sock, "watch"}, dir.file("watch.err")));
  ASSERT_TRUE(watch.wait_line("server available flags=0x28 tid=0 /com/norvi/=", kWaitMs));

  EXPECT_EQ(d.terminate(), kOk);
  std::string err = d.err();
  EXPECT_NE(err.find("loregd: SIGTERM received, stopping\n"), std::string::npos) << err;
  EXPECT_NE(err.find("(shutdown) Committing changes.\n"), std::string::npos) << err;
  EXPECT_NE(err.find("Export (shutdown): used '"), std::string::npos) << err;
  EXPECT_NE(err.find("loregd: stopped\n"), std::string::npos) << err;

  std::string seen;
  EXPECT_TRUE(watch.wait_line("server gone flags=0x28 tid=0 /com/norvi/=", kWaitMs, &seen)) << seen;
  // The daemon was the hub: the watch loses its bus and says so.
  ASSERT_TRUE(watch.wait_exit(kWaitMs));
  EXPECT_EQ(watch.exit_status(), kNoServer);
  EXPECT_EQ(watch.err(), "loregctl: watch: the bus at " + sock + " went away\n");

  // Both files are there now: the old state and the newest.
  f0 = testsupport::read_file(d.file0());
  f1 = testsupport::read_file(d.file1());
  const std::string &newest = f0.find("COMMIT_COUNT 2") != std::string::npos ? f0 : f1;
  const std::string &older = &newest == &f0 ? f1 : f0;
  EXPECT_EQ(newest.substr(0, newest.find("CRC")),
            "DIR 0x28 /\n"
            "  KEY 0x04 x second\n"
            "  KEY 0x04 y kept\n"
            "/DIR\n"
            "COMMIT_COUNT 2\n");
  EXPECT_NE(older.find("KEY 0x04 x first\n"), std::string::npos) << older;

  // A new daemon on the same files starts from the newest.
  Daemon again(dir, "d");
  ASSERT_TRUE(again.start_hub(sock, "/com/norvi/", slow)) << again.err();
  ProcessResult r = ctl(dir, sock, {"get", "/com/norvi/x"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  EXPECT_EQ(r.out, "second\n");
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/y"}).out, "kept\n");
  EXPECT_EQ(again.terminate(), kOk);
}

TEST(LoregdProcess, NoPersistWritesNothing) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/", {"--no-persist"})) << d.err();
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/x", "1"}).exit_status, kOk);
  EXPECT_EQ(ctl(dir, sock, {"store"}).exit_status, kOk);
  EXPECT_EQ(d.terminate(), kOk);
  EXPECT_FALSE(testsupport::file_exists(d.file0()));
  EXPECT_FALSE(testsupport::file_exists(d.file1()));
}

TEST(LoregdProcess, CommitDelayOptionsReachTheServer) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  // The final commit 50 ms after the last change, no intermediate one.
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/", {"-v", "--commit-delay", "50",
                                                "--commit-interval", "0"}))
      << d.err();
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/soon", "saved"}).exit_status, kOk);
  // The export's line comes once the file is written and closed.
  EXPECT_TRUE(d.proc().wait_err("Export (delayed final auto-commit): used '", kWaitMs)) << d.err();
  EXPECT_NE(d.err().find("(delayed final auto-commit) Committing changes.\n"), std::string::npos);
  EXPECT_NE((testsupport::read_file(d.file0()) + testsupport::read_file(d.file1()))
                .find("KEY 0x04 soon saved\n"),
            std::string::npos);
  EXPECT_EQ(d.err().find("intermediate auto-commit"), std::string::npos);
}

TEST(LoregdProcess, ExportBothIgnoresTheFilesAndWritesBoth) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/")) << d.err();
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/old", "1"}).exit_status, kOk);
  ASSERT_EQ(d.terminate(), kOk);

  Daemon fresh(dir, "d");
  ASSERT_TRUE(fresh.start_hub(sock, "/com/norvi/", {"--export-both"})) << fresh.err();
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/old"}).exit_status, kNotFound);
  ASSERT_EQ(ctl(dir, sock, {"store"}).exit_status, kOk);
  std::string f0 = testsupport::read_file(fresh.file0());
  std::string f1 = testsupport::read_file(fresh.file1());
  EXPECT_EQ(f0.substr(0, f0.find("COMMIT_COUNT")), "DIR 0x28 /\n/DIR\n");
  EXPECT_EQ(f1.substr(0, f1.find("COMMIT_COUNT")), "DIR 0x28 /\n/DIR\n");
}

TEST(LoregdProcess, DaemonModeDetachesAndStopsOnSigterm) {
  // The detached daemon becomes this process's child again when its
  // parent exits, so that the test can reap it.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  ProcessResult start =
      run(dir, {LOREGD_PATH, "--socket", sock, "--file0", dir.file("f0"), "--file1",
                dir.file("f1"), "--commit-delay", "600000"});
  ASSERT_EQ(start.exit_status, kOk) << start.err;
  size_t at = start.err.find("(pid ");
  ASSERT_NE(at, std::string::npos) << start.err;
  pid_t pid = static_cast<pid_t>(std::stol(start.err.substr(at + 5)));
  ASSERT_GT(pid, 0);
  struct Reaper {
    pid_t pid;
    ~Reaper() {
      if (pid > 0) {
        ::kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    }
  } reaper{pid};

  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/d", "detached"}).exit_status, kOk);
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/d"}).out, "detached\n");
  // Its own session, and no terminal.
  EXPECT_EQ(getsid(pid), pid);

  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  int status = -1;
  ASSERT_TRUE(LibClient::wait([&] { return waitpid(pid, &status, WNOHANG) == pid; }, kWaitMs));
  reaper.pid = -1;
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), kOk);
  // The shutdown committed.
  EXPECT_NE((testsupport::read_file(dir.file("f0")) + testsupport::read_file(dir.file("f1")))
                .find("KEY 0x04 d detached\n"),
            std::string::npos);
}

// --- Several servers on one bus ---------------------------------------------

TEST(LoregdProcess, TwoDaemonsServeOneBus) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon a(dir, "a");
  Daemon b(dir, "b");
  std::vector<std::string> slow{"-v", "--commit-delay", "600000", "--commit-interval", "0"};
  ASSERT_TRUE(a.start_hub(sock, "/com/norvi/a", slow)) << a.err();
  ASSERT_TRUE(b.start_peer(sock, "/com/norvi/b/", slow)) << b.err();

  ProcessResult r = ctl(dir, sock, {"set", "/com/norvi/a/x", "on a"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  r = ctl(dir, sock, {"set", "/com/norvi/b/y", "on b"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  r = ctl(dir, sock, {"get", "/com/norvi/a/x"});
  EXPECT_EQ(r.out, "on a\n") << r.err;
  r = ctl(dir, sock, {"get", "/com/norvi/b/y"});
  EXPECT_EQ(r.out, "on b\n") << r.err;
  r = ctl(dir, sock, {"get", "/com/norvi/a/y"});
  EXPECT_EQ(r.exit_status, kNotFound) << r.err;
  // Each server knows its own subtree only.
  EXPECT_EQ(a.err().find("path='/y'"), std::string::npos);
  EXPECT_NE(b.err().find("path='/y'"), std::string::npos) << b.err();

  r = ctl(dir, sock, {"roots"});
  EXPECT_EQ(r.exit_status, kOk);
  std::vector<std::string> roots = lines_of(r.out);
  std::sort(roots.begin(), roots.end());
  EXPECT_EQ(roots, (std::vector<std::string>{"/com/norvi/a/ flags=0x28", "/com/norvi/b/ flags=0x28"}));

  // store reaches both servers and waits for both answers.
  r = ctl(dir, sock, {"store"});
  EXPECT_EQ(r.exit_status, kOk) << r.err;
  EXPECT_TRUE(a.proc().wait_err("Export (Repository store cmd): used '", kWaitMs)) << a.err();
  EXPECT_TRUE(b.proc().wait_err("Export (Repository store cmd): used '", kWaitMs)) << b.err();
  EXPECT_NE((testsupport::read_file(a.file0()) + testsupport::read_file(a.file1()))
                .find("KEY 0x04 x on%20a\n"),
            std::string::npos);
  EXPECT_NE((testsupport::read_file(b.file0()) + testsupport::read_file(b.file1()))
                .find("KEY 0x04 y on%20b\n"),
            std::string::npos);

  // The library in this process reaches both as well.
  LibClient lib;
  ASSERT_EQ(lib.connect(sock), 0);
  ASSERT_TRUE(lib.wait_root_valid("/com/norvi/a/"));
  ASSERT_TRUE(lib.wait_root_valid("/com/norvi/b/"));
  EXPECT_EQ(set_value(lib.get(), "/com/norvi/a/lib", "1"), 0);
  EXPECT_EQ(set_value(lib.get(), "/com/norvi/b/lib", "2"), 0);
  int rc = 0;
  EXPECT_EQ(query(lib.get(), "/com/norvi/a/lib", &rc), "1");
  EXPECT_EQ(query(lib.get(), "/com/norvi/b/lib", &rc), "2");
  // With two valid roots the store job ends after both replies.
  EXPECT_EQ(lorc_repository_store(lib.get(), 5), 0);
  EXPECT_EQ(count_of(a.err(), "Export (Repository store cmd): used '"), 2u) << a.err();
  EXPECT_EQ(count_of(b.err(), "Export (Repository store cmd): used '"), 2u) << b.err();

  // Stopping the peer leaves the hub serving; stopping the hub ends a
  // peer too.
  EXPECT_EQ(b.terminate(), kOk);
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/a/x"}).out, "on a\n");
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/b/y"}).exit_status, kNoServer);
  ASSERT_TRUE(b.start_peer(sock, "/com/norvi/b/", slow)) << b.err();
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/b/y"}).out, "on b\n");
  EXPECT_EQ(a.terminate(), kOk);
  ASSERT_TRUE(b.proc().wait_exit(kWaitMs));
  EXPECT_EQ(b.proc().exit_status(), kDaemonHubGone);
  EXPECT_NE(b.err().find("loregd: the hub of the bus at " + sock + " went away, stopping\n"),
            std::string::npos)
      << b.err();
}

// --- Exit statuses ----------------------------------------------------------

TEST(LoregdProcess, LockedByAnotherClientExits3) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/")) << d.err();
  ASSERT_EQ(ctl(dir, sock, {"set", "/com/norvi/locked/k", "v0"}).exit_status, kOk);

  LibClient lib;
  ASSERT_EQ(lib.connect(sock), 0);
  ASSERT_TRUE(lib.wait_root_valid("/com/norvi/"));
  int tid = lorc_transaction_start(lib.get(), "/com/norvi/locked/", 5);
  ASSERT_GT(tid, 0);

  ProcessResult r = ctl(dir, sock, {"set", "/com/norvi/locked/k", "v1"});
  EXPECT_EQ(r.exit_status, kLocked);
  EXPECT_EQ(r.err, "loregctl: set /com/norvi/locked/k: locked\n");
  r = ctl(dir, sock, {"get", "/com/norvi/locked/k"});
  EXPECT_EQ(r.exit_status, kLocked);
  EXPECT_EQ(r.err, "loregctl: get /com/norvi/locked/k: locked\n");
  r = ctl(dir, sock, {"tx", "/com/norvi/locked/", "--", "set", "/com/norvi/locked/k", "v1"});
  EXPECT_EQ(r.exit_status, kLocked);
  EXPECT_EQ(r.err, "loregctl: tx /com/norvi/locked/: locked\n");
  // Keys outside the lock stay free.
  EXPECT_EQ(ctl(dir, sock, {"set", "/com/norvi/free", "1"}).exit_status, kOk);

  EXPECT_EQ(lorc_transaction_end(lib.get(), tid, 5), 0);
  EXPECT_EQ(ctl(dir, sock, {"set", "/com/norvi/locked/k", "v1"}).exit_status, kOk);
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/locked/k"}).out, "v1\n");
}

TEST(LoregdProcess, ServerThatDoesNotAnswerExits4) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon a(dir, "a");
  Daemon b(dir, "b");
  ASSERT_TRUE(a.start_hub(sock, "/com/norvi/a")) << a.err();
  ASSERT_TRUE(b.start_peer(sock, "/com/norvi/b")) << b.err();
  ASSERT_TRUE(b.proc().stop());

  auto begin = std::chrono::steady_clock::now();
  ProcessResult r = ctl(dir, sock, {"--timeout", "1", "get", "/com/norvi/b/x"});
  auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(r.exit_status, kTimedOut);
  EXPECT_EQ(r.err, "loregctl: get /com/norvi/b/x: timed out\n");
  // One second for the roots that never come, one for the answer.
  EXPECT_LT(took, std::chrono::seconds(8));
  // The other server answers meanwhile.
  EXPECT_EQ(ctl(dir, sock, {"--timeout", "1", "set", "/com/norvi/a/x", "1"}).exit_status, kOk);
  ASSERT_TRUE(b.proc().resume());
}

// --- Faults -----------------------------------------------------------------

TEST(LoregdFaults, GarbageAndOversizedFramesDropThePeerOnly) {
  TempDir dir;
  std::string sock = dir.file("bus.sock");
  Daemon d(dir, "d");
  ASSERT_TRUE(d.start_hub(sock, "/com/norvi/")) << d.err();

  LibClient lib;
  ASSERT_EQ(lib.connect(sock), 0);
  ASSERT_TRUE(lib.wait_root_valid("/com/norvi/"));
  ASSERT_EQ(set_value(lib.get(), "/com/norvi/g", "good"), 0);

  {
    testsupport::BusPeer garbage(sock);
    ASSERT_TRUE(garbage.connected());
    ASSERT_TRUE(garbage.write_bytes(testsupport::FrameBuilder(0xEE).u32(0xDEADBEEF).bytes()));
    EXPECT_TRUE(garbage.wait_closed());
  }
  EXPECT_TRUE(d.proc().wait_err("sent a broken frame (unknown type 238), disconnected\n", kWaitMs))
      << d.err();
  {
    testsupport::BusPeer oversized(sock);
    ASSERT_TRUE(oversized.connected());
    std::vector<uint8_t> frame = testsupport::hello_frame(77);
    frame[0] = 0x01;  // a length of 16 MiB and some
    ASSERT_TRUE(oversized.write_bytes(frame));
    EXPECT_TRUE(oversized.wait_closed());
  }
  EXPECT_TRUE(d.proc().wait_err("sent a broken frame (bad length 16777227), disconnected\n",
                                kWaitMs))
      << d.err();
  {
    // A peer that says hello properly and then talks nonsense.
    testsupport::BusPeer rude(sock);
    ASSERT_TRUE(rude.connected());
    ASSERT_TRUE(rude.join_bus(0x7F000001u));
    std::string junk(64, '\xA5');
    ASSERT_TRUE(rude.write_bytes(std::vector<uint8_t>(junk.begin(), junk.end())));
    EXPECT_TRUE(rude.wait_closed());
  }
  EXPECT_TRUE(d.proc().wait_err("node 2130706433 sent a broken frame (", kWaitMs)) << d.err();

  // Nobody else noticed.
  EXPECT_TRUE(d.proc().running());
  int rc = 0;
  EXPECT_EQ(query(lib.get(), "/com/norvi/g", &rc), "good");
  EXPECT_EQ(set_value(lib.get(), "/com/norvi/g", "still good"), 0);
  EXPECT_EQ(ctl(dir, sock, {"get", "/com/norvi/g"}).out, "still good\n");
}

}  // namespace
