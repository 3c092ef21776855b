// The registry's receive loop, run on the test's thread: which handler
// gets what, how next chooses the wait, what is dropped with which line,
// and that the stop flag is read after every message.
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "loreg/loreg_lmq.h"
#include "loreg/loreg_msg.h"
#include "loreg/loreg_msgloop.h"
#include "platform/csp_debug.h"
#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/lmq_wire.h"
#include "support/log_capture.h"

namespace {

using testsupport::LmqClient;
using testsupport::LmqServer;
using testsupport::LogCapture;
using testsupport::RawMessage;

// Markers a test message carries for the recording handler.
constexpr uint32_t kStopAfter = 0x1;   // reqid bit: set the stop flag
constexpr uint32_t kSetNext = 0x1;     // reserved1: next = {arg0, arg1}

struct Event {
  std::string kind;  // "msg", "sys", "timeout"
  uint32_t type = 0;
  uint32_t subtype = 0;
  std::string data0;
  std::string data1;
  _cspOsalTime_struct next_at_entry{};
  int16_t service_id = 0;
  uint8_t address_kind = 0;
};

// The owner's side of the loop: records every call; a message may set the
// stop flag and the next timeout; replies (bit 0x1000) are refused.
struct Recorder {
  std::vector<Event> events;
  int32_t stop = 0;
  int stop_after_timeouts = 1;  // on_timeout sets stop on this call
  _cspOsalTime_struct next_after_timeout = CSP_OSAL_TIME_NEG_INFINITY;
  std::atomic<int> timeouts{0};

  size_t count(const std::string &kind) const {
    size_t n = 0;
    for (const Event &e : events) n += e.kind == kind;
    return n;
  }

  static int on_msg(void *user, loreg_msg *msg, const lmq_rx_info *info,
                    _cspOsalTime_struct *next) {
    auto *self = static_cast<Recorder *>(user);
    Event e;
    e.kind = "msg";
    e.type = msg->header.msgtype;
    e.data0 = msg->data0;
    e.data1 = msg->data1;
    e.next_at_entry = *next;
    e.service_id = info->reply.service_id;
    e.address_kind = info->reply.kind;
    self->events.push_back(e);
    if (msg->header.reserved1 == kSetNext) {
      next->sec = static_cast<int32_t>(msg->header.arg0);
      next->usec = static_cast<int32_t>(msg->header.arg1);
    }
    if ((msg->header.reqid & kStopAfter) != 0 || msg->header.msgtype == LOREG_MSG_STOP) {
      __atomic_store_n(&self->stop, 1, __ATOMIC_RELEASE);
    }
    return (msg->header.msgtype & LOREG_MSG_CLASS_MASK) == LOREG_MSG_REPLY_BIT ? -201 : 0;
  }

  static void on_sysmsg(void *user, uint32_t type, uint32_t subtype, _cspOsalTime_struct *next) {
    auto *self = static_cast<Recorder *>(user);
    Event e;
    e.kind = "sys";
    e.type = type;
    e.subtype = subtype;
    e.next_at_entry = *next;
    self->events.push_back(e);
  }

