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
// BulkKeys builds a key container for lorc_bulk_operation, and
// complete_job() drives asynchronous jobs of a client whose servers are
// fed by the test thread.
#ifndef TESTS_SUPPORT_LORC_NOTIFY_HELPERS_H
#define TESTS_SUPPORT_LORC_NOTIFY_HELPERS_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "loreg/loreg_msg.h"
#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
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
  // The key with this path (flags 0xFFFFFFFF if absent).
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

// Completes an asynchronous job of client `client_index`, feeding the
// fixture's servers that run without a thread while it waits. Returns the
// job's final value, or -999 if it did not complete within timeout_ms.
inline int complete_job(ClientFixture &f, int job, size_t client_index = 0,
                        int timeout_ms = 5000) {
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
