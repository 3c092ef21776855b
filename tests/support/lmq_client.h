// An lmq client for tests: it owns its queue memory, attaches itself to a
// server and detaches and releases itself at the end of its scope, so it
// must go before its server. Platform level only: no registry types.
//
// Header-only; every test program may include it.
#ifndef TESTS_SUPPORT_LMQ_CLIENT_H
#define TESTS_SUPPORT_LMQ_CLIENT_H

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "platform/csp_osal.h"
#include "platform/lmq.h"

namespace testsupport {

// An initialised lmq client with its own queue. With a null server it is
// initialised but attached nowhere.
// The host side of a ping-pong: answers rounds commands, each a 32-bit
// value, with the value plus one. A failed receive or reply ends it with a
// gtest failure. Meant for a thread of its own.
inline void answer_increments(lmq_client *host, uint32_t rounds, const _cspOsalTime_struct *wait) {
  uint32_t value = 0;
  lmq_iovec entry{&value, sizeof(value)};
  for (uint32_t i = 0; i < rounds; i++) {
    lmq_rx_info info{};
    int rc = lmqCXReceive(host, &entry, 1, &info, wait);
    if (rc != sizeof(value)) {
      ADD_FAILURE() << "host receive " << rc;
      return;
    }
    value += 1;
    if (lmqCXReply(host, &info.reply, &entry, 1, 0) != 0) {
      ADD_FAILURE() << "reply";
      return;
    }
  }
}

class LmqClient {
 public:
  explicit LmqClient(lmq_server *server, uint32_t queue_size = 0x4000)
      : m_server(server), m_queue(new uint64_t[(queue_size + 7) / 8]), m_client(new lmq_client) {
    std::memset(m_client.get(), 0, sizeof(lmq_client));
    EXPECT_EQ(lmqClientInit(m_client.get(), m_queue.get(), queue_size), 0);
    if (server != nullptr) {
      EXPECT_EQ(lmqServerAddClient(server, m_client.get()), 0);
    }
  }
  ~LmqClient() {
    if (m_server != nullptr) lmqServerRemoveClient(m_server, m_client.get());
    lmqClientRelease(m_client.get());
  }
  LmqClient(const LmqClient &) = delete;
  LmqClient &operator=(const LmqClient &) = delete;

  lmq_client *get() const { return m_client.get(); }

  // The client and node numbers of its address.
  uint32_t number() const { return address().client; }
  uint32_t node() const { return address().node; }

  // Receives the next message into buffer, telling lmq `told` bytes. The
  // wait is bounded (uptime clock) so that a missing message fails a test
  // instead of hanging it.
  int receive(void *buffer, uint32_t told, lmq_rx_info *info, int32_t timeout_usec = 2000000) {
    lmq_iovec vector{buffer, told};
    _cspOsalTime_struct timeout{timeout_usec / 1000000, timeout_usec % 1000000};
    return lmqCXReceive(m_client.get(), &vector, 1, info, &timeout);
  }

  // Receives the next message and returns its bytes (empty on failure).
  std::vector<uint8_t> receive_bytes(lmq_rx_info *info = nullptr) {
    std::vector<uint8_t> buffer(0x2000);
    lmq_rx_info local{};
    int rc = receive(buffer.data(), 0x1FFF, info != nullptr ? info : &local);
    EXPECT_GT(rc, 0);
    if (rc <= 0) return {};
    buffer.resize(static_cast<size_t>(rc));
    return buffer;
  }

  // True if nothing is queued (a receive with a tiny timeout runs out).
  bool empty() {
    uint8_t buffer[0x2000];
    lmq_rx_info info{};
    return receive(buffer, sizeof buffer - 1, &info, 1000) == LMQ_TIMEOUT;
  }

 private:
  lmq_address address() const {
    lmq_address out{};
    EXPECT_EQ(lmqClientAddress(m_client.get(), &out), 0);
    return out;
  }

  lmq_server *m_server;
  std::unique_ptr<uint64_t[]> m_queue;
  std::unique_ptr<lmq_client> m_client;
};

}  // namespace testsupport

#endif
