// Helpers for tests of the lmq bus: message servers that clean up after
// themselves, clients with their own queues, a hub listening in a temporary
// directory with any number of peers, and bounded waits.
//
// Every wait is bounded, so that a missing message fails a test instead of
// hanging it. Messages between nodes travel on bus threads; settle() makes
// every server catch up with the hub before a test looks for what has (or
// has not) arrived.
//
// Header-only; every test program may include it.
#ifndef TESTS_SUPPORT_BUS_FIXTURE_H
#define TESTS_SUPPORT_BUS_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/temp_dir.h"

namespace testsupport {

// Bound of every wait for something that is expected.
constexpr int kBusWaitMs = 10000;

inline _cspOsalTime_struct bus_ms(int ms) {
  return _cspOsalTime_struct{ms / 1000, (ms % 1000) * 1000};
}

// An lmq server, destroyed with the object (or earlier by destroy()).
class BusServer {
 public:
  BusServer() { EXPECT_EQ(lmqServerCreate(&m_server), 0); }
  ~BusServer() { destroy(); }
  BusServer(const BusServer &) = delete;
  BusServer &operator=(const BusServer &) = delete;

  lmq_server *get() const { return m_server; }
  void destroy() {
    if (m_server != nullptr) {
      EXPECT_EQ(lmqServerDestroy(m_server), 0);
    }
    m_server = nullptr;
  }
  lmq_bus_status status() const {
    lmq_bus_status s{};
    EXPECT_EQ(lmqServerBusStatus(m_server, &s), 0);
    return s;
  }
  uint32_t node() const { return status().node; }
  int16_t register_id(const std::string &name) {
    int16_t id = 0;
    uint32_t size = static_cast<uint32_t>(name.size() + 1);
    EXPECT_EQ(lmqRegisterPlainId(m_server, name.c_str(), size, &id), 0) << name;
    return id;
  }
  int connect(const std::string &path) {
    _cspOsalTime_struct t = bus_ms(kBusWaitMs);
    return lmqServerConnect(m_server, path.c_str(), &t);
  }
  int sync() {
    _cspOsalTime_struct t = bus_ms(kBusWaitMs);
    return lmqServerBusSync(m_server, &t);
  }

 private:
  lmq_server *m_server = nullptr;
};

// A client with its own queue memory, attached to a server. It detaches
// and releases itself, so it must go before its server.
class BusClient {
 public:
  explicit BusClient(lmq_server *server, uint32_t queue_size = 32768)
      : m_server(server), m_queue(queue_size), m_client(new lmq_client) {
    std::memset(m_client.get(), 0, sizeof(lmq_client));
    EXPECT_EQ(lmqClientInit(m_client.get(), m_queue.data(), queue_size), 0);
    EXPECT_EQ(lmqServerAddClient(server, m_client.get()), 0);
  }
  ~BusClient() { remove(); }
  BusClient(const BusClient &) = delete;
  BusClient &operator=(const BusClient &) = delete;

  lmq_client *get() const { return m_client.get(); }
  // Detaches now (the destructor then only releases).
  void remove() {
    if (m_server != nullptr) lmqServerRemoveClient(m_server, m_client.get());
    if (m_server != nullptr) lmqClientRelease(m_client.get());
    m_server = nullptr;
  }
  lmq_address address() const {
    lmq_address a{};
    EXPECT_EQ(lmqClientAddress(m_client.get(), &a), 0);
    return a;
  }
  uint32_t number() const { return address().client; }
  uint32_t node() const { return address().node; }

