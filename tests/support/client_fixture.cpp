#include "support/client_fixture.h"

#include <chrono>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "loreg/loreg_msgloop.h"

namespace testsupport {

namespace {

constexpr uint32_t kBufferSize = LOREG_MSGLOOP_BUFFER_SIZE;
constexpr int kSyncTimeoutMs = 5000;

// A poll of an lmq queue: takes what is there, never waits.
const _cspOsalTime_struct kPoll = {0, 1};

void deliver_server_sysmsg(void *context, uint32_t type, uint32_t subtype, int16_t service_id) {
  auto *server = static_cast<lors_ctx *>(context);
  if (service_id == lors_get_service_id(server)) lors_dispatch_sysmsg(server, type, subtype);
}

void deliver_client_sysmsg(void *context, uint32_t type, uint32_t subtype, int16_t service_id) {
  auto *client = static_cast<lorc_client *>(context);
  if (service_id == lorc_get_service_id(client)) lorc_dispatch_sysmsg(client, type, subtype);
}

}  // namespace

struct ClientFixture::Server {
  ServerSetup setup;
  TempDir dir;
  std::string file0;
  std::string file1;
  std::string root;  // normalised, as the server uses it
  lors_fio fio{};
  lors_ctx *ctx = nullptr;
  // Without a thread of its own: the server's lmq client.
  lmq_client lmq{};
  std::vector<unsigned char> queue;
  bool attached = false;
};

struct ClientFixture::Client {
  ClientSetup setup;
  lorc_client *ctx = nullptr;
  // External mode: the lmq client handed to lorc_init.
  lmq_client lmq{};
  std::vector<unsigned char> queue;
  bool attached = false;
  std::vector<unsigned char> buffer = std::vector<unsigned char>(kBufferSize);
};

ClientFixture::ClientFixture() {
  EXPECT_EQ(lmqServerCreate(&m_lmq), 0);
  m_wire = std::make_unique<WireClient>(m_lmq, false);
}

ClientFixture::~ClientFixture() {
  for (size_t i = 0; i < m_clients.size(); i++) stop_client(i);
  for (size_t i = 0; i < m_servers.size(); i++) stop_server(i);
  m_clients.clear();
  m_servers.clear();
  m_wire.reset();
  lmqServerDestroy(m_lmq);
}

// --- Servers ------------------------------------------------------------

int ClientFixture::add_server(const ServerSetup &setup) {
  auto s = std::make_unique<Server>();
  s->setup = setup;
  s->file0 = s->dir.file("loreg0.dat");
  s->file1 = s->dir.file("loreg1.dat");
  s->fio = g_lors_default_fio;
  s->fio.file0 = s->file0.c_str();
  s->fio.file1 = s->file1.c_str();

  std::string root = setup.root_path != nullptr ? setup.root_path : LORS_DEFAULT_ROOT_PATH;
  if (!root.empty() && root.front() != '/') root.insert(root.begin(), '/');
  if (!root.empty() && root.back() == '/') root.pop_back();
  s->root = root;

  lors_params params{};
  params.allocator = setup.allocator;
  params.lmq_server = m_lmq;
  params.queue_kib = setup.queue_kib;
  params.root_path = setup.root_path;
  params.options = setup.options;
  params.fio = &s->fio;
  params.commit_delay_final = setup.commit_delay_final;
  params.commit_delay_intermediate = setup.commit_delay_intermediate;
  if (!setup.own_thread) {
    s->queue.resize(256 * 1024);
    if (lmqClientInit(&s->lmq, s->queue.data(), static_cast<uint32_t>(s->queue.size())) != 0 ||
        lmqServerAddClient(m_lmq, &s->lmq) != 0) {
      ADD_FAILURE() << "lmq client of a fed server";
      return -14;
    }
    s->attached = true;
    params.lmq_client = &s->lmq;
  }
  int rc = lors_init(&s->ctx, &params);
  if (rc != 0) {
    s->ctx = nullptr;
    if (s->attached) {
      lmqServerRemoveClient(m_lmq, &s->lmq);
      lmqClientRelease(&s->lmq);
    }
    return rc;
  }
  m_servers.push_back(std::move(s));
  size_t index = m_servers.size() - 1;
  pump_server(index);
  return static_cast<int>(index);
}

lors_ctx *ClientFixture::server(size_t index) {
  return index < m_servers.size() ? m_servers[index]->ctx : nullptr;
}

const std::string &ClientFixture::server_file0(size_t index) const {
  return m_servers.at(index)->file0;
}

const std::string &ClientFixture::server_file1(size_t index) const {
  return m_servers.at(index)->file1;
}

std::string ClientFixture::server_path(size_t index, const std::string &relative) const {
  return m_servers.at(index)->root + relative;
}

int ClientFixture::stop_server(size_t index) {
  Server &s = *m_servers.at(index);
  int rc = 0;
  if (s.ctx != nullptr) {
    rc = lors_shutdown(s.ctx);
    s.ctx = nullptr;
  }
  if (s.attached) {
    lmqServerRemoveClient(m_lmq, &s.lmq);
    lmqClientRelease(&s.lmq);
    s.attached = false;
  }
  return rc;
}

size_t ClientFixture::pump_server(size_t index) {
  Server &s = *m_servers.at(index);
  if (s.ctx == nullptr || s.setup.own_thread) return 0;
  size_t n = 0;
  std::vector<unsigned char> buffer(kBufferSize);
  for (;;) {
    lmq_iovec vector{buffer.data(), kBufferSize - 1};
    lmq_rx_info info{};
    if (lmqCXReceive(&s.lmq, &vector, 1, &info, &kPoll) < 0) break;
    n++;
    if (info.reply.kind == LMQ_KIND_SYSTEM) {
      lmq_sysmsg_pair pair{s.ctx, deliver_server_sysmsg};
      lmqCXHandleSystemMessage(m_lmq, &s.lmq, &pair, &info, &vector, 1);
      continue;
    }
    loreg_msg msg{};
    if (loreg_validate_msg(&msg, buffer.data(), kBufferSize, &info) != 0) continue;
    lors_dispatch_msg(s.ctx, &msg, &info);
  }
  return n;
}

int ClientFixture::running_servers() const {
  int n = 0;
  for (const auto &s : m_servers) {
    if (s->ctx != nullptr) n++;
  }
  return n;
}

// --- Clients ------------------------------------------------------------

int ClientFixture::add_client(const ClientSetup &setup) {
  auto c = std::make_unique<Client>();
  c->setup = setup;
  lorc_init_params params{};
  params.allocator = setup.allocator;
  params.lmqServer = m_lmq;
  params.rcvQueueKBytes = setup.queue_kib;
  params.hooks = setup.hooks;
  if (setup.external) {
    c->queue.resize((setup.queue_kib != 0 ? setup.queue_kib : 16) * 1024);
    if (lmqClientInit(&c->lmq, c->queue.data(), static_cast<uint32_t>(c->queue.size())) != 0 ||
        lmqServerAddClient(m_lmq, &c->lmq) != 0) {
      ADD_FAILURE() << "lmq client of an external client";
      return -14;
    }
    c->attached = true;
    params.lmqClient = &c->lmq;
  }
  int rc = lorc_init(&c->ctx, &params);
  if (rc != 0) {
    c->ctx = nullptr;
    if (c->attached) {
      lmqServerRemoveClient(m_lmq, &c->lmq);
      lmqClientRelease(&c->lmq);
    }
    return rc;
  }
  m_clients.push_back(std::move(c));
  return static_cast<int>(m_clients.size() - 1);
}

lorc_client *ClientFixture::client(size_t index) {
  return index < m_clients.size() ? m_clients[index]->ctx : nullptr;
}

int ClientFixture::stop_client(size_t index) {
  Client &c = *m_clients.at(index);
  int rc = 0;
  if (c.ctx != nullptr) {
    rc = lorc_shutdown(c.ctx);
    c.ctx = nullptr;
  }
  if (c.attached) {
    lmqServerRemoveClient(m_lmq, &c.lmq);
    lmqClientRelease(&c.lmq);
    c.attached = false;
  }
  return rc;
}

lmq_client *ClientFixture::external_lmq_client(size_t index) {
  Client &c = *m_clients.at(index);
  return c.attached ? &c.lmq : nullptr;
}

bool ClientFixture::receive_external(size_t index, loreg_msg *msg, lmq_rx_info *info) {
  Client &c = *m_clients.at(index);
  if (!c.attached) return false;
  for (;;) {
    lmq_iovec vector{c.buffer.data(), kBufferSize - 1};
    if (lmqCXReceive(&c.lmq, &vector, 1, info, &kPoll) < 0) return false;
    if (info->reply.kind == LMQ_KIND_SYSTEM) continue;
    if (loreg_validate_msg(msg, c.buffer.data(), kBufferSize, info) == 0) return true;
  }
}

size_t ClientFixture::pump_client(size_t index) {
  Client &c = *m_clients.at(index);
  if (c.ctx == nullptr || !c.attached) return 0;
  size_t n = 0;
  for (;;) {
    lmq_iovec vector{c.buffer.data(), kBufferSize - 1};
    lmq_rx_info info{};
    if (lmqCXReceive(&c.lmq, &vector, 1, &info, &kPoll) < 0) break;
    n++;
    if (info.reply.kind == LMQ_KIND_SYSTEM) {
      lmq_sysmsg_pair pair{c.ctx, deliver_client_sysmsg};
      lmqCXHandleSystemMessage(m_lmq, &c.lmq, &pair, &info, &vector, 1);
      continue;
    }
    // As the message loop does: only messages of the service, or the
    // client's own notifications, are taken.
    if (info.reply.service_id != lorc_get_service_id(c.ctx) && info.reply.service_id != -1) {
      continue;
    }
    loreg_msg msg{};
    if (loreg_validate_msg(&msg, c.buffer.data(), kBufferSize, &info) != 0) continue;
    lorc_dispatch_msg(c.ctx, &msg, &info);
  }
  return n;
}

// --- Time and synchronisation -------------------------------------------

void ClientFixture::advance_uptime(uint64_t ms) {
  _cspOsalTime_struct delta = {static_cast<int64_t>(ms / 1000),
                               static_cast<int32_t>((ms % 1000) * 1000)};
  EXPECT_EQ(cspOsalTestAdvanceUptime(&delta), 0);
  for (size_t i = 0; i < m_servers.size(); i++) {
    Server &s = *m_servers[i];
    if (s.ctx == nullptr || s.setup.own_thread) continue;
    _cspOsalTime_struct next = CSP_OSAL_TIME_NEG_INFINITY;
    lors_task_dispatch_timeout(s.ctx, &next);
    pump_server(i);
  }
  EXPECT_TRUE(sync());
}

bool ClientFixture::sync() {
  bool ok = sync_servers();
  for (size_t i = 0; i < m_clients.size(); i++) ok = sync_client(i) && ok;
  return ok;
}

bool ClientFixture::sync_servers() {
  int expected = running_servers();
  if (expected == 0) return true;
  // Two rounds: what a server's timers sent while it handled the first
  // echo lies before its second echo reply in every queue.
  for (int round = 0; round < 2; round++) {
    uint32_t reqid = ++m_echo_reqid;
    m_wire->send(LOREG_MSG_ECHO, reqid, 0, 0, 0, "", "");
    for (size_t i = 0; i < m_servers.size(); i++) pump_server(i);
    for (int n = 0; n < expected; n++) {
      if (!m_wire->wait_reply(reqid, kSyncTimeoutMs)) {
        ADD_FAILURE() << "a server did not answer the synchronising echo";
        return false;
      }
    }
  }
  return true;
}

bool ClientFixture::sync_client(size_t index) {
  Client &c = *m_clients.at(index);
  if (c.ctx == nullptr) return true;
  if (c.attached) {
    pump_client(index);
    _cspOsalTime_struct next = CSP_OSAL_TIME_NEG_INFINITY;
    lorc_task_dispatch_timeout(c.ctx, &next);
    pump_client(index);
    return true;
  }
  return sync_marker(index) && sync_timers(index);
}

// A job of the client's own that no server knows: a reply for it, sent
// straight to the client's queue, completes it only after everything queued
// before has been handled. The reply handler gives back its reference to
// the job before the loop goes on.
bool ClientFixture::sync_marker(size_t index) {
  lorc_client *c = m_clients.at(index)->ctx;
  lorc_request marker;
  std::memset(&marker, 0, sizeof marker);
  marker.type = LORC_REQ_SIMPLE;
  int job = apij_JobCreate(c->jobs, &marker, -1, 0, nullptr);
  if (job <= 0) {
    ADD_FAILURE() << "sync_client: no marker job (" << job << ")";
    return false;
  }
  lmq_address address{};
  if (lmqClientAddress(c->lmq.client, &address) != 0 ||
      m_wire->send_to(address, LOREG_MSG_REPLY_TYPE(LOREG_MSG_ECHO), static_cast<uint32_t>(job),
                      0, 0, 0, "", "") != 0) {
    apij_JobDestroy(c->jobs, job);
    ADD_FAILURE() << "sync_client: the marker could not be sent";
    return false;
  }
  return collect(index, job, "marker");
}

// A timer job due now completes only when the loop has served its timers
// at the current time: every timer due until then fires before it.
bool ClientFixture::sync_timers(size_t index) {
  int job = lorc_job_create_timer(m_clients.at(index)->ctx, 0, 0, 0);
  if (job <= 0) {
    ADD_FAILURE() << "sync_client: lorc_job_create_timer gave " << job;
    return false;
  }
  return collect(index, job, "timer job");
}

bool ClientFixture::collect(size_t index, int job, const char *what) {
  lorc_client *c = m_clients.at(index)->ctx;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSyncTimeoutMs);
  for (;;) {
    int32_t value = 0;
    int rc = lorc_job_get_result(c, job, &value);
    if (rc == 0) return true;
    if (rc != -115 || std::chrono::steady_clock::now() >= deadline) {
      lorc_job_cancel(c, job);
      ADD_FAILURE() << "sync_client: the " << what << " did not complete (" << rc << ")";
      return false;
    }
    // A wake-up without completion is possible: look again.
    lorc_job_wait(c, job, 1);
  }
}

bool ClientFixture::wait_until(const std::function<bool()> &cond, int timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return cond();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

int ClientFixture::valid_roots(size_t client_index) {
  lorc_client *c = client(client_index);
  if (c == nullptr) return 0;
  int n = 0;
  for (int32_t index = 0;; index++) {
    char path[256];
    uint32_t flags = 0;
    if (lorc_root_query(c, index, &flags, path, sizeof path) < 0) break;
    if ((flags & LORC_ROOT_STALE) == 0) n++;
  }
  return n;
}

bool ClientFixture::wait_roots(size_t client_index, int n, int timeout_ms) {
  return wait_until(
      [&] {
        if (client_index < m_clients.size() && m_clients[client_index]->attached) {
          pump_client(client_index);
        }
        return valid_roots(client_index) >= n;
      },
      timeout_ms);
}

}  // namespace testsupport
