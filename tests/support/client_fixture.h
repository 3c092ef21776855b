// Registry clients against real repository servers, all in this process.
//
// The fixture makes an lmq server and a raw WireClient on it (not
// subscribed, used to reach the servers directly). add_server() starts a
// repository server under a given root, each with its own temporary
// directory for its two files and, by default, its own thread "lorsmain"
// and LORS_OPT_NO_PERSIST. add_client() starts a registry client with its
// own thread "lorcmain" (optional allocator, hooks, queue size), or, with
// external set, a client in the external mode whose lmq client the fixture
// owns and feeds from the test thread with pump_client().
//
//   ClientFixture f;
//   ASSERT_EQ(f.add_server({"/com/norvi/a"}), 0);      // index of the server
//   ASSERT_EQ(f.add_server({"/com/norvi/b"}), 1);
//   ASSERT_EQ(f.add_client(), 0);                      // index of the client
//   ASSERT_TRUE(f.wait_roots(0, 2));                   // both roots known, valid
//   EXPECT_EQ(lorc_value_set(f.client(), 0, "/com/norvi/a/x", "1", 1, 0x30400, 5), 0);
//   f.advance_uptime(5000);   // clock + all timers of servers and clients served
//
// Servers may also run without a thread (own_thread false): the test then
// feeds them with pump_server(), which makes the order of their replies its
// own choice (e.g. several servers answering one repository store).
//
// advance_uptime(ms) moves the uptime clock with cspOsalTestAdvanceUptime
// and then synchronises: servers without a thread run their timeout
// handler and are pumped; each threaded server answers two echo round trips
// from the WireClient (so what its timers sent precedes the second echo
// reply in every queue); each threaded client then gets a marker reply in
// its queue, for a job of its own that the fixture made, and completes a
// timer job of 0 ms: the marker shows that everything queued before it was
// handled, the timer job that the loop has served its timers at the new
// time. An external client is pumped and runs its timeout handler. The
// marker and the timer job are collected, so nothing of them is left. sync() does the same without
// moving the clock. All waits are bounded (real time), and a failed
// synchronisation is reported by the functions' results and a gtest
// failure, never by hanging.
//
// The destructor shuts down the clients first, then the servers, then the
// WireClient and the lmq server. Tests that check leaks shut down a client
// themselves with stop_client() and then look at their allocator.
#ifndef TESTS_SUPPORT_CLIENT_FIXTURE_H
#define TESTS_SUPPORT_CLIENT_FIXTURE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "loreg/lors.h"
#include "support/temp_dir.h"
#include "support/wire_client.h"

namespace testsupport {

struct ServerSetup {
  const char *root_path = "/com/norvi";  // null: the server's default root
  uint32_t options = LORS_OPT_NO_PERSIST;  // LORS_OPT_*
  bool own_thread = true;                  // false: fed by pump_server()
  const loreg_allocator *allocator = nullptr;
  uint32_t queue_kib = 0;
  uint32_t commit_delay_final = 0;
  uint32_t commit_delay_intermediate = 0;
};

struct ClientSetup {
  const loreg_allocator *allocator = nullptr;
  const lorc_hooks *hooks = nullptr;  // copied by lorc_init
  bool external = false;              // true: no thread, fed by pump_client()
  uint32_t queue_kib = 0;             // 0: 16 KiB
};

class ClientFixture {
 public:
  ClientFixture();
  ~ClientFixture();
  ClientFixture(const ClientFixture &) = delete;
  ClientFixture &operator=(const ClientFixture &) = delete;

  lmq_server *lmq() { return m_lmq; }
  WireClient &wire() { return *m_wire; }

  // --- Servers --------------------------------------------------------
  // Starts a server; returns its index (0, 1, ...) or lors_init's error.
  int add_server(const ServerSetup &setup = ServerSetup());
  lors_ctx *server(size_t index = 0);
  size_t server_count() const { return m_servers.size(); }
  // Files of the server's repository (in its own temporary directory).
  const std::string &server_file0(size_t index) const;
  const std::string &server_file1(size_t index) const;
  // lors_shutdown; returns its result (0 if it was stopped already).
  int stop_server(size_t index);
  // Feeds everything queued for a server without a thread to it; returns
  // how many messages were taken. No-op for a threaded server.
  size_t pump_server(size_t index);
  // Full path under a server's root: server_path(0, "/x") = "/com/norvi/a/x".
  std::string server_path(size_t index, const std::string &relative) const;

  // --- Clients --------------------------------------------------------
  // Starts a client; returns its index or lorc_init's error.
  int add_client(const ClientSetup &setup = ClientSetup());
  lorc_client *client(size_t index = 0);
  size_t client_count() const { return m_clients.size(); }
  // lorc_shutdown; returns its result (0 if it was stopped already).
  int stop_client(size_t index);
  // External clients: the lmq client handed to lorc_init, and feeding.
  lmq_client *external_lmq_client(size_t index);
  // Receives what is queued for an external client and feeds it through
  // lorc_dispatch_msg / lorc_dispatch_sysmsg; returns the count.
  size_t pump_client(size_t index);
  // Takes one queued message of an external client without feeding it
  // (false if none is queued); its buffer stays valid until the next call.
  bool receive_external(size_t index, loreg_msg *msg, lmq_rx_info *info);

  // --- Time and synchronisation ---------------------------------------
  // Moves the uptime clock by ms and synchronises (see above).
  void advance_uptime(uint64_t ms);
  // Synchronises servers, then clients, without moving the clock.
  bool sync();
  bool sync_servers();
  bool sync_client(size_t index);

  // Polls cond (every millisecond, real time) until it holds or
  // timeout_ms passed. Returns the last value of cond.
  static bool wait_until(const std::function<bool()> &cond, int timeout_ms = 5000);
  // Number of roots that a client knows and holds valid (lorc_root_query).
  int valid_roots(size_t client_index);
  // Waits until the client holds at least n valid roots (pumping an
  // external client meanwhile).
  bool wait_roots(size_t client_index, int n, int timeout_ms = 5000);

 private:
  struct Server;
  struct Client;

  int running_servers() const;
  bool sync_marker(size_t index);
  bool sync_timers(size_t index);
  bool collect(size_t index, int job, const char *what);

  lmq_server *m_lmq = nullptr;
  std::unique_ptr<WireClient> m_wire;
  std::vector<std::unique_ptr<Server>> m_servers;
  std::vector<std::unique_ptr<Client>> m_clients;
  uint32_t m_echo_reqid = 0x7E000000u;
};

}  // namespace testsupport

#endif
