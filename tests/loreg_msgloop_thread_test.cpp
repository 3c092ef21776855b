// The registry's receive loop on a thread of its own, as server and client
// tasks run it: an echo server answering clients on other threads, stop
// from another thread, and timeouts driven by the uptime clock's hook.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "loreg/loreg_lmq.h"
#include "loreg/loreg_msg.h"
#include "loreg/loreg_msgloop.h"
#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/lmq_wire.h"
#include "support/log_capture.h"

namespace {

using testsupport::LmqClient;
using testsupport::LmqServer;
using testsupport::LogCapture;
using testsupport::RawMessage;

constexpr uint32_t kSetNext = 0x1;  // reserved1: the handler sets next = {arg0, arg1}

bool is_neg_infinity(const _cspOsalTime_struct &t) {
  return t.sec == CSP_OSAL_TIME_NEG_INFINITY.sec && t.usec == CSP_OSAL_TIME_NEG_INFINITY.usec;
}

loreg_msg make_msg(uint16_t type, uint32_t reqid = 0, const char *data0 = nullptr,
                   const char *data1 = nullptr) {
  loreg_msg msg;
  std::memset(&msg, 0, sizeof msg);
  msg.header.msgtype = type;
  msg.header.reqid = reqid;
  msg.header.len0 = static_cast<uint16_t>(data0 != nullptr ? std::strlen(data0) : 0);
  msg.header.len1 = static_cast<uint16_t>(data1 != nullptr ? std::strlen(data1) : 0);
  msg.data0 = const_cast<char *>(data0);
  msg.data1 = const_cast<char *>(data1);
  return msg;
}

// A task that hosts "LOREG" and runs the loop on its own thread. Commands
// are answered with an echo (type + 0x1000, same data); everything the
// handlers see is recorded under a mutex.
class LoopTask {
 public:
  explicit LoopTask(lmq_server *server) : m_buffer(LOREG_MSGLOOP_BUFFER_SIZE) {
    EXPECT_EQ(loreg_lmq_init(&m_lmq, nullptr, server, nullptr, 64, 1), 0);
    std::memset(&m_loop, 0, sizeof m_loop);
    m_loop.lmq = &m_lmq;
    m_loop.on_msg = &LoopTask::on_msg;
    m_loop.on_sysmsg = &LoopTask::on_sysmsg;
    m_loop.on_timeout = &LoopTask::on_timeout;
    m_loop.stop = &m_stop;
    m_loop.user = this;
  }
  ~LoopTask() {
    if (m_thread.joinable()) stop_and_join();
    loreg_lmq_shutdown(&m_lmq, nullptr);
  }

  void start() {
    m_thread = std::thread([this] {
      m_loop_thread_id = std::this_thread::get_id();
      m_result = loreg_msgloop(&m_loop, m_buffer.data());
    });
  }

  // Sets the stop flag from this thread and wakes the loop with a message
  // to itself, as a task's shutdown does.
  void stop_and_join() {
    __atomic_store_n(&m_stop, 1, __ATOMIC_RELEASE);
    loreg_msg wake = make_msg(LOREG_MSG_IDLE);
    EXPECT_EQ(loreg_send_self_notification(m_lmq.client, &wake), 0);
    m_thread.join();
  }

  void set_stop() { __atomic_store_n(&m_stop, 1, __ATOMIC_RELEASE); }

  // Waits (real time, bounded) until pred holds under the record mutex.
  template <class Pred>
  bool wait_for(Pred pred, int ms = 5000) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::milliseconds(ms), [&] { return pred(); });
  }

  loreg_lmq_ctx m_lmq{};
  loreg_loop m_loop;
  int32_t m_stop = 0;
  int m_result = -1;
  std::thread m_thread;
  std::thread::id m_loop_thread_id;

  // Recorded under m_mutex.
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<uint16_t> m_types;
  std::vector<uint32_t> m_sysmsgs;
  std::vector<_cspOsalTime_struct> m_timeout_entries;
  bool m_handlers_on_loop_thread = true;

 private:
  void note_thread() {
    if (std::this_thread::get_id() != m_loop_thread_id) m_handlers_on_loop_thread = false;
  }

  static int on_msg(void *user, loreg_msg *msg, const lmq_rx_info *info,
                    _cspOsalTime_struct *next) {
    auto *self = static_cast<LoopTask *>(user);
    if (msg->header.reserved1 == kSetNext) {
      next->sec = static_cast<int32_t>(msg->header.arg0);
      next->usec = static_cast<int32_t>(msg->header.arg1);
    }
    if (info->reply.kind == LMQ_KIND_COMMAND) {
      msg->header.msgtype = LOREG_MSG_REPLY_TYPE(msg->header.msgtype);
      EXPECT_EQ(loreg_send_reply(self->m_lmq.client, msg, &info->reply), 0);
    }
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->note_thread();
    self->m_types.push_back(msg->header.msgtype);
    self->m_cond.notify_all();
    return 0;
  }

  static void on_sysmsg(void *user, uint32_t type, uint32_t, _cspOsalTime_struct *) {
    auto *self = static_cast<LoopTask *>(user);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->note_thread();
    self->m_sysmsgs.push_back(type);
    self->m_cond.notify_all();
  }

  static void on_timeout(void *user, _cspOsalTime_struct *next) {
    auto *self = static_cast<LoopTask *>(user);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->note_thread();
    self->m_timeout_entries.push_back(*next);
    self->m_cond.notify_all();
  }

  std::vector<uint8_t> m_buffer;
};

