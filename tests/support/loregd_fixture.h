// Helpers of the tests of the registry daemon loregd and its client
// loregctl, which run the programs of the build tree (LOREGD_PATH and
// LOREGCTL_PATH, given by the build) as processes: a daemon in the
// foreground with its standard error in a file, a loregctl run, and the
// client library of the test process on the daemon's bus, recording
// notifications. Every wait is bounded; every process is killed and
// reaped with its object.
//
// Header-only; for tests/loregd*_test.cpp.
#ifndef TESTS_SUPPORT_LOREGD_FIXTURE_H
#define TESTS_SUPPORT_LOREGD_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "loreg/loreg_msg.h"
#include "loreg/lorc.h"
#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/child_process.h"
#include "support/temp_dir.h"

namespace loregdtest {

using testsupport::ChildProcess;
using testsupport::ProcessResult;
using testsupport::TempDir;

constexpr int kReadyMs = 15000;  // a daemon says it is ready
constexpr int kWaitMs = 10000;   // anything else that is expected
constexpr int kRunMs = 30000;    // a loregctl run

// Exit statuses of loregctl and loregd.
constexpr int kOk = 0;
constexpr int kFail = 1;
constexpr int kNotFound = 2;
constexpr int kLocked = 3;
constexpr int kTimedOut = 4;
constexpr int kNoServer = 5;
constexpr int kUsage = 64;
constexpr int kDaemonStartFailed = 1;
constexpr int kDaemonHubGone = 2;

// A daemon in the foreground, its standard error in a file of the test's
// directory. It is killed and reaped with the object.
class Daemon {
 public:
  Daemon(const TempDir &dir, const std::string &name) : m_dir(dir), m_name(name) {}

  // Starts loregd --foreground with the options; true once it says that it
  // serves.
  bool start(const std::vector<std::string> &options) {
    std::vector<std::string> argv{LOREGD_PATH, "--foreground"};
    argv.insert(argv.end(), options.begin(), options.end());
    m_starts++;
    if (!m_proc.start(argv, m_dir.file(m_name + "." + std::to_string(m_starts) + ".err"))) {
      return false;
    }
    return m_proc.wait_err("loregd: ready", kReadyMs);
  }
  // A hub with its own files under the test's directory.
  bool start_hub(const std::string &socket, const std::string &root,
                 const std::vector<std::string> &more = {}) {
    std::vector<std::string> options{"--socket", socket, "--root", root, "--file0", file0(),
                                     "--file1", file1()};
    options.insert(options.end(), more.begin(), more.end());
    return start(options);
  }
  // A server on the bus of a hub.
  bool start_peer(const std::string &socket, const std::string &root,
                  const std::vector<std::string> &more = {}) {
    std::vector<std::string> options{"--connect", socket, "--root", root, "--file0", file0(),
                                     "--file1", file1()};
    options.insert(options.end(), more.begin(), more.end());
    return start(options);
  }

  std::string file0() const { return m_dir.file(m_name + "0.dat"); }
  std::string file1() const { return m_dir.file(m_name + "1.dat"); }
  std::string err() const { return m_proc.err(); }
  ChildProcess &proc() { return m_proc; }

  // SIGTERM, then the exit status (-1 if it does not end in time).
  int terminate() {
    if (!m_proc.signal(SIGTERM) || !m_proc.wait_exit(kWaitMs)) return -1;
    return m_proc.exit_status();
  }

 private:
  const TempDir &m_dir;
  std::string m_name;
  int m_starts = 0;
  ChildProcess m_proc;
};

// Runs loregctl with --socket socket and the arguments.
inline ProcessResult ctl(const TempDir &dir, const std::string &socket,
                  const std::vector<std::string> &args, int timeout_ms = kRunMs) {
  static std::atomic<int> runs{0};
  std::vector<std::string> argv{LOREGCTL_PATH, "--socket", socket};
  argv.insert(argv.end(), args.begin(), args.end());
  return testsupport::run_process(argv, dir.file("ctl" + std::to_string(runs++)), timeout_ms);
}

// Runs a program with exactly these arguments.
inline ProcessResult run(const TempDir &dir, const std::vector<std::string> &argv) {
  static std::atomic<int> runs{0};
  return testsupport::run_process(argv, dir.file("run" + std::to_string(runs++)), kRunMs);
}

inline std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    lines.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  return lines;
}

