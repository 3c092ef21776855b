#include "support/server_fixture.h"

#include <gtest/gtest.h>

namespace testsupport {

namespace {

constexpr uint32_t kBufferSize = LORS_MSG_BUFFER_SIZE;

struct SysmsgTarget {
  lors_ctx *server;
};

void deliver_sysmsg(void *context, uint32_t type, uint32_t subtype, int16_t service_id) {
  auto *target = static_cast<SysmsgTarget *>(context);
  if (service_id == lors_get_service_id(target->server))
    lors_dispatch_sysmsg(target->server, type, subtype);
}

}  // namespace

ServerFixture::ServerFixture(ServerOptions options)
    : m_options(options),
      m_file0(m_dir.file("loreg0.dat")),
      m_file1(m_dir.file("loreg1.dat")),
      m_server_queue(256 * 1024) {
  m_fio = options.fio ? *options.fio : g_lors_default_fio;
  m_fio.file0 = m_file0.c_str();
  m_fio.file1 = m_file1.c_str();
  EXPECT_EQ(lmqServerCreate(&m_lmq), 0);
  m_client = std::make_unique<WireClient>(m_lmq, true);
}

ServerFixture::~ServerFixture() {
  stop();
  m_client.reset();
  lmqServerDestroy(m_lmq);
}

int ServerFixture::start() {
  if (m_server != nullptr) return -114;
  lors_params params{};
  params.allocator = m_options.allocator;
  params.lmq_server = m_lmq;
  params.queue_kib = m_options.queue_kib;
  params.root_path = m_options.root_path;
  params.options = m_options.options;
  params.fio = &m_fio;
  params.commit_delay_final = m_options.commit_delay_final;
  params.commit_delay_intermediate = m_options.commit_delay_intermediate;
  if (!m_options.own_thread) {
    m_server_client = lmq_client{};
    EXPECT_EQ(lmqClientInit(&m_server_client, m_server_queue.data(),
                            static_cast<uint32_t>(m_server_queue.size())),
              0);
    EXPECT_EQ(lmqServerAddClient(m_lmq, &m_server_client), 0);
    m_server_client_attached = true;
    params.lmq_client = &m_server_client;
  }
  int rc = lors_init(&m_server, &params);
  if (rc != 0) {
    m_server = nullptr;
    if (m_server_client_attached) {
      lmqServerRemoveClient(m_lmq, &m_server_client);
      lmqClientRelease(&m_server_client);
      m_server_client_attached = false;
    }
    return rc;
  }
  pump();
  return 0;
}

int ServerFixture::stop() {
  int rc = 0;
  if (m_server != nullptr) {
    rc = lors_shutdown(m_server);
    m_server = nullptr;
  }
  if (m_server_client_attached) {
    lmqServerRemoveClient(m_lmq, &m_server_client);
    lmqClientRelease(&m_server_client);
    m_server_client_attached = false;
  }
  return rc;
}

int ServerFixture::restart() {
  int rc = stop();
  if (rc != 0) return rc;
  return start();
}

size_t ServerFixture::pump() {
  if (m_server == nullptr || m_options.own_thread) return 0;
  size_t n = 0;
  const _cspOsalTime_struct poll = {0, 1};
  for (;;) {
    unsigned char buffer[kBufferSize];
    lmq_iovec vector{buffer, kBufferSize - 1};
    lmq_rx_info info{};
    if (lmqCXReceive(&m_server_client, &vector, 1, &info, &poll) < 0) break;
    n++;
    if (info.reply.kind == LMQ_KIND_SYSTEM) {
      SysmsgTarget target{m_server};
      lmq_sysmsg_pair pair{&target, deliver_sysmsg};
      lmqCXHandleSystemMessage(m_lmq, &m_server_client, &pair, &info, &vector, 1);
      continue;
    }
    loreg_msg msg{};
    if (loreg_validate_msg(&msg, buffer, kBufferSize, &info) != 0) continue;
    lors_dispatch_msg(m_server, &msg, &info);
  }
  m_client->poll();
  return n;
}

uint32_t ServerFixture::send(uint16_t type, uint32_t arg0, uint32_t arg1, int32_t tid,
                             const std::string &data0, const std::string &path) {
  uint32_t reqid = ++m_reqid;
  EXPECT_EQ(m_client->send(type, reqid, arg0, arg1, tid, data0, path), 0);
  return reqid;
}

std::optional<WireMessage> ServerFixture::request(uint16_t type, uint32_t arg0, uint32_t arg1,
                                                  int32_t tid, const std::string &data0,
                                                  const std::string &path) {
  uint32_t reqid = send(type, arg0, arg1, tid, data0, path);
  if (m_options.own_thread) return m_client->wait_reply(reqid);
  pump();
  return m_client->take_reply(reqid);
}

std::string ServerFixture::full(const std::string &relative) const {
  std::string root = m_options.root_path ? m_options.root_path : "/com/norvi";
  if (!root.empty() && root.front() != '/') root.insert(root.begin(), '/');
  if (!root.empty() && root.back() == '/') root.pop_back();
  return root + relative;
}

std::optional<WireMessage> ServerFixture::set(const std::string &relative,
                                              const std::string &value, uint32_t flags,
                                              int32_t tid) {
  return request(LOREG_MSG_VALUE_SET, flags, 0, tid, value, full(relative));
}

std::optional<WireMessage> ServerFixture::get(const std::string &relative, int32_t tid) {
  return request(LOREG_MSG_VALUE_QUERY, 0, 0, tid, "", full(relative));
}

void ServerFixture::advance_ms(uint64_t ms) {
  _cspOsalTime_struct delta = {static_cast<int64_t>(ms / 1000),
                               static_cast<int32_t>((ms % 1000) * 1000)};
  cspOsalTestAdvanceUptime(&delta);
  if (m_server != nullptr && !m_options.own_thread) {
    _cspOsalTime_struct next = CSP_OSAL_TIME_NEG_INFINITY;
    lors_task_dispatch_timeout(m_server, &next);
    pump();
  }
}

}  // namespace testsupport