  static void on_timeout(void *user, _cspOsalTime_struct *next) {
    auto *self = static_cast<Recorder *>(user);
    Event e;
    e.kind = "timeout";
    e.next_at_entry = *next;
    self->events.push_back(e);
    int n = self->timeouts.fetch_add(1) + 1;
    *next = self->next_after_timeout;
    if (n >= self->stop_after_timeouts) __atomic_store_n(&self->stop, 1, __ATOMIC_RELEASE);
  }
};

bool is_neg_infinity(const _cspOsalTime_struct &t) {
  return t.sec == CSP_OSAL_TIME_NEG_INFINITY.sec && t.usec == CSP_OSAL_TIME_NEG_INFINITY.usec;
}

loreg_msg make_msg(uint16_t type, const char *data0 = nullptr, const char *data1 = nullptr) {
  loreg_msg msg;
  std::memset(&msg, 0, sizeof msg);
  msg.header.msgtype = type;
  msg.header.len0 = static_cast<uint16_t>(data0 != nullptr ? std::strlen(data0) : 0);
  msg.header.len1 = static_cast<uint16_t>(data1 != nullptr ? std::strlen(data1) : 0);
  msg.data0 = const_cast<char *>(data0);
  msg.data1 = const_cast<char *>(data1);
  return msg;
}

loreg_msg with_next(loreg_msg msg, int32_t sec, int32_t usec) {
  msg.header.reserved1 = kSetNext;
  msg.header.arg0 = static_cast<uint32_t>(sec);
  msg.header.arg1 = static_cast<uint32_t>(usec);
  return msg;
}

loreg_msg stopping(loreg_msg msg) {
  msg.header.reqid |= kStopAfter;
  return msg;
}

// While it lives, registry log lines are collected, and the stop flag is
// set as soon as a line contains the fragment: it ends a loop right after
// a message that no handler sees.
class StopOnLine {
 public:
  StopOnLine(int32_t *stop, std::string fragment) : m_stop(stop), m_fragment(std::move(fragment)) {
    m_saved = cspDebugSetThreshold(0x6B, 0xFFFFFFFFu);
    cspDebugSetSink(&StopOnLine::sink, this);
  }
  ~StopOnLine() {
    cspDebugSetSink(nullptr, nullptr);
    cspDebugSetThreshold(0x6B, static_cast<uint32_t>(m_saved));
  }
  bool has_line(const std::string &text) const {
    for (const std::string &line : m_lines) {
      if (line == text) return true;
    }
    return false;
  }
  size_t count(const std::string &text) const {
    size_t n = 0;
    for (const std::string &line : m_lines) n += line == text;
    return n;
  }
  std::string dump() const {
    std::string out;
    for (const std::string &line : m_lines) out += line;
    return out;
  }

 private:
  static void sink(void *context, uint32_t, uint32_t, uint32_t, const char *text) {
    auto *self = static_cast<StopOnLine *>(context);
    self->m_lines.emplace_back(text);
    if (self->m_lines.back().find(self->m_fragment) != std::string::npos) {
      __atomic_store_n(self->m_stop, 1, __ATOMIC_RELEASE);
    }
  }
  int32_t *m_stop;
  std::string m_fragment;
  std::vector<std::string> m_lines;
  int m_saved = 0;
};

class LoopTest : public ::testing::Test {
 protected:
  LoopTest() : m_peer(m_server.get()), m_buffer(LOREG_MSGLOOP_BUFFER_SIZE) {
    EXPECT_EQ(loreg_lmq_init(&m_lmq, nullptr, m_server.get(), nullptr, 0, 1), 0);
    std::memset(&m_loop, 0, sizeof m_loop);
    m_loop.lmq = &m_lmq;
    m_loop.on_msg = &Recorder::on_msg;
    m_loop.on_sysmsg = &Recorder::on_sysmsg;
    m_loop.on_timeout = &Recorder::on_timeout;
    m_loop.stop = &m_rec.stop;
    m_loop.user = &m_rec;
  }
  ~LoopTest() override { loreg_lmq_shutdown(&m_lmq, nullptr); }

  void send(const loreg_msg &msg) {
    ASSERT_EQ(loreg_send_command(m_peer.get(), m_lmq.service_id, &msg), 0);
  }
  int run() { return loreg_msgloop(&m_loop, m_buffer.data()); }

  // Receives what the loop left in its queue.
  int leftover(loreg_msg *msg) {
    std::vector<uint8_t> buffer(0x2000);
    lmq_rx_info info{};
    lmq_iovec vector{buffer.data(), 0x1FFF};
    _cspOsalTime_struct timeout{0, 1000};
    int rc = lmqCXReceive(m_lmq.client, &vector, 1, &info, &timeout);
    if (rc > 0 && msg != nullptr) {
      EXPECT_EQ(loreg_validate_msg(msg, buffer.data(), 0x2000, &info), 0);
    }
    return rc;
  }

