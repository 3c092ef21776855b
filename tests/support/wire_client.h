// A raw registry client for tests: speaks the wire format through lmq
// directly, so that a server is tested through real messages.
//
//   WireClient c(lmq, /*subscribe=*/true);
//   c.send(LOREG_MSG_VALUE_SET, /*reqid=*/7, 0x30400, 0, 0, "42", "/com/norvi/a");
//   ... let the server run (its own thread, or a ServerPump) ...
//   auto reply = c.wait_reply(7);
//   EXPECT_EQ(reply->header.result, 0);
//   auto notes = c.notifications();   // key updates seen meanwhile
//
// Everything received is kept in arrival order; wait_reply() looks for a
// reply with the given reqid, and notifications() lists the 0x20E1
// messages. poll() takes what is queued without waiting, so that tests of a
// server fed by the test thread can assert that no reply came, at once.
#ifndef TESTS_SUPPORT_WIRE_CLIENT_H
#define TESTS_SUPPORT_WIRE_CLIENT_H

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "loreg/loreg_msg.h"
#include "platform/lmq.h"

namespace testsupport {

struct WireMessage {
  bool system = false;       // an lmq system message
  uint32_t sys_type = 0;     // for system messages
  uint32_t sys_subtype = 0;
  int16_t sys_service = 0;
  loreg_Header_t header{};   // registry messages, host order
  std::string data0;
  std::string data1;
  lmq_rx_info info{};
  int validate_result = 0;   // loreg_validate_msg's result
};

class WireClient {
 public:
  // Attaches a client with a receive queue of queue_bytes to the lmq
  // server, registers "LOREG", and subscribes to it if asked.
  WireClient(lmq_server *server, bool subscribe, uint32_t queue_bytes = 64 * 1024);
  ~WireClient();
  WireClient(const WireClient &) = delete;
  WireClient &operator=(const WireClient &) = delete;

  lmq_client *client() { return &m_client; }
  int16_t service_id() const { return m_service_id; }
  lmq_address address() const;

  // Sends a request as a command to every host of "LOREG". Returns the
  // send's result.
  int send(uint16_t type, uint32_t reqid, uint32_t arg0, uint32_t arg1, int32_t tid,
           const std::string &data0, const std::string &data1);
  // The same, by lmqCXReply to one address (e.g. a server's from a
  // notification).
  int send_to(const lmq_address &address, uint16_t type, uint32_t reqid, uint32_t arg0,
              uint32_t arg1, int32_t tid, const std::string &data0, const std::string &data1);
  // Sends any loreg_msg as a command.
  int send_msg(const loreg_msg &msg);

  // Receives what is queued now, without waiting. Returns how many came.
  size_t poll();
  // Receives until a message arrives or timeout_ms (real time) passed.
  bool receive(int timeout_ms);

  // Waits (real time, up to timeout_ms) for the reply with this reqid and
  // removes it from the kept messages.
  std::optional<WireMessage> wait_reply(uint32_t reqid, int timeout_ms = 5000);
  // Removes and returns a reply with this reqid if one is kept already.
  std::optional<WireMessage> take_reply(uint32_t reqid);
  // Waits until at least n key update notifications are kept.
  bool wait_notifications(size_t n, int timeout_ms = 5000);

  // All kept messages; key update notifications; system messages.
  std::vector<WireMessage> messages() const;
  std::vector<WireMessage> notifications() const;
  std::vector<WireMessage> system_messages() const;
  size_t replies_kept() const;
  void clear();

 private:
  bool receive_one(const _cspOsalTime_struct *timeout);

  lmq_server *m_server;
  lmq_client m_client{};
  std::vector<unsigned char> m_queue;
  int16_t m_service_id = 0;
  bool m_subscribed = false;
  std::deque<WireMessage> m_messages;
};

// Formats a header for failure messages.
std::string describe(const WireMessage &message);

}  // namespace testsupport

#endif