// One request and its validated reply, from a client on the calling thread.
void round_trip(LmqClient &client, int16_t sid, uint32_t reqid) {
  std::string value = "value-" + std::to_string(reqid);
  std::string path = "/com/norvi/key/" + std::to_string(reqid);
  loreg_msg request = make_msg(LOREG_MSG_VALUE_SET, reqid, value.c_str(), path.c_str());
  ASSERT_EQ(loreg_send_command(client.get(), sid, &request), 0);
  std::vector<uint8_t> buffer(0x2000);
  lmq_rx_info info{};
  ASSERT_GT(client.receive(buffer.data(), 0x1FFF, &info, 10000000), 0);
  loreg_msg reply;
  ASSERT_EQ(loreg_validate_msg(&reply, buffer.data(), 0x2000, &info), 0);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_REPLY);
  EXPECT_EQ(reply.header.msgtype, 0x1002);
  EXPECT_EQ(reply.header.reqid, reqid);
  EXPECT_EQ(reply.data0, value);
  EXPECT_EQ(reply.data1, path);
}

TEST(LoopThread, EchoServerAnswersEveryCommand) {
  LmqServer server;
  LoopTask task(server.get());
  task.start();
  LmqClient client(server.get());
  for (uint32_t i = 1; i <= 200; i++) round_trip(client, task.m_lmq.service_id, i);
  task.stop_and_join();
  EXPECT_EQ(task.m_result, 0);
  std::lock_guard<std::mutex> lock(task.m_mutex);
  // The 200 commands; the wake-up too unless the flag was already seen
  // after the last command (its reply went out before on_msg returned).
  EXPECT_EQ(std::count(task.m_types.begin(), task.m_types.end(), 0x1002), 200);
  EXPECT_LE(task.m_types.size(), 201u);
  EXPECT_TRUE(task.m_handlers_on_loop_thread);
}

TEST(LoopThread, ClientsOnSeveralThreadsAreServed) {
  LmqServer server;
  LoopTask task(server.get());
  task.start();
  std::vector<std::thread> clients;
  for (uint32_t t = 0; t < 3; t++) {
    clients.emplace_back([&, t] {
      LmqClient client(server.get());
      for (uint32_t i = 0; i < 100; i++) round_trip(client, task.m_lmq.service_id, t * 1000 + i);
    });
  }
  for (auto &thread : clients) thread.join();
  task.stop_and_join();
  std::lock_guard<std::mutex> lock(task.m_mutex);
  EXPECT_EQ(std::count(task.m_types.begin(), task.m_types.end(), 0x1002), 300);
}