  LmqServer m_server;
  loreg_lmq_ctx m_lmq{};
  LmqClient m_peer;
  Recorder m_rec;
  loreg_loop m_loop;
  std::vector<uint8_t> m_buffer;
};

// --- Arguments and start -------------------------------------------------

TEST_F(LoopTest, NullArgumentsAreRefused) {
  EXPECT_EQ(loreg_msgloop(nullptr, m_buffer.data()), -22);
  EXPECT_EQ(loreg_msgloop(&m_loop, nullptr), -22);
  loreg_loop loop = m_loop;
  loop.on_msg = nullptr;
  EXPECT_EQ(loreg_msgloop(&loop, m_buffer.data()), -22);
  loop = m_loop;
  loop.stop = nullptr;
  EXPECT_EQ(loreg_msgloop(&loop, m_buffer.data()), -22);
  loop = m_loop;
  loop.lmq = nullptr;
  EXPECT_EQ(loreg_msgloop(&loop, m_buffer.data()), -22);
}

TEST_F(LoopTest, StopSetOnEntryReceivesNothing) {
  send(make_msg(LOREG_MSG_ECHO));
  m_rec.stop = 1;
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(m_rec.events.empty());
  EXPECT_EQ(leftover(nullptr), 62);
}

// --- Messages --------------------------------------------------------------

TEST_F(LoopTest, MessagesReachOnMsgInOrderAndStopEndsTheLoop) {
  send(make_msg(LOREG_MSG_VALUE_QUERY, nullptr, "/com/norvi/a"));
  send(make_msg(LOREG_MSG_VALUE_SET, "42", "/com/norvi/b"));
  send(make_msg(LOREG_MSG_STOP));
  send(make_msg(LOREG_MSG_ECHO));
  EXPECT_EQ(run(), 0);

  ASSERT_EQ(m_rec.events.size(), 3u);
  EXPECT_EQ(m_rec.events[0].type, LOREG_MSG_VALUE_QUERY);
  EXPECT_EQ(m_rec.events[0].data0, "");
  EXPECT_EQ(m_rec.events[0].data1, "/com/norvi/a");
  EXPECT_EQ(m_rec.events[0].service_id, m_lmq.service_id);
  EXPECT_EQ(m_rec.events[0].address_kind, LMQ_KIND_COMMAND);
  EXPECT_EQ(m_rec.events[1].type, LOREG_MSG_VALUE_SET);
  EXPECT_EQ(m_rec.events[1].data0, "42");
  EXPECT_EQ(m_rec.events[1].data1, "/com/norvi/b");
  EXPECT_EQ(m_rec.events[2].type, LOREG_MSG_STOP);
  // The message after the stop stays queued.
  loreg_msg left;
  EXPECT_EQ(leftover(&left), 62);
  EXPECT_EQ(left.header.msgtype, LOREG_MSG_ECHO);
}

TEST_F(LoopTest, NextIsResetBeforeEachMessage) {
  m_loop.next = {7, 7};
  send(with_next(make_msg(LOREG_MSG_ECHO), 100, 0));
  send(stopping(make_msg(LOREG_MSG_ECHO)));
  EXPECT_EQ(run(), 0);
  ASSERT_EQ(m_rec.events.size(), 2u);
  EXPECT_TRUE(is_neg_infinity(m_rec.events[0].next_at_entry));
  EXPECT_TRUE(is_neg_infinity(m_rec.events[1].next_at_entry));
}

TEST_F(LoopTest, RefusedMessageIsReportedAsUnexpectedMsgtype) {
  LogCapture log;
  send(make_msg(0x1002));
  send(stopping(make_msg(LOREG_MSG_ECHO)));
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(log.has_line("loreg_msgloop(): unexpected msgtype (0x1002) - message ignored\n"))
      << log.dump();
  EXPECT_EQ(log.count("unexpected msgtype"), 1u);
  ASSERT_EQ(m_rec.events.size(), 2u);
  EXPECT_EQ(m_rec.events[0].type, 0x1002u);
  EXPECT_EQ(m_rec.events[1].type, LOREG_MSG_ECHO);
}

TEST_F(LoopTest, SelfNotificationWithoutServiceIsServed) {
  loreg_msg msg = stopping(make_msg(LOREG_MSG_IDLE));
  ASSERT_EQ(loreg_send_self_notification(m_lmq.client, &msg), 0);
  EXPECT_EQ(run(), 0);
  ASSERT_EQ(m_rec.events.size(), 1u);
  EXPECT_EQ(m_rec.events[0].type, LOREG_MSG_IDLE);
  EXPECT_EQ(m_rec.events[0].service_id, -1);
  EXPECT_EQ(m_rec.events[0].address_kind, LMQ_KIND_SELF);
}

TEST_F(LoopTest, MessageOfAnotherServiceIsIgnored) {
  int16_t other = 0;
  ASSERT_EQ(lmqRegisterPlainId(m_server.get(), "OTHER", 6, &other), 0);
  ASSERT_EQ(lmqHostService(m_lmq.client, other, 0), 0);
  LogCapture log;
  loreg_msg foreign = make_msg(LOREG_MSG_VALUE_QUERY, nullptr, "/x");
  ASSERT_EQ(loreg_send_command(m_peer.get(), other, &foreign), 0);
  send(stopping(make_msg(LOREG_MSG_ECHO)));
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(log.has_line("loreg_msgloop(): wrong service id - message ignored\n")) << log.dump();
  ASSERT_EQ(m_rec.events.size(), 1u);
  EXPECT_EQ(m_rec.events[0].type, LOREG_MSG_ECHO);
  EXPECT_FALSE(log.contains("invalid message")) << log.dump();
}

// --- Bad input ---------------------------------------------------------------

TEST_F(LoopTest, BadInputIsDroppedWithItsLineAndTheNextMessageServed) {
  RawMessage wrong_protocol;
  wrong_protocol.lmq.protocol = 0x81;
  RawMessage wrong_type;
  wrong_type.lmq.type = 0x12345678;
  RawMessage wrong_subtype;
  wrong_subtype.lmq.subtype = 0x53554230;
  RawMessage wrong_lengths;
  wrong_lengths.set_lengths = false;
  wrong_lengths.header.len0 = 10;
  wrong_lengths.header.len1 = 10;
  wrong_lengths.data1 = "/short";
  wrong_lengths.lmq.size = wrong_lengths.lmq.size2 = 62 + 6;
  RawMessage short_header;
  short_header.truncate = true;
  short_header.truncate_at = 50;

  LogCapture log;
  for (const RawMessage *raw :
       {&wrong_protocol, &wrong_type, &wrong_subtype, &wrong_lengths, &short_header}) {
    ASSERT_EQ(raw->send_command(m_peer.get(), m_lmq.service_id), 0);
  }
  send(stopping(make_msg(LOREG_MSG_VALUE_QUERY, nullptr, "/good")));
  EXPECT_EQ(run(), 0);

  ASSERT_EQ(m_rec.events.size(), 1u);
  EXPECT_EQ(m_rec.events[0].data1, "/good");
  const std::vector<std::string> expected = {
      "loreg_validate_msg(): wrong lmq header protocol (1)\n",
      "loreg_msgloop(): invalid message - ignored. (lmq code -205)\n",
      "loreg_validate_msg(): wrong lmq header msg type (0x12345678)\n",
      "loreg_msgloop(): invalid message - ignored. (lmq code -205)\n",
      "loreg_validate_msg(): wrong lmq header msg subtype (0x53554230)\n",
      "loreg_msgloop(): invalid message - ignored. (lmq code -205)\n",
      "loreg_validate_msg(): inconsistent lengths in loreg header (data0=10, data1=10, size "
      "left=6)\n",
      "loreg_msgloop(): invalid message - ignored. (lmq code -223)\n",
      "loreg_validate_msg(): incomplete loreg header + guard\n",
      "loreg_msgloop(): invalid message - ignored. (lmq code -223)\n",
  };
  std::vector<std::string> registry_lines;
  for (const auto &line : log.lines()) {
    if (line.channel == 0x6B) registry_lines.push_back(line.text);
  }
  EXPECT_EQ(registry_lines, expected) << log.dump();
}

TEST_F(LoopTest, BrokenFramingIsDropped) {
  RawMessage raw;
  raw.set_lengths = false;
  raw.lmq.size = 62;
  raw.lmq.size2 = 63;
  LogCapture log;
  ASSERT_EQ(raw.send_command(m_peer.get(), m_lmq.service_id), 0);
  send(stopping(make_msg(LOREG_MSG_ECHO)));
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(log.has_line("loreg_validate_msg(): lmqMessageHeaderValidate() failed. (code -74)\n"))
      << log.dump();
  EXPECT_TRUE(log.has_line("loreg_msgloop(): invalid message - ignored. (lmq code -74)\n"))
      << log.dump();
  EXPECT_EQ(m_rec.events.size(), 1u);
}

TEST_F(LoopTest, LargestMessageFitsTheBuffer) {
  // 8191 bytes: the receive is told 0x1FFF, and the spare byte takes the
  // zero behind data1.
  std::string path(8191 - 62, 'p');
  send(stopping(make_msg(LOREG_MSG_VALUE_QUERY, nullptr, path.c_str())));
  EXPECT_EQ(run(), 0);
  ASSERT_EQ(m_rec.events.size(), 1u);
  EXPECT_EQ(m_rec.events[0].data1, path);
}

// --- The stop flag after dropped messages ------------------------------------

TEST_F(LoopTest, StopIsReadAfterARefusedMessage) {
  send(stopping(make_msg(0x1001)));
  send(make_msg(LOREG_MSG_ECHO));
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(m_rec.events.size(), 1u);
  EXPECT_EQ(leftover(nullptr), 62);
}

TEST_F(LoopTest, StopIsReadAfterAnInvalidMessage) {
  StopOnLine watch(&m_rec.stop, "invalid message - ignored");
  RawMessage raw;
  raw.lmq.subtype = 1;
  ASSERT_EQ(raw.send_command(m_peer.get(), m_lmq.service_id), 0);
  send(make_msg(LOREG_MSG_ECHO));
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(watch.has_line("loreg_msgloop(): invalid message - ignored. (lmq code -205)\n"))
      << watch.dump();
  EXPECT_TRUE(m_rec.events.empty());
  EXPECT_EQ(leftover(nullptr), 62);
}

TEST_F(LoopTest, StopIsReadAfterAMessageOfAnotherService) {
  int16_t other = 0;
  ASSERT_EQ(lmqRegisterPlainId(m_server.get(), "OTHER", 6, &other), 0);
  ASSERT_EQ(lmqHostService(m_lmq.client, other, 0), 0);
  StopOnLine watch(&m_rec.stop, "wrong service id");
  loreg_msg foreign = make_msg(LOREG_MSG_ECHO);
  ASSERT_EQ(loreg_send_command(m_peer.get(), other, &foreign), 0);
  send(make_msg(LOREG_MSG_ECHO));
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(m_rec.events.empty());
  EXPECT_EQ(leftover(nullptr), 62);
}

// --- System messages -----------------------------------------------------------

TEST_F(LoopTest, SystemMessagesReachOnSysmsgOnlyForOurService) {
  int16_t other = 0;
  ASSERT_EQ(lmqRegisterPlainId(m_server.get(), "OTHER", 6, &other), 0);
  ASSERT_EQ(lmqHostService(m_lmq.client, other, 0), 0);
  send(with_next(make_msg(LOREG_MSG_ECHO), 100, 0));
  // A subscriber of the other service, then of ours: one system message
  // each for the loop's client, which hosts both.
  LmqClient subscriber(m_server.get());
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), other, 0), 0);
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), m_lmq.service_id, 0), 0);
  send(stopping(make_msg(LOREG_MSG_ECHO)));
  EXPECT_EQ(run(), 0);

  ASSERT_EQ(m_rec.events.size(), 3u);
  EXPECT_EQ(m_rec.events[0].kind, "msg");
  EXPECT_EQ(m_rec.events[1].kind, "sys");
  EXPECT_EQ(m_rec.events[1].type, LMQ_SYSMSG_SUBSCRIBER_PRESENT);
  EXPECT_EQ(m_rec.events[1].subtype, LMQ_SYSMSG_SUBTYPE_PRESENT);
  EXPECT_TRUE(is_neg_infinity(m_rec.events[1].next_at_entry));
  EXPECT_EQ(m_rec.events[2].kind, "msg");
  EXPECT_EQ(m_rec.timeouts.load(), 0);
}