inline size_t count_of(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) n++;
  return n;
}

// One notification as a handler saw it.
struct Note {
  uint32_t reason;
  uint32_t flags;
  std::string path;
  std::string value;
};

// The client library in this process, on the daemon's bus: its own
// message server joins the bus, a client on it. Notifications of its
// subscriptions are recorded.
class LibClient {
 public:
  ~LibClient() {
    if (m_client != nullptr) lorc_shutdown(m_client);
    if (m_bus != nullptr) lmqServerDestroy(m_bus);
  }

  int connect(const std::string &socket) {
    int rc = lmqServerCreate(&m_bus);
    if (rc != 0) return rc;
    _cspOsalTime_struct timeout{10, 0};
    rc = lmqServerConnect(m_bus, socket.c_str(), &timeout);
    if (rc != 0) return rc;
    lorc_hooks hooks{};
    hooks.cookie = this;
    hooks.onSysMsg = [](lorc_client *, uint32_t type, uint32_t, void *cookie) {
      if (type == LMQ_SYSMSG_HOST_PRESENT) static_cast<LibClient *>(cookie)->m_hosts++;
    };
    lorc_init_params params{};
    params.lmqServer = m_bus;
    params.hooks = &hooks;
    return lorc_init(&m_client, &params);
  }
  lorc_client *get() const { return m_client; }
  lmq_server *bus() const { return m_bus; }
  int hosts() const { return m_hosts.load(); }

  // The known roots: path and flags (LORC_ROOT_STALE included).
  std::vector<std::pair<std::string, uint32_t>> roots() const {
    std::vector<std::pair<std::string, uint32_t>> out;
    char path[512];
    uint32_t flags = 0;
    for (int i = 0; lorc_root_query(m_client, i, &flags, path, sizeof(path)) >= 0; i++) {
      out.emplace_back(path, flags);
      flags = 0;
    }
    return out;
  }
  // Flags of the root with this path, or -1 if it is not known.
  int64_t root_flags(const std::string &path) const {
    for (const auto &r : roots()) {
      if (r.first == path) return r.second;
    }
    return -1;
  }
  // Waits until the root is known and valid.
  bool wait_root_valid(const std::string &path, int timeout_ms = kWaitMs) const {
    return wait([&] {
      int64_t flags = root_flags(path);
      return flags >= 0 && (flags & LORC_ROOT_STALE) == 0;
    }, timeout_ms);
  }

  int subscribe(const std::string &path) {
    return lorc_notification_register(m_client, &LibClient::on_note, path.c_str(), this);
  }
  int unsubscribe(const std::string &path) {
    return lorc_notification_unregister(m_client, &LibClient::on_note, path.c_str(), this);
  }
  void clear_notes() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_notes.clear();
  }
  bool wait_note(uint32_t reason, const std::string &path, int timeout_ms = kWaitMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
      return std::any_of(m_notes.begin(), m_notes.end(),
                         [&](const Note &n) { return n.reason == reason && n.path == path; });
    });
  }

  template <typename Pred>
  static bool wait(Pred pred, int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }

 private:
  static void on_note(lorc_client *, uint32_t reason, const lorc_key_struct *item, int32_t,
                      const lstr *, void *cookie) {
    auto *self = static_cast<LibClient *>(cookie);
    Note note{reason, item->flags, item->path != nullptr ? item->path : "",
              item->value != nullptr
                  ? std::string(static_cast<const char *>(item->value), item->value_len)
                  : std::string()};
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_notes.push_back(note);
    self->m_cond.notify_all();
  }

  lmq_server *m_bus = nullptr;
  lorc_client *m_client = nullptr;
  std::atomic<int> m_hosts{0};
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<Note> m_notes;
};

inline std::string query(lorc_client *client, const std::string &path, int *rc, int timeout_s = 5) {
  char buffer[8192];
  *rc = lorc_value_query(client, 0, path.c_str(), buffer, sizeof(buffer), timeout_s);
  return *rc >= 0 ? std::string(buffer, static_cast<size_t>(*rc)) : std::string();
}

inline int set_value(lorc_client *client, const std::string &path, const std::string &value,
              int timeout_s = 5) {
  return lorc_value_set(client, 0, path.c_str(), value.data(), static_cast<uint32_t>(value.size()),
                        0x30400u, timeout_s);
}

}  // namespace loregdtest

#endif
