#include "support/wire_client.h"

#include <chrono>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

namespace testsupport {

namespace {

constexpr uint32_t kBufferSize = 0x2000;

void on_sysmsg(void *context, uint32_t type, uint32_t subtype, int16_t service_id) {
  auto *message = static_cast<WireMessage *>(context);
  message->sys_type = type;
  message->sys_subtype = subtype;
  message->sys_service = service_id;
}

loreg_msg make_msg(uint16_t type, uint32_t reqid, uint32_t arg0, uint32_t arg1, int32_t tid,
                   const std::string &data0, const std::string &data1) {
  loreg_msg msg{};
  msg.header.msgtype = type;
  msg.header.reqid = reqid;
  msg.header.arg0 = arg0;
  msg.header.arg1 = arg1;
  msg.header.tid = tid;
  msg.header.len0 = static_cast<uint16_t>(data0.size());
  msg.header.len1 = static_cast<uint16_t>(data1.size());
  msg.data0 = const_cast<char *>(data0.data());
  msg.data1 = const_cast<char *>(data1.data());
  return msg;
}

}  // namespace

WireClient::WireClient(lmq_server *server, bool subscribe, uint32_t queue_bytes)
    : m_server(server), m_queue(queue_bytes) {
  EXPECT_EQ(lmqClientInit(&m_client, m_queue.data(), queue_bytes), 0);
  EXPECT_EQ(lmqServerAddClient(server, &m_client), 0);
  EXPECT_EQ(lmqRegisterPlainId(server, "LOREG", 6, &m_service_id), 0);
  if (subscribe) {
    EXPECT_EQ(lmqSubscribeService(&m_client, m_service_id, 0), 0);
    m_subscribed = true;
  }
}

WireClient::~WireClient() {
  if (m_subscribed) lmqUnSubscribeService(&m_client, m_service_id);
  lmqUnRegisterPlainId(m_server, m_service_id);
  lmqServerRemoveClient(m_server, &m_client);
  lmqClientRelease(&m_client);
}

lmq_address WireClient::address() const {
  lmq_address address{};
  lmqClientAddress(&m_client, &address);
  return address;
}

int WireClient::send(uint16_t type, uint32_t reqid, uint32_t arg0, uint32_t arg1, int32_t tid,
                     const std::string &data0, const std::string &data1) {
  loreg_msg msg = make_msg(type, reqid, arg0, arg1, tid, data0, data1);
  return loreg_send_command(&m_client, m_service_id, &msg);
}

int WireClient::send_to(const lmq_address &address, uint16_t type, uint32_t reqid, uint32_t arg0,
                        uint32_t arg1, int32_t tid, const std::string &data0,
                        const std::string &data1) {
  loreg_msg msg = make_msg(type, reqid, arg0, arg1, tid, data0, data1);
  return loreg_send_reply(&m_client, &msg, &address);
}

int WireClient::send_msg(const loreg_msg &msg) {
  return loreg_send_command(&m_client, m_service_id, &msg);
}

bool WireClient::receive_one(const _cspOsalTime_struct *timeout) {
  unsigned char buffer[kBufferSize];
  lmq_iovec vector{buffer, kBufferSize - 1};
  WireMessage message;
  int rc = lmqCXReceive(&m_client, &vector, 1, &message.info, timeout);
  if (rc < 0) return false;
  if (message.info.reply.kind == LMQ_KIND_SYSTEM) {
    message.system = true;
    lmq_sysmsg_pair pair{&message, on_sysmsg};
    EXPECT_EQ(lmqCXHandleSystemMessage(m_server, &m_client, &pair, &message.info, &vector, 1), 0);
  } else {
    loreg_msg msg{};
    message.validate_result = loreg_validate_msg(&msg, buffer, kBufferSize, &message.info);
    if (message.validate_result == 0) {
      message.header = msg.header;
      message.data0.assign(msg.data0, msg.header.len0);
      message.data1.assign(msg.data1, msg.header.len1);
    }
  }
  m_messages.push_back(std::move(message));
  return true;
}

size_t WireClient::poll() {
  size_t n = 0;
  const _cspOsalTime_struct now = {0, 1};
  while (receive_one(&now)) n++;
  return n;
}

bool WireClient::receive(int timeout_ms) {
  const _cspOsalTime_struct timeout = {timeout_ms / 1000, (timeout_ms % 1000) * 1000};
  return receive_one(&timeout);
}

std::optional<WireMessage> WireClient::take_reply(uint32_t reqid) {
  for (auto it = m_messages.begin(); it != m_messages.end(); ++it) {
    if (!it->system && (it->header.msgtype & LOREG_MSG_CLASS_MASK) == LOREG_MSG_REPLY_BIT &&
        it->header.reqid == reqid) {
      WireMessage found = *it;
      m_messages.erase(it);
      return found;
    }
  }
  return std::nullopt;
}

std::optional<WireMessage> WireClient::wait_reply(uint32_t reqid, int timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (auto found = take_reply(reqid)) return found;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    receive(static_cast<int>(left.count()));
  }
}

bool WireClient::wait_notifications(size_t n, int timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (notifications().size() >= n) return true;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    receive(static_cast<int>(left.count()));
  }
}

std::vector<WireMessage> WireClient::messages() const {
  return std::vector<WireMessage>(m_messages.begin(), m_messages.end());
}

std::vector<WireMessage> WireClient::notifications() const {
  std::vector<WireMessage> out;
  for (const auto &m : m_messages) {
    if (!m.system && m.header.msgtype == LOREG_MSG_KEY_UPDATE) out.push_back(m);
  }
  return out;
}

std::vector<WireMessage> WireClient::system_messages() const {
  std::vector<WireMessage> out;
  for (const auto &m : m_messages) {
    if (m.system) out.push_back(m);
  }
  return out;
}

size_t WireClient::replies_kept() const {
  size_t n = 0;
  for (const auto &m : m_messages) {
    if (!m.system && (m.header.msgtype & LOREG_MSG_CLASS_MASK) == LOREG_MSG_REPLY_BIT) n++;
  }
  return n;
}

void WireClient::clear() { m_messages.clear(); }

std::string describe(const WireMessage &m) {
  std::ostringstream out;
  if (m.system) {
    out << "system type=0x" << std::hex << m.sys_type << " subtype=" << m.sys_subtype
        << std::dec << " service=" << m.sys_service;
    return out.str();
  }
  out << "type=0x" << std::hex << m.header.msgtype << std::dec << " reqid=" << m.header.reqid
      << " arg0=0x" << std::hex << m.header.arg0 << " arg1=0x" << m.header.arg1 << std::dec
      << " tid=" << m.header.tid << " result=" << m.header.result << " data0='" << m.data0
      << "' data1='" << m.data1 << "'";
  return out.str();
}

}  // namespace testsupport
