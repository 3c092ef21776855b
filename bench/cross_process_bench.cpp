// Registry round trips across processes, against a raw Unix-socket
// ping-pong of the same message sizes between two processes.
//
// BM_CrossProcessValueSetSync/spin_us:<us> and
// BM_CrossProcessValueQuerySync/spin_us:<us>: this process joins the bus
// of a loregd child process (started once, with --no-persist on a socket
// in a temporary directory) and calls lorc_value_set (20-byte path,
// 10-byte value) or lorc_value_query synchronously. A query goes: caller
// thread -> socket (the caller writes its frame itself) -> daemon's bus
// thread, which serves it while "lorsmain" waits idle -> socket -> the
// caller, which reads the bus itself while it waits (it leads the
// connection) and completes its job there. Between two calls the
// connection stays parked for the caller (it announces each lead), so the
// daemon's answer never wakes the caller's bus thread and the hand-over
// costs no epoll changes. A set makes the server broadcast a key update
// before the reply; the daemon's bus thread writes both in one go, and the
// caller takes the update too (the client has no subscription) before the
// reply.
//
// <us> is the leader's polling time (lmqServerBusSetLeadSpin). With 0 the
// caller sleeps in recv at once: two thread wake-ups per round trip, as in
// the raw ping-pong. With the default (LMQ_BUS_LEAD_SPIN_US_DEFAULT on a
// machine of several processors) the caller polls the socket first, and a
// quick answer finds it still running: one wake-up, the daemon's.
//
// BM_RawSocketPingPong/<request>/<reply>: a child process echoes on a Unix
// stream socket pair; one iteration writes a request of the registry's size
// (92 bytes for a set, 82 for a query) and reads the reply (62 and 72
// bytes): the same two crossings of the socket, one thread on each side,
// so two thread wake-ups per round trip.
//
// BM_RawSocketPingPongPolling/<request>/<reply>/<us>: the same, but the
// caller polls its socket for up to <us> microseconds before it sleeps in
// read, as a registry leader does: the raw counterpart of the registry
// with polling.
//
// With repetitions, each of these also reports its fastest repetition
// ("_min"): on a shared machine the noise only ever adds time.
//
// BM_RawSocketPingPongEpoll/<request>/<reply>: the raw ping-pong, but the echoing
// child waits for its socket in epoll_wait before it reads, as a server of
// many connections does (the daemon's bus thread): one system call more
// per round trip on that side. Not a target, a yardstick: it shows what
// the wait of such a server costs on the machine of the run.
//
// BM_RawSocketPingPongBusyEcho/92/62/<ns>: the same, but the echoing
// child works (spins on the clock) for <ns> nanoseconds before it answers,
// as any server does some work per request. Not a target either: on a
// virtual machine whose idle processors halt, the round trip can grow by
// more than the work, because the caller's processor sleeps longer and
// waking it then costs more. It tells how much of a registry round trip's
// excess over the raw one is its own work and how much the machine adds.
//
// BM_RawSocketPingPongHops/92/62/<caller hops>/<echo hops>: the same bytes,
// with the message handed on through more threads by a condition variable
// on either side. 1/1: a receiver thread on each side (four wake-ups).
// 1/0: three wake-ups, the shape of a registry call before the caller
// led the bus: the echo side's reader answers itself, the caller's side
// has a reader that wakes the caller. 2/1: five wake-ups, the shape without the idle paths: on the
// echo side a reader (the daemon's bus thread) hands to a worker
// ("lorsmain"); on the caller's side a reader (the bus thread) hands to a
// relay ("lorcmain"), which wakes the caller.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_registry.h"
#include "loreg/lorc.h"
#include "platform/lmq.h"
#include "support/child_process.h"

