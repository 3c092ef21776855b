// Test helpers for the registry's wire level: an lmq server that cleans up
// after itself (its clients are in support/lmq_client.h), and a builder of
// raw registry messages (any byte may be wrong on purpose) for feeding
// validation and loops.
//
// Header-only; every test program may include it.
#ifndef TESTS_SUPPORT_LMQ_WIRE_H
#define TESTS_SUPPORT_LMQ_WIRE_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "loreg/loreg_msg.h"
#include "platform/csp_endian.h"
#include "platform/lmq.h"
#include "support/lmq_client.h"

namespace testsupport {

// An lmq message server, destroyed with the object.
class LmqServer {
 public:
  LmqServer() { EXPECT_EQ(lmqServerCreate(&m_server), 0); }
  ~LmqServer() {
    if (m_server != nullptr) lmqServerDestroy(m_server);
  }
  LmqServer(const LmqServer &) = delete;
  LmqServer &operator=(const LmqServer &) = delete;

  lmq_server *get() const { return m_server; }

  // Id of the service "LOREG", registered as the registry does (6 bytes).
  // Each call counts one reference, dropped again by the destructor's
  // server teardown.
  int16_t loreg_id() {
    int16_t id = 0;
    EXPECT_EQ(lmqRegisterPlainId(m_server, "LOREG", 6, &id), 0);
    return id;
  }

 private:
  lmq_server *m_server = nullptr;
};

// A registry message built byte by byte. By default it is well formed;
// tests change single fields to make it wrong.
struct RawMessage {
  lmq_msg_header lmq{};
  loreg_Header_t header{};
  std::string data0;
  uint8_t guard[2] = {0, 0};
  std::string data1;
  std::string trailer;      // bytes behind data1, not counted in len1
  bool set_lengths = true;  // len0/len1 from the data, sizes from the total
  bool truncate = false;    // cut the message at truncate_at bytes
  size_t truncate_at = 0;

  RawMessage() {
    lmq.protocol = 0x82;
    lmq.words = 7;
    lmq.type = LOREG_LMQ_MSG_TYPE;
    lmq.subtype = LOREG_LMQ_MSG_SUBTYPE;
  }

  std::vector<uint8_t> bytes() const {
    lmq_msg_header l = lmq;
    loreg_Header_t h = header;
    if (set_lengths) {
      h.len0 = static_cast<uint16_t>(data0.size());
      h.len1 = static_cast<uint16_t>(data1.size());
    }
    size_t total = LMQ_HEADER_SIZE + sizeof(loreg_Header_t) + data0.size() + 2 + data1.size() +
                   trailer.size();
    if (truncate) total = truncate_at;
    if (set_lengths) {
      l.size = static_cast<uint32_t>(total);
      l.size2 = static_cast<uint32_t>(total);
    }
    std::vector<uint8_t> out(LMQ_HEADER_SIZE + sizeof(loreg_Header_t));
    lmqMessageHeaderToProtocol(out.data(), &l);
    cspHostToProtocol(out.data() + LMQ_HEADER_SIZE, &h, &__csp_EndianTable_loreg_Header_t);
    out.insert(out.end(), data0.begin(), data0.end());
    out.insert(out.end(), guard, guard + 2);
    out.insert(out.end(), data1.begin(), data1.end());
    out.insert(out.end(), trailer.begin(), trailer.end());
    out.resize(total);
    return out;
  }

  // Sends the bytes as one command of the service.
  int send_command(lmq_client *client, int16_t service_id) const {
    std::vector<uint8_t> b = bytes();
    lmq_iovec vector{b.data(), static_cast<uint32_t>(b.size())};
    return lmqCXSendCommand(client, service_id, &vector, 1, 0);
  }

  // Sends the bytes to the client's own queue.
  int send_self(lmq_client *client) const {
    std::vector<uint8_t> b = bytes();
    lmq_iovec vector{b.data(), static_cast<uint32_t>(b.size())};
    return lmqCXNotifySelf(client, &vector, 1, 0);
  }
};

// Reads a big-endian field of a wire buffer.
inline uint32_t be32(const std::vector<uint8_t> &b, size_t offset) {
  return (uint32_t(b[offset]) << 24) | (uint32_t(b[offset + 1]) << 16) |
         (uint32_t(b[offset + 2]) << 8) | uint32_t(b[offset + 3]);
}
inline uint16_t be16(const std::vector<uint8_t> &b, size_t offset) {
  return static_cast<uint16_t>((b[offset] << 8) | b[offset + 1]);
}

}  // namespace testsupport

#endif
