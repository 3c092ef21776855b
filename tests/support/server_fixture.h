// A repository server under test, fed by the test thread.
//
// The fixture makes an lmq server, a temporary directory for the two
// repository files, a WireClient subscribed to "LOREG", and a server in
// the mode without a thread of its own (unless own_thread is asked): the
// server's lmq client belongs to the fixture, and pump() takes what is
// queued for the server and feeds it through lors_dispatch_msg and
// lors_dispatch_sysmsg, as the receive loop would. Everything is then
// synchronous: after request() returns, every reply and notification the
// server sent is already in the client's queue, and the absence of a reply
// is known at once.
//
//   ServerFixture f;                       // default root "/com/norvi/"
//   ASSERT_EQ(f.start(), 0);
//   auto r = f.request(LOREG_MSG_VALUE_SET, 0x30400, 0, 0, "v", "/com/norvi/a");
//   ASSERT_TRUE(r);  EXPECT_EQ(r->header.result, 0);
//   f.advance_ms(5000);                    // moves the uptime clock, runs timers
#ifndef TESTS_SUPPORT_SERVER_FIXTURE_H
#define TESTS_SUPPORT_SERVER_FIXTURE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "loreg/lors.h"
#include "support/temp_dir.h"
#include "support/wire_client.h"

namespace testsupport {

struct ServerOptions {
  const char *root_path = nullptr;  // null: the default root
  uint32_t options = 0;             // LORS_OPT_*
  uint32_t commit_delay_final = 0;
  uint32_t commit_delay_intermediate = 0;
  const loreg_allocator *allocator = nullptr;
  const lors_fio *fio = nullptr;  // null: default backend on file0()/file1()
  bool own_thread = false;        // true: the server runs "lorsmain"
  uint32_t queue_kib = 0;
};

class ServerFixture {
 public:
  explicit ServerFixture(ServerOptions options = ServerOptions());
  ~ServerFixture();
  ServerFixture(const ServerFixture &) = delete;
  ServerFixture &operator=(const ServerFixture &) = delete;

  // lors_init with the options; returns its result.
  int start();
  // lors_shutdown (if started); returns its result.
  int stop();
  // Restarts on the same files (stop, then start).
  int restart();

  lors_ctx *server() { return m_server; }
  lmq_server *lmq() { return m_lmq; }
  WireClient &client() { return *m_client; }
  const std::string &file0() const { return m_file0; }
  const std::string &file1() const { return m_file1; }
  const TempDir &dir() const { return m_dir; }
  lors_fio &fio() { return m_fio; }
  ServerOptions &options() { return m_options; }

  // Feeds everything queued for the server to it; returns how many
  // messages were dispatched. No-op with own_thread.
  size_t pump();

  // Sends a request with a fresh reqid, pumps, and takes its reply (none if
  // the server gave none). With own_thread it waits up to 5 s instead.
  std::optional<WireMessage> request(uint16_t type, uint32_t arg0, uint32_t arg1, int32_t tid,
                                     const std::string &data0, const std::string &path);
  // The same without waiting for a reply: returns the reqid used.
  uint32_t send(uint16_t type, uint32_t arg0, uint32_t arg1, int32_t tid,
                const std::string &data0, const std::string &path);

  // Shorthands on the default root: path is relative ("/a/b").
  std::string full(const std::string &relative) const;
  std::optional<WireMessage> set(const std::string &relative, const std::string &value,
                                 uint32_t flags = 0x30400, int32_t tid = 0);
  std::optional<WireMessage> get(const std::string &relative, int32_t tid = 0);

  // Moves the uptime clock forward and lets the server run its timers
  // (lors_task_dispatch_timeout), then pumps.
  void advance_ms(uint64_t ms);

  // Last reqid used.
  uint32_t last_reqid() const { return m_reqid; }

 private:
  ServerOptions m_options;
  TempDir m_dir;
  std::string m_file0, m_file1;
  lors_fio m_fio{};
  lmq_server *m_lmq = nullptr;
  lmq_client m_server_client{};
  std::vector<unsigned char> m_server_queue;
  bool m_server_client_attached = false;
  lors_ctx *m_server = nullptr;
  std::unique_ptr<WireClient> m_client;
  uint32_t m_reqid = 0;
};

}  // namespace testsupport

#endif