namespace {

using benchsupport::kPath;
using benchsupport::kPlain;
using benchsupport::kValue;

double fastest(const std::vector<double> &v) { return *std::min_element(v.begin(), v.end()); }

// A loregd child process and a client of this process on its bus.
class CrossProcessRegistry {
 public:
  CrossProcessRegistry() {
    char pattern[] = "/tmp/loreg-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    m_dir = pattern;
    std::string sock = m_dir + "/bus.sock";
    if (!m_daemon.start({LOREGD_PATH, "--foreground", "--no-persist", "--socket", sock},
                        m_dir + "/loregd.err") ||
        !m_daemon.wait_err("loregd: ready", 15000)) {
      return;
    }
    if (lmqServerCreate(&m_bus) != 0) return;
    _cspOsalTime_struct timeout{10, 0};
    if (lmqServerConnect(m_bus, sock.c_str(), &timeout) != 0) return;
    m_client = benchsupport::start_ready_client(m_bus, 10000);
    m_ok = m_client != nullptr;
  }
  ~CrossProcessRegistry() {
    if (m_client != nullptr) lorc_shutdown(m_client);
    if (m_bus != nullptr) lmqServerDestroy(m_bus);
    if (m_daemon.signal(SIGTERM)) m_daemon.wait_exit(10000);
    m_daemon.kill_and_reap();
    if (!m_dir.empty()) {
      unlink((m_dir + "/loregd.err").c_str());
      rmdir(m_dir.c_str());
    }
  }
  lorc_client *client() const { return m_client; }
  // Ready for a benchmark whose first argument is the leaders' polling
  // time; false (and the benchmark skipped) when not.
  bool start(benchmark::State &state) const {
    if (!m_ok) {
      state.SkipWithError("loregd or the client did not start");
      return false;
    }
    if (lmqServerBusSetLeadSpin(m_bus, static_cast<uint32_t>(state.range(0))) != 0) {
      state.SkipWithError("lmqServerBusSetLeadSpin failed");
      return false;
    }
    return true;
  }

 private:
  std::string m_dir;
  testsupport::ChildProcess m_daemon;
  lmq_server *m_bus = nullptr;
  lorc_client *m_client = nullptr;
  bool m_ok = false;
};

// One daemon for all benchmarks of the run, ended at exit.
CrossProcessRegistry &registry() {
  static CrossProcessRegistry instance;
  return instance;
}

void BM_CrossProcessValueSetSync(benchmark::State &state) {
  CrossProcessRegistry &r = registry();
  if (!r.start(state)) return;
  for (auto _ : state) {
    int rc = lorc_value_set(r.client(), 0, kPath, kValue, 10, kPlain, 5);
    if (rc != 0) {
      state.SkipWithError("lorc_value_set failed");
      break;
    }
  }
}
BENCHMARK(BM_CrossProcessValueSetSync)
    ->ArgName("spin_us")
    ->Arg(0)
    ->Arg(LMQ_BUS_LEAD_SPIN_US_DEFAULT)
    ->UseRealTime()
    ->ComputeStatistics("min", fastest);

void BM_CrossProcessValueQuerySync(benchmark::State &state) {
  CrossProcessRegistry &r = registry();
  if (!r.start(state)) return;
  char buffer[64];
  for (auto _ : state) {
    int rc = lorc_value_query(r.client(), 0, kPath, buffer, sizeof buffer, 5);
    if (rc != 10) {
      state.SkipWithError("lorc_value_query failed");
      break;
    }
  }
}
BENCHMARK(BM_CrossProcessValueQuerySync)
    ->ArgName("spin_us")
    ->Arg(0)
    ->Arg(LMQ_BUS_LEAD_SPIN_US_DEFAULT)
    ->UseRealTime()
    ->ComputeStatistics("min", fastest);

bool write_all(int fd, const char *data, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, data, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool read_all(int fd, char *data, size_t len) {
  while (len > 0) {
    ssize_t n = read(fd, data, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

// read_all, after polling fd for up to spin_ns nanoseconds for the first
// bytes. Without a polling time it is read_all itself, so that the plain
// ping-pong makes no system call more than it needs.
bool read_all_polling(int fd, char *data, size_t len, long spin_ns) {
  if (spin_ns <= 0) return read_all(fd, data, len);
  const auto end = std::chrono::steady_clock::now() + std::chrono::nanoseconds(spin_ns);
  do {
    ssize_t n = recv(fd, data, len, MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      len -= static_cast<size_t>(n);
      break;
    }
    if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) return false;
  } while (std::chrono::steady_clock::now() < end);
  return read_all(fd, data, len);
}

// Passes one message at a time from one thread to another.
class Handoff {
 public:
  void put(const std::vector<char> &message) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_message = message;
    m_full = true;
    m_cond.notify_one();
  }
  bool take(std::vector<char> *message) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cond.wait(lock, [&] { return m_full || m_closed; });
    if (!m_full) return false;
    *message = m_message;
    m_full = false;
    return true;
  }
  void close() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closed = true;
    m_cond.notify_all();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<char> m_message;
  bool m_full = false;
  bool m_closed = false;
};

// How the echoing child waits and answers: in its read (direct), in
// epoll_wait before its read (epoll), by a reader thread that hands each
// request to a worker thread, which answers (hops), or in its read, then
// working a while before it answers (busy).
enum class Echo { kDirect, kEpoll, kHops, kBusy };
const char *const kEchoNames[] = {"direct", "epoll", "hops", "busy"};

// Spins until ns nanoseconds have passed: work that keeps the processor.
void busy_for(long ns) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::nanoseconds(ns);
  while (std::chrono::steady_clock::now() < end) {
  }
}

// Waits in epoll_wait until the one socket of the set has input.
bool echo_epoll_wait(int epoll_fd) {
  struct epoll_event event;
  int n;
  do {
    n = epoll_wait(epoll_fd, &event, 1, -1);
  } while (n < 0 && errno == EINTR);
  return n == 1;
}

int echo_epoll(int fd, std::vector<char> *request, const std::vector<char> &reply) {
  int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  struct epoll_event event{};
  event.events = EPOLLIN;
  if (epoll_fd < 0) return 1;
  if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
    close(epoll_fd);
    return 1;
  }
  while (echo_epoll_wait(epoll_fd) && read_all(fd, request->data(), request->size()) &&
         write_all(fd, reply.data(), reply.size())) {
  }
  close(epoll_fd);
  return 0;
}

