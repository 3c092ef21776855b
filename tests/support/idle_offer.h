// Helpers of the idle handler tests: a handler that records every offer
// (and can hold it), and a thread blocked in one lmqCXReceive.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/lmq.h"
#include "support/thread_state.h"

namespace testsupport {

// What the handler saw of each offer, and what it answers. With hold set,
// each offer waits in the handler until release().
class OfferRecorder {
 public:
  struct Offer {
    std::string bytes;
    uint32_t buffer_size;
    lmq_address from;
    pid_t tid;
    std::string thread;
    bool terminated;  // a zero after the message, in the buffer
  };

  explicit OfferRecorder(int answer, bool hold = false) : m_answer(answer), m_hold(hold) {}

  static int call(void *context, void *message, uint32_t size, uint32_t buffer_size,
                  const lmq_address *from) {
    return static_cast<OfferRecorder *>(context)->offer(message, size, buffer_size, from);
  }

  int calls() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_offers.size());
  }
  Offer offer_at(size_t i) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_offers.at(i);
  }
  // Waits until the handler has been called n times (and, with hold,
  // waits in it).
  bool wait_called(int n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::seconds(10),
                           [&] { return static_cast<int>(m_offers.size()) >= n; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hold = false;
    m_cond.notify_all();
  }

 private:
  int offer(void *message, uint32_t size, uint32_t buffer_size, const lmq_address *from) {
    const char *bytes = static_cast<const char *>(message);
    pid_t tid = current_tid();
    std::string thread = thread_name(tid);
    std::unique_lock<std::mutex> lock(m_mutex);
    m_offers.push_back(
        Offer{std::string(bytes, size), buffer_size, *from, tid, thread, bytes[size] == 0});
    m_cond.notify_all();
    m_cond.wait_for(lock, std::chrono::seconds(20), [&] { return !m_hold; });
    return m_answer;
  }

  int m_answer;
  bool m_hold;
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<Offer> m_offers;
};

// A thread that runs one lmqCXReceive, without timeout or with the one
// given. If the test ends while it still waits, a self-notification wakes
// it.
class BlockedReceiver {
 public:
  explicit BlockedReceiver(lmq_client *client, const _cspOsalTime_struct *timeout = nullptr)
      : m_client(client), m_future(m_result.get_future()) {
    if (timeout != nullptr) {
      m_timeout = *timeout;
      m_timed = true;
    }
    m_thread = std::thread([this] {
      m_tid.store(current_tid());
      lmq_iovec entry{m_buffer, sizeof(m_buffer)};
      int rc = lmqCXReceive(m_client, &entry, 1, &m_info, m_timed ? &m_timeout : nullptr);
      m_result.set_value(rc);
    });
  }
  ~BlockedReceiver() {
    if (!m_thread.joinable()) return;
    if (!done_within(std::chrono::milliseconds(0))) {
      static const char kTeardown[] = "teardown";
      lmq_iovec entry{const_cast<char *>(kTeardown), sizeof(kTeardown) - 1};
      (void)lmqCXNotifySelf(m_client, &entry, 1, 0);
    }
    m_thread.join();
  }
  BlockedReceiver(const BlockedReceiver &) = delete;
  BlockedReceiver &operator=(const BlockedReceiver &) = delete;

  bool blocked() const { return wait_until_sleeping(m_tid); }
  bool done_within(std::chrono::milliseconds wait) {
    return m_future.wait_for(wait) == std::future_status::ready;
  }
  std::string take() {
    int rc = m_future.get();
    m_thread.join();
    return rc > 0 ? std::string(m_buffer, rc) : "error " + std::to_string(rc);
  }
  const lmq_rx_info &info() const { return m_info; }

 private:
  lmq_client *m_client;
  _cspOsalTime_struct m_timeout{0, 0};
  bool m_timed = false;
  std::promise<int> m_result;
  std::future<int> m_future;
  std::atomic<pid_t> m_tid{0};
  std::thread m_thread;
  char m_buffer[2048];
  lmq_rx_info m_info{};
};

}  // namespace testsupport