TEST(LoopThread, StopFromAnotherThreadEndsAnIdleLoop) {
  LmqServer server;
  LoopTask task(server.get());
  task.start();
  // Once the loop has served a message it waits without timeout; only the
  // stop flag with a wake-up message ends it.
  loreg_msg msg = make_msg(LOREG_MSG_ECHO);
  ASSERT_EQ(loreg_send_self_notification(task.m_lmq.client, &msg), 0);
  ASSERT_TRUE(task.wait_for([&] { return task.m_types.size() == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  task.stop_and_join();
  EXPECT_EQ(task.m_result, 0);
  // Normally the wake-up is served before the flag is read; a loop that
  // was slow to return from the first message sees the flag at once.
  std::lock_guard<std::mutex> lock(task.m_mutex);
  ASSERT_GE(task.m_types.size(), 1u);
  ASSERT_LE(task.m_types.size(), 2u);
  if (task.m_types.size() == 2) {
    EXPECT_EQ(task.m_types[1], LOREG_MSG_IDLE);
  }
}

// One attempt: the loop serves a first message and goes back to its wait;
// then the stop flag rises and the message that wakes the loop is one that
// it drops. Returns true if the loop took the dropped message and then
// ended, leaving the good message behind it queued; false if it had seen
// the flag already right after the first message (a slow loop thread).
bool stop_after_dropped_message() {
  LmqServer server;
  LoopTask task(server.get());
  LmqClient client(server.get());
  task.start();
  round_trip(client, task.m_lmq.service_id, 1);
  EXPECT_TRUE(task.wait_for([&] { return task.m_types.size() == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(2));

  LogCapture log;
  task.set_stop();
  RawMessage bad;
  bad.lmq.type = 0x11111111;
  EXPECT_EQ(bad.send_command(client.get(), task.m_lmq.service_id), 0);
  loreg_msg good = make_msg(LOREG_MSG_ECHO, 2);
  EXPECT_EQ(loreg_send_command(client.get(), task.m_lmq.service_id, &good), 0);
  task.m_thread.join();
  EXPECT_EQ(task.m_result, 0);
  {
    std::lock_guard<std::mutex> lock(task.m_mutex);
    EXPECT_EQ(task.m_types.size(), 1u);
  }
  std::vector<uint8_t> buffer(0x2000);
  lmq_iovec vector{buffer.data(), 0x1FFF};
  lmq_rx_info info{};
  _cspOsalTime_struct timeout{0, 1000};
  int first_left = lmqCXReceive(task.m_lmq.client, &vector, 1, &info, &timeout);
  if (first_left != 62) return false;
  EXPECT_TRUE(log.has_line("loreg_msgloop(): invalid message - ignored. (lmq code -205)\n"))
      << log.dump();
  return true;
}

TEST(LoopThread, StopIsReadAfterADroppedMessage) {
  bool seen = false;
  for (int attempt = 0; attempt < 5 && !seen; attempt++) seen = stop_after_dropped_message();
  EXPECT_TRUE(seen);
}

TEST(LoopThread, TimeoutRunsOutWhenTheUptimeClockMoves) {
  LmqServer server;
  LoopTask task(server.get());
  task.start();
  // The handler asks for at most 60 s of waiting.
  loreg_msg msg = make_msg(LOREG_MSG_ECHO, 1);
  msg.header.reserved1 = kSetNext;
  msg.header.arg0 = 60;
  ASSERT_EQ(loreg_send_self_notification(task.m_lmq.client, &msg), 0);
  ASSERT_TRUE(task.wait_for([&] { return task.m_types.size() == 1; }));
  {
    std::lock_guard<std::mutex> lock(task.m_mutex);
    EXPECT_TRUE(task.m_timeout_entries.empty());
  }
  // The clock jumps by a minute; the loop may not have entered its wait
  // yet at the first jump, so it jumps until the timeout is seen.
  const _cspOsalTime_struct minute{60, 0};
  bool seen = false;
  for (int i = 0; i < 500 && !seen; i++) {
    cspOsalTestAdvanceUptime(&minute);
    seen = task.wait_for([&] { return !task.m_timeout_entries.empty(); }, 10);
  }
  ASSERT_TRUE(seen);
  task.stop_and_join();
  std::lock_guard<std::mutex> lock(task.m_mutex);
  // on_timeout left next at "no timeout": one call only.
  ASSERT_EQ(task.m_timeout_entries.size(), 1u);
  EXPECT_TRUE(is_neg_infinity(task.m_timeout_entries[0]));
  EXPECT_TRUE(task.m_handlers_on_loop_thread);
}

TEST(LoopThread, FirstWaitHasNoTimeout) {
  LmqServer server;
  LoopTask task(server.get());
  task.m_loop.next = {0, 1};  // would run out at once if used
  task.start();
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  loreg_msg msg = make_msg(LOREG_MSG_ECHO);
  ASSERT_EQ(loreg_send_self_notification(task.m_lmq.client, &msg), 0);
  ASSERT_TRUE(task.wait_for([&] { return task.m_types.size() == 1; }));
  task.stop_and_join();
  std::lock_guard<std::mutex> lock(task.m_mutex);
  EXPECT_TRUE(task.m_timeout_entries.empty());
}

TEST(LoopThread, SystemMessageOfOurServiceReachesTheLoopThread) {
  LmqServer server;
  LoopTask task(server.get());
  task.start();
  LmqClient subscriber(server.get());
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), task.m_lmq.service_id, 0), 0);
  ASSERT_TRUE(task.wait_for([&] { return task.m_sysmsgs.size() == 1; }));
  task.stop_and_join();
  std::lock_guard<std::mutex> lock(task.m_mutex);
  EXPECT_EQ(task.m_sysmsgs[0], LMQ_SYSMSG_SUBSCRIBER_PRESENT);
  EXPECT_TRUE(task.m_handlers_on_loop_thread);
}

}  // namespace