// The echoing child, a fresh process image (this program, started with
// kEchoArg) so that it begins with one thread: reads requests of
// request_size bytes on its standard input, a socket, and answers
// reply_size bytes (after work_ns of work when busy), until the socket
// closes.
constexpr char kEchoArg[] = "--loreg-echo-child";

int echo_child(size_t request_size, size_t reply_size, Echo mode, long work_ns) {
  const int fd = STDIN_FILENO;
  std::vector<char> request(request_size);
  std::vector<char> reply(reply_size, 'r');
  if (mode == Echo::kEpoll) return echo_epoll(fd, &request, reply);
  if (mode == Echo::kDirect || mode == Echo::kBusy) {
    while (read_all(fd, request.data(), request.size())) {
      if (mode == Echo::kBusy) busy_for(work_ns);
      if (!write_all(fd, reply.data(), reply.size())) break;
    }
    return 0;
  }
  Handoff handoff;
  std::thread worker([&] {
    std::vector<char> message;
    while (handoff.take(&message) && write_all(fd, reply.data(), reply.size())) {
    }
  });
  while (read_all(fd, request.data(), request.size())) handoff.put(request);
  handoff.close();
  worker.join();
  return 0;
}

// Starts the echoing child on one end of a socket pair; returns its pid,
// or -1.
pid_t start_echo_child(int child_end, size_t request_size, size_t reply_size, Echo echo,
                       long work_ns) {
  std::string request = std::to_string(request_size);
  std::string reply = std::to_string(reply_size);
  std::string mode = kEchoNames[static_cast<int>(echo)];
  std::string work = std::to_string(work_ns);
  char *argv[] = {const_cast<char *>("cross_process_bench"), const_cast<char *>(kEchoArg),
                  request.data(), reply.data(), mode.data(), work.data(), nullptr};
  pid_t pid = fork();
  if (pid == 0) {
    dup2(child_end, STDIN_FILENO);
    execv("/proc/self/exe", argv);
    _exit(127);
  }
  return pid;
}

