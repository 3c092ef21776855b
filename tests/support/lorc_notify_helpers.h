// Helpers for tests of the client's notifications, roots and bulk jobs.
//
// NotifyRecorder is a notification handler that records every call (on
// whichever thread it comes) for exact assertions:
//
//   NotifyRecorder rec(client);
//   lorc_notification_register(client, NotifyRecorder::handler, "/com/norvi/", &rec);
//   ASSERT_TRUE(rec.wait_count(LOREG_REASON_KEY_CHANGE, 1));
//
// inject_key_update() hands a key update notification, built in memory as a
// server would send it, to a client in the external mode through
// lorc_dispatch_msg, so that tests choose reasons, flags, paths and the
// sender's address freely.
//
// BulkKeys builds a key container for lorc_bulk_operation, SpyHost records
// the commands a client sends, and complete_job() drives asynchronous jobs
// of a client whose servers are fed by the test thread.
#ifndef TESTS_SUPPORT_LORC_NOTIFY_HELPERS_H
#define TESTS_SUPPORT_LORC_NOTIFY_HELPERS_H

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "loreg/loreg_lmq.h"
#include "loreg/loreg_msg.h"
#include "loreg/lorkc.h"
#include "support/client_fixture.h"

namespace testsupport {

struct NotifyCall {
  uint32_t reason = 0;
  std::string item_path;
  uint32_t item_flags = 0;
  bool value_null = true;
  std::string value;
  int32_t tid = 0;
  std::string sub_path;
  void *cookie = nullptr;
  bool on_client_thread = false;
};

class NotifyRecorder {
 public:
  explicit NotifyRecorder(lorc_client *client = nullptr) : m_client(client) {}

  static void handler(lorc_client *client, uint32_t reason, const lorc_key_struct *item,
                      int32_t tid, const lstr *path, void *cookie) {
    auto *self = static_cast<NotifyRecorder *>(cookie);
    NotifyCall call;
    call.reason = reason;
    call.item_path = item->path != nullptr ? item->path : "";
    call.item_flags = item->flags;
    call.value_null = item->value == nullptr;
    if (item->value != nullptr)
      call.value.assign(static_cast<const char *>(item->value), item->value_len);
    call.tid = tid;
    call.sub_path.assign(path->ptr, path->len);
    call.cookie = cookie;
    call.on_client_thread = lorc_is_client_thread(client) != 0;
    {
      std::lock_guard<std::mutex> lock(self->m_mutex);
      self->m_calls.push_back(call);
    }
    self->m_cond.notify_all();
  }

  std::vector<NotifyCall> calls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
  }
  std::vector<NotifyCall> calls(uint32_t reason) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<NotifyCall> out;
    for (const auto &c : m_calls) {
      if (c.reason == reason) out.push_back(c);
    }
    return out;
  }
  size_t count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls.size();
  }
  size_t count(uint32_t reason) const { return calls(reason).size(); }
  // Waits (real time) until at least n calls with this reason came.
  bool wait_count(uint32_t reason, size_t n, int timeout_ms = 5000) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
      size_t k = 0;
      for (const auto &c : m_calls) {
        if (c.reason == reason) k++;
      }
      return k >= n;
    });
  }
  void clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.clear();
  }
  lorc_client *client() const { return m_client; }

 private:
  lorc_client *m_client;
  mutable std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<NotifyCall> m_calls;
};

// An address as a server's lmq client would have it.
inline lmq_address server_address(uint32_t client_number) {
  lmq_address a{};
  a.node = 1;
  a.client = client_number;
  a.service_id = -1;
  a.kind = LMQ_KIND_NOTIFY;
  return a;
}

// Feeds one key update notification to an external-mode client. Returns
// lorc_dispatch_msg's result.
inline int inject_key_update(lorc_client *client, uint32_t reason, uint32_t flags,
                             const std::string &path, const std::string &value = "",
                             int32_t tid = 0, lmq_address from = server_address(7)) {
  // data0, the guard, data1 and the spare byte, as validation leaves them.
  std::vector<char> buffer(value.size() + 2 + path.size() + 1, '\0');
  std::memcpy(buffer.data(), value.data(), value.size());
  std::memcpy(buffer.data() + value.size() + 2, path.data(), path.size());
  loreg_msg msg{};
  msg.header.msgtype = LOREG_MSG_KEY_UPDATE;
  msg.header.arg0 = reason;
  msg.header.arg1 = flags;
  msg.header.tid = tid;
  msg.header.len0 = static_cast<uint16_t>(value.size());
  msg.header.len1 = static_cast<uint16_t>(path.size());
  msg.data0 = buffer.data();
  msg.data1 = buffer.data() + value.size() + 2;
  lmq_rx_info info{};
  info.size = static_cast<uint32_t>(LOREG_MSG_MIN_SIZE + value.size() + path.size());
  info.reply = from;
  info.reply.service_id = lorc_get_service_id(client);
  return lorc_dispatch_msg(client, &msg, &info);
}

// Keys of a bulk container, kept by value for building and reading back.
struct BulkKey {
  std::string path;
  std::string value;
  uint32_t flags = 0;
};

class BulkKeys {
 public:
  explicit BulkKeys(uint32_t size = 4096, const loreg_allocator *allocator = nullptr)
      : m_container(lorkc_create(size, allocator)) {}
  ~BulkKeys() {
    if (m_container != nullptr) lorkc_destroy(m_container);
  }
  BulkKeys(const BulkKeys &) = delete;
  BulkKeys &operator=(const BulkKeys &) = delete;

  lorkc_container *get() { return m_container; }