// --- Timeouts --------------------------------------------------------------------

TEST_F(LoopTest, SubSecondNextRunsOutAndCallsOnTimeout) {
  send(with_next(make_msg(LOREG_MSG_ECHO), 0, 1));
  EXPECT_EQ(run(), 0);
  ASSERT_EQ(m_rec.events.size(), 2u);
  EXPECT_EQ(m_rec.events[1].kind, "timeout");
  EXPECT_TRUE(is_neg_infinity(m_rec.events[1].next_at_entry));
}

TEST_F(LoopTest, TimeoutOfSecondsRunsOutByTheUptimeClock) {
  // Thirty seconds of uptime pass in a few real milliseconds: a helper
  // moves the clock until the loop has seen its timeout. The handler asks
  // for the same wait again once, so two timeouts end the loop.
  m_rec.stop_after_timeouts = 2;
  m_rec.next_after_timeout = {30, 0};
  send(with_next(make_msg(LOREG_MSG_ECHO), 30, 0));
  std::atomic<bool> done{false};
  std::thread clock([&] {
    const _cspOsalTime_struct step{30, 0};
    for (int i = 0; i < 20000 && !done.load(); i++) {
      cspOsalTestAdvanceUptime(&step);
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  EXPECT_EQ(run(), 0);
  done = true;
  clock.join();
  ASSERT_EQ(m_rec.events.size(), 3u);
  EXPECT_EQ(m_rec.events[1].kind, "timeout");
  EXPECT_TRUE(is_neg_infinity(m_rec.events[1].next_at_entry));
  EXPECT_EQ(m_rec.events[2].kind, "timeout");
  EXPECT_TRUE(is_neg_infinity(m_rec.events[2].next_at_entry));
}

TEST_F(LoopTest, DroppedMessageKeepsTheTimeoutOfTheLastHandler) {
  send(with_next(make_msg(LOREG_MSG_ECHO), 0, 1000));
  RawMessage raw;
  raw.lmq.protocol = 0x85;
  ASSERT_EQ(raw.send_command(m_peer.get(), m_lmq.service_id), 0);
  LogCapture log;
  EXPECT_EQ(run(), 0);
  ASSERT_EQ(m_rec.events.size(), 2u);
  EXPECT_EQ(m_rec.events[0].kind, "msg");
  EXPECT_EQ(m_rec.events[1].kind, "timeout");
  EXPECT_TRUE(log.has_line("loreg_msgloop(): invalid message - ignored. (lmq code -205)\n"));
}

// A zero or negative next means "no timeout": however far the clock moves,
// on_timeout is never called, and only the next message ends the wait.
class NoTimeoutTest : public LoopTest,
                      public ::testing::WithParamInterface<std::pair<int32_t, int32_t>> {};

TEST_P(NoTimeoutTest, WaitsForTheNextMessage) {
  send(with_next(make_msg(LOREG_MSG_ECHO), GetParam().first, GetParam().second));
  std::thread peer([&] {
    const _cspOsalTime_struct step{100000, 0};
    for (int i = 0; i < 5; i++) {
      cspOsalTestAdvanceUptime(&step);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    loreg_msg last = stopping(make_msg(LOREG_MSG_ECHO));
    EXPECT_EQ(loreg_send_command(m_peer.get(), m_lmq.service_id, &last), 0);
  });
  EXPECT_EQ(run(), 0);
  peer.join();
  ASSERT_EQ(m_rec.events.size(), 2u);
  EXPECT_EQ(m_rec.events[1].kind, "msg");
  EXPECT_EQ(m_rec.timeouts.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(ZeroOrNegative, NoTimeoutTest,
                         ::testing::Values(std::make_pair(0, 0), std::make_pair(-1, 999999),
                                           std::make_pair(-5, 0)));

// --- Receive failures ------------------------------------------------------------

TEST(LoopReceiveFailure, IsPrintedAndTheLoopGoesOn) {
  // A client record that lmqClientInit never saw: every receive fails. The
  // line itself sets the stop flag here, after the second failure.
  Recorder rec;
  LmqServer server;
  loreg_lmq_ctx lmq{};
  lmq_client bogus;
  std::memset(&bogus, 0, sizeof bogus);
  lmq.server = server.get();
  lmq.client = &bogus;
  loreg_loop loop{};
  loop.lmq = &lmq;
  loop.on_msg = &Recorder::on_msg;
  loop.on_timeout = &Recorder::on_timeout;
  loop.stop = &rec.stop;
  loop.user = &rec;
  std::vector<uint8_t> buffer(LOREG_MSGLOOP_BUFFER_SIZE);

  struct Counter {
    int32_t *stop = nullptr;
    int lines = 0;
    std::vector<std::string> texts;
  } counter;
  counter.stop = &rec.stop;
  int saved = cspDebugSetThreshold(0x6B, 0xFFFFFFFFu);
  cspDebugSetSink(
      [](void *context, uint32_t, uint32_t, uint32_t, const char *text) {
        auto *c = static_cast<Counter *>(context);
        c->texts.emplace_back(text);
        if (++c->lines == 2) __atomic_store_n(c->stop, 1, __ATOMIC_RELEASE);
      },
      &counter);
  int rc = loreg_msgloop(&loop, buffer.data());
  cspDebugSetSink(nullptr, nullptr);
  cspDebugSetThreshold(0x6B, static_cast<uint32_t>(saved));

  EXPECT_EQ(rc, 0);
  ASSERT_EQ(counter.texts.size(), 2u);
  EXPECT_EQ(counter.texts[0], "loreg_msgloop(): lmqCXReceive failed with -22\n");
  EXPECT_EQ(counter.texts[1], "loreg_msgloop(): lmqCXReceive failed with -22\n");
  EXPECT_TRUE(rec.events.empty());
}

}  // namespace