 private:
  lmq_server *m_server;
  std::vector<unsigned char> m_queue;
  std::unique_ptr<lmq_client> m_client;
};

struct BusReceived {
  int rc = 0;
  lmq_rx_info info{};
  std::string data;
};

// Takes the next message, waiting at most timeout_ms (0: only what is
// queued).
inline BusReceived bus_receive(lmq_client *client, int timeout_ms = kBusWaitMs,
                               uint32_t buffer_size = 8192) {
  BusReceived out;
  std::vector<char> buffer(buffer_size);
  lmq_iovec entry{buffer.data(), buffer_size};
  _cspOsalTime_struct timeout = bus_ms(timeout_ms);
  std::memset(&out.info, 0xEE, sizeof(out.info));
  out.rc = lmqCXReceive(client, &entry, 1, &out.info, &timeout);
  if (out.rc > 0) out.data.assign(buffer.data(), static_cast<size_t>(out.rc));
  return out;
}

// Nothing queued (call after settle()).
inline bool bus_empty(lmq_client *client) { return bus_receive(client, 0).rc == LMQ_TIMEOUT; }

inline lmq_iovec bus_iov(const std::string &s) {
  return lmq_iovec{const_cast<char *>(s.data()), static_cast<uint32_t>(s.size())};
}
inline int bus_command(lmq_client *client, int16_t sid, const std::string &data) {
  lmq_iovec entry = bus_iov(data);
  return lmqCXSendCommand(client, sid, &entry, 1, 0);
}
inline int bus_notify(lmq_client *client, int16_t sid, const std::string &data) {
  lmq_iovec entry = bus_iov(data);
  return lmqCXNotify(client, sid, &entry, 1, 0);
}
inline int bus_reply(lmq_client *client, const lmq_address &address, const std::string &data) {
  lmq_iovec entry = bus_iov(data);
  return lmqCXReply(client, &address, &entry, 1, 0);
}

// The 30 bytes of a system message as they are queued.
inline std::string bus_sysmsg_bytes(uint32_t type, int16_t sid) {
  const unsigned char bytes[30] = {
      0x82, 0x07, 0x00, 0x00, static_cast<unsigned char>(type >> 24),
      static_cast<unsigned char>(type >> 16), static_cast<unsigned char>(type >> 8),
      static_cast<unsigned char>(type), 0x00, 0x00, 0x00, 0x01,  // subtype
      0x00, 0x00, 0x00, 0x1E, 0x00, 0x00, 0x00, 0x1E,              // size twice
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      static_cast<unsigned char>(static_cast<uint16_t>(sid) >> 8),
      static_cast<unsigned char>(static_cast<uint16_t>(sid))};
  return std::string(reinterpret_cast<const char *>(bytes), sizeof(bytes));
}

// A received message is the system message of type about the client
// peer_client of node peer_node.
inline ::testing::AssertionResult is_sysmsg(const BusReceived &r, uint32_t type, int16_t sid,
                                            uint32_t peer_node, uint32_t peer_client) {
  if (r.rc != 30) return ::testing::AssertionFailure() << "rc " << r.rc;
  if (r.info.reply.kind != LMQ_KIND_SYSTEM) return ::testing::AssertionFailure() << "kind";
  if (r.info.reply.service_id != sid) return ::testing::AssertionFailure() << "sid";
  if (r.info.reply.node != peer_node || r.info.reply.client != peer_client) {
    return ::testing::AssertionFailure() << "peer " << r.info.reply.node << "/"
                                         << r.info.reply.client << " expected " << peer_node
                                         << "/" << peer_client;
  }
  if (r.data != bus_sysmsg_bytes(type, sid)) return ::testing::AssertionFailure() << "bytes";
  return ::testing::AssertionSuccess();
}

// Polls pred every millisecond until it holds or timeout_ms pass.
inline bool bus_wait_until(const std::function<bool()> &pred, int timeout_ms = kBusWaitMs) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A hub listening on a socket in a fresh temporary directory, and peers
// connected to it. Declare it before the clients of its servers.
class Bus {
 public:
  Bus() : m_path(m_dir.file("bus.sock")) {
    EXPECT_EQ(lmqServerListen(m_hub.get(), m_path.c_str(), 0), 0);
  }
  BusServer &hub() { return m_hub; }
  const std::string &path() const { return m_path; }
  const TempDir &dir() const { return m_dir; }

  // A new server connected as a peer.
  BusServer &add_peer() {
    m_peers.emplace_back(new BusServer);
    EXPECT_EQ(m_peers.back()->connect(m_path), 0);
    return *m_peers.back();
  }

  // Every peer still on the bus catches up with the hub, then the hub with
  // every peer: what any node sent before has then been handled
  // everywhere it goes.
  void settle() {
    for (auto &peer : m_peers) {
      if (peer->get() != nullptr && peer->status().peers == 1) {
        EXPECT_EQ(peer->sync(), 0);
      }
    }
    EXPECT_EQ(m_hub.sync(), 0);
  }

  // Waits until the hub counts n peers.
  bool hub_has_peers(uint32_t n) {
    return bus_wait_until([&] { return m_hub.status().peers == n; });
  }

 private:
  TempDir m_dir;
  std::string m_path;
  BusServer m_hub;
  std::vector<std::unique_ptr<BusServer>> m_peers;
};

}  // namespace testsupport

#endif