  // Appends a key (lorkc_insert; the same path replaces).
  int add(const std::string &path, uint32_t flags, const std::string &value = "") {
    lorc_key_struct k;
    k.path = path.c_str();
    k.flags = flags;
    k.value = value.data();
    k.value_len = static_cast<uint32_t>(value.size());
    return lorkc_insert(m_container, &k);
  }
  // Appends a key at the end, also when another key has the same path.
  int append(const std::string &path, uint32_t flags, const std::string &value = "") {
    lorc_key_struct k;
    k.path = path.c_str();
    k.flags = flags;
    k.value = value.data();
    k.value_len = static_cast<uint32_t>(value.size());
    lorkc_it end;
    if (lorkc_it_findidx(m_container, &end, INT32_MAX) != 0) return -1;
    return lorkc_it_insert(&end, &k);
  }
  // The first key with this path (flags 0xFFFFFFFF if absent).
  BulkKey key(const std::string &path) {
    BulkKey out;
    out.flags = 0xFFFFFFFFu;
    lorkc_it it;
    if (lorkc_it_find(m_container, &it, path.c_str()) == 1) {
      out.path = it.key.path;
      out.flags = it.key.flags;
      if (it.key.value != nullptr)
        out.value.assign(static_cast<const char *>(it.key.value), it.key.value_len);
    }
    return out;
  }
  // Flags of the key with this path.
  uint32_t flags(const std::string &path) { return key(path).flags; }
  // Sets the flags of the key with this path.
  int set_flags(const std::string &path, uint32_t flags) {
    lorkc_it it;
    if (lorkc_it_find(m_container, &it, path.c_str()) != 1) return -2;
    return lorkc_it_chflags(&it, flags);
  }

 private:
  lorkc_container *m_container;
};

// A second host of the service that records every command it receives and
// answers only when asked. Without a real server it is the only host, so it
// sees every command a client sends.
class SpyHost {
 public:
  struct Command {
    loreg_Header_t header{};
    std::string data0;
    std::string data1;
    lmq_address from{};
  };

  explicit SpyHost(lmq_server *server) {
    EXPECT_EQ(loreg_lmq_init(&m_lmq, nullptr, server, nullptr, 64, 1), 0);
  }
  ~SpyHost() { loreg_lmq_shutdown(&m_lmq, nullptr); }

  // The next command of this type (others are kept), waiting up to
  // timeout_ms of real time.
  std::optional<Command> next(uint16_t type, int timeout_ms = 5000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      for (size_t i = 0; i < m_kept.size(); i++) {
        if (m_kept[i].header.msgtype == type) {
          Command c = m_kept[i];
          m_kept.erase(m_kept.begin() + static_cast<long>(i));
          return c;
        }
      }
      if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
      receive(10);
    }
  }
  // Takes what is queued now; returns the types of all kept commands.
  std::vector<uint16_t> poll() {
    while (receive(0)) {
    }
    std::vector<uint16_t> types;
    for (const auto &c : m_kept) types.push_back(c.header.msgtype);
    return types;
  }
  // Answers a command as a server would: the header echoed with the reply
  // type, this result and tid, and no data (an echo keeps its data).
  int reply(const Command &c, int32_t result, int32_t tid) {
    loreg_msg msg{};
    msg.header = c.header;
    msg.header.msgtype = static_cast<uint16_t>(c.header.msgtype + LOREG_MSG_REPLY_BIT);
    msg.header.result = result;
    msg.header.tid = tid;
    std::string d0 = c.data0, d1 = c.data1;
    if (c.header.msgtype != LOREG_MSG_ECHO) {
      d0.clear();
      d1.clear();
    }
    msg.header.len0 = static_cast<uint16_t>(d0.size());
    msg.header.len1 = static_cast<uint16_t>(d1.size());
    msg.data0 = d0.data();
    msg.data1 = d1.data();
    return loreg_send_reply(m_lmq.client, &msg, &c.from);
  }

 private:
  bool receive(int wait_ms) {
    std::vector<unsigned char> buffer(0x2000);
    lmq_iovec vector{buffer.data(), 0x1FFF};
    lmq_rx_info info{};
    _cspOsalTime_struct timeout = {0, wait_ms > 0 ? wait_ms * 1000 : 1};
    if (lmqCXReceive(m_lmq.client, &vector, 1, &info, &timeout) < 0) return false;
    if (info.reply.kind == LMQ_KIND_SYSTEM) return true;
    loreg_msg msg{};
    if (loreg_validate_msg(&msg, buffer.data(), 0x2000, &info) != 0) return true;
    Command c;
    c.header = msg.header;
    c.data0.assign(msg.data0, msg.header.len0);
    c.data1.assign(msg.data1, msg.header.len1);
    c.from = info.reply;
    m_kept.push_back(c);
    return true;
  }

  loreg_lmq_ctx m_lmq{};
  std::vector<Command> m_kept;
};

// Completes an asynchronous job of client `client_index`, feeding the
// fixture's servers that run without a thread while it waits. Returns the
// job's final value, or -999 if it did not complete within timeout_ms.
inline int complete_job(ClientFixture &f, int job, size_t client_index = 0, int timeout_ms = 5000) {
  lorc_client *c = f.client(client_index);
  int32_t value = -999;
  bool done = ClientFixture::wait_until(
      [&] {
        for (size_t i = 0; i < f.server_count(); i++) f.pump_server(i);
        int rc = lorc_job_get_result(c, job, &value);
        return rc == 0;
      },
      timeout_ms);
  return done ? value : -999;
}

}  // namespace testsupport

#endif