// One round trip after another; caller_hops threads (0, 1 or 2) stand
// between the socket and the caller. Without hops, the caller polls for
// its reply for up to caller_spin_ns before it sleeps.
void raw_ping_pong(benchmark::State &state, int caller_hops, Echo echo, long work_ns = 0,
                   long caller_spin_ns = 0) {
  size_t request_size = static_cast<size_t>(state.range(0));
  size_t reply_size = static_cast<size_t>(state.range(1));
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  pid_t pid = start_echo_child(fds[1], request_size, reply_size, echo, work_ns);
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    state.SkipWithError("fork failed");
    return;
  }

  std::vector<char> request(request_size, 'q');
  std::vector<char> reply(reply_size);
  if (caller_hops == 0) {
    for (auto _ : state) {
      if (!write_all(fds[0], request.data(), request.size()) ||
          !read_all_polling(fds[0], reply.data(), reply.size(), caller_spin_ns)) {
        state.SkipWithError("echo failed");
        break;
      }
    }
  } else {
    // A receiver thread reads the replies; with two hops it hands them to
    // a relay thread, which wakes the caller.
    Handoff received;
    Handoff relayed;
    Handoff &to_caller = caller_hops == 1 ? received : relayed;
    std::thread receiver([&] {
      std::vector<char> message(reply_size);
      while (read_all(fds[0], message.data(), message.size())) received.put(message);
      received.close();
    });
    std::thread relay;
    if (caller_hops == 2) {
      relay = std::thread([&] {
        std::vector<char> message;
        while (received.take(&message)) relayed.put(message);
        relayed.close();
      });
    }
    for (auto _ : state) {
      if (!write_all(fds[0], request.data(), request.size()) || !to_caller.take(&reply)) {
        state.SkipWithError("echo failed");
        break;
      }
    }
    shutdown(fds[0], SHUT_RDWR);
    receiver.join();
    if (relay.joinable()) relay.join();
  }
  close(fds[0]);
  waitpid(pid, nullptr, 0);
}

void BM_RawSocketPingPong(benchmark::State &state) { raw_ping_pong(state, 0, Echo::kDirect); }
BENCHMARK(BM_RawSocketPingPong)
    ->Args({92, 62})
    ->Args({82, 72})
    ->UseRealTime()
    ->ComputeStatistics("min", fastest);

void BM_RawSocketPingPongPolling(benchmark::State &state) {
  raw_ping_pong(state, 0, Echo::kDirect, 0, static_cast<long>(state.range(2)) * 1000L);
}
BENCHMARK(BM_RawSocketPingPongPolling)
    ->Args({92, 62, LMQ_BUS_LEAD_SPIN_US_DEFAULT})
    ->Args({82, 72, LMQ_BUS_LEAD_SPIN_US_DEFAULT})
    ->UseRealTime()
    ->ComputeStatistics("min", fastest);

void BM_RawSocketPingPongEpoll(benchmark::State &state) { raw_ping_pong(state, 0, Echo::kEpoll); }
BENCHMARK(BM_RawSocketPingPongEpoll)
    ->Args({92, 62})
    ->Args({82, 72})
    ->UseRealTime()
    ->ComputeStatistics("min", fastest);

void BM_RawSocketPingPongBusyEcho(benchmark::State &state) {
  raw_ping_pong(state, 0, Echo::kBusy, static_cast<long>(state.range(2)));
}
BENCHMARK(BM_RawSocketPingPongBusyEcho)
    ->Args({92, 62, 1000})
    ->Args({92, 62, 2000})
    ->Args({92, 62, 4000})
    ->UseRealTime();

void BM_RawSocketPingPongHops(benchmark::State &state) {
  raw_ping_pong(state, static_cast<int>(state.range(2)),
                state.range(3) != 0 ? Echo::kHops : Echo::kDirect);
}
BENCHMARK(BM_RawSocketPingPongHops)
    ->Args({82, 72, 1, 0})
    ->Args({92, 62, 1, 1})
    ->Args({92, 62, 2, 1})
    ->UseRealTime();

}  // namespace

int main(int argc, char **argv) {
  if (argc == 6 && std::strcmp(argv[1], kEchoArg) == 0) {
    Echo mode = Echo::kDirect;
    for (size_t i = 0; i < std::size(kEchoNames); i++) {
      if (std::strcmp(argv[4], kEchoNames[i]) == 0) mode = static_cast<Echo>(i);
    }
    return echo_child(std::strtoul(argv[2], nullptr, 10), std::strtoul(argv[3], nullptr, 10), mode,
                      std::strtol(argv[5], nullptr, 10));
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
