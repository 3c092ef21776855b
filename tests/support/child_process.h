// Programs under test as real processes: start one (fork and exec), read
// its standard output line by line with a timeout, find text in its
// standard error (kept in a file), signal it, wait for its end with a
// timeout. A ChildProcess that goes out of scope kills its process
// (SIGKILL) and reaps it, so that a failing test leaves nothing behind.
//
// Only async-signal-safe calls run between fork and exec: the child may be
// forked from a test process that has threads of its own.
//
// Header-only; tests and benchmarks may include it.
#ifndef TESTS_SUPPORT_CHILD_PROCESS_H
#define TESTS_SUPPORT_CHILD_PROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

// What a finished process left: exit status (or -1), the signal that ended
// it (or 0), its output.
struct ProcessResult {
  int exit_status = -1;
  int term_signal = 0;
  bool timed_out = false;
  std::string out;
  std::string err;
};

inline std::string read_whole_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess() { kill_and_reap(); }
  ChildProcess(const ChildProcess &) = delete;
  ChildProcess &operator=(const ChildProcess &) = delete;

  // Starts argv[0] with argv. Standard output goes to a pipe that
  // read_line() reads (or to out_file, if not empty); standard error to
  // err_file (or /dev/null if empty); standard input is /dev/null.
  // Returns false if the process could not be started.
  bool start(const std::vector<std::string> &argv, const std::string &err_file,
             const std::string &out_file = std::string()) {
    kill_and_reap();
    m_err_file = err_file;
    m_buffer.clear();
    m_exited = false;
    m_status = 0;

    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);

    int out_pipe[2] = {-1, -1};
    if (out_file.empty() && pipe2(out_pipe, O_CLOEXEC) != 0) return false;
    int out_fd = out_file.empty() ? out_pipe[1]
                                  : open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                                         0644);
    int err_fd = open(err_file.empty() ? "/dev/null" : err_file.c_str(),
                      O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int in_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (out_fd < 0 || err_fd < 0 || in_fd < 0) {
      close_all({out_pipe[0], out_pipe[1], out_fd, err_fd, in_fd});
      return false;
    }

    pid_t pid = fork();
    if (pid == 0) {
      // The child: descriptors into place, default signal dispositions
      // and mask, then exec.
      dup2(in_fd, STDIN_FILENO);
      dup2(out_fd, STDOUT_FILENO);
      dup2(err_fd, STDERR_FILENO);
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      ::signal(SIGPIPE, SIG_DFL);
      execv(args[0], args.data());
      _exit(127);
    }
    if (out_file.empty()) {
      close(out_pipe[1]);
      if (out_fd != out_pipe[1]) close(out_fd);
    } else {
      close(out_fd);
    }
    close(err_fd);
    close(in_fd);
    if (pid < 0) {
      if (out_pipe[0] >= 0) close(out_pipe[0]);
      return false;
    }
    m_pid = pid;
    m_out_fd = out_pipe[0];
    return true;
  }

  pid_t pid() const { return m_pid; }
  bool running() {
    poll_exit();
    return m_pid > 0 && !m_exited;
  }

  // Next line of standard output (without its newline); false when none
  // comes within timeout_ms or the output ended.
  bool read_line(std::string *line, int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      size_t nl = m_buffer.find('\n');
      if (nl != std::string::npos) {
        *line = m_buffer.substr(0, nl);
        m_buffer.erase(0, nl + 1);
        return true;
      }
      if (m_out_fd < 0) return false;
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                      deadline - std::chrono::steady_clock::now())
                      .count();
      if (left <= 0) return false;
      pollfd p{m_out_fd, POLLIN, 0};
      int n = poll(&p, 1, static_cast<int>(left));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      char chunk[4096];
      ssize_t got = read(m_out_fd, chunk, sizeof(chunk));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        close(m_out_fd);
        m_out_fd = -1;
        continue;
      }
      m_buffer.append(chunk, static_cast<size_t>(got));
    }
  }

  // Reads lines until one holds text; true if it came within timeout_ms.
  // The lines read on the way are appended to *seen if given.
  bool wait_line(const std::string &text, int timeout_ms, std::string *seen = nullptr) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    std::string line;
    for (;;) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                      deadline - std::chrono::steady_clock::now())
                      .count();
      if (left <= 0 || !read_line(&line, static_cast<int>(left))) return false;
      if (seen != nullptr) *seen += line + "\n";
      if (line.find(text) != std::string::npos) return true;
    }
  }

  // The whole standard error so far.
  std::string err() const { return read_whole_file(m_err_file); }

  // Waits until standard error holds text; false if not within timeout_ms
  // or the process ended without it.
  bool wait_err(const std::string &text, int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < deadline) {
      if (err().find(text) != std::string::npos) return true;
      if (!running()) return err().find(text) != std::string::npos;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
  }

  bool signal(int sig) { return m_pid > 0 && !m_exited && ::kill(m_pid, sig) == 0; }

  // Stops the process with SIGSTOP and waits until it is stopped.
  bool stop() {
    if (!signal(SIGSTOP)) return false;
    int status = 0;
    pid_t r;
    do {
      r = waitpid(m_pid, &status, WUNTRACED);
    } while (r < 0 && errno == EINTR);
    return r == m_pid && WIFSTOPPED(status);
  }
  bool resume() { return signal(SIGCONT); }

  // Waits for the end; false if the process still runs after timeout_ms.
  bool wait_exit(int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      poll_exit();
      if (m_exited || m_pid <= 0) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  // After the end: the exit status, or -1 if a signal ended it.
  int exit_status() const { return m_exited && WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1; }
  int term_signal() const { return m_exited && WIFSIGNALED(m_status) ? WTERMSIG(m_status) : 0; }

  // Kills (SIGKILL) and reaps the process; harmless when it has ended.
  void kill_and_reap() {
    if (m_pid > 0 && !m_exited) {
      ::kill(m_pid, SIGKILL);
      ::kill(m_pid, SIGCONT);
      int status = 0;
      pid_t r;
      do {
        r = waitpid(m_pid, &status, 0);
      } while (r < 0 && errno == EINTR);
      m_status = status;
      m_exited = true;
    }
    if (m_out_fd >= 0) close(m_out_fd);
    m_out_fd = -1;
  }

 private:
  static void close_all(std::initializer_list<int> fds) {
    for (int fd : fds) {
      if (fd >= 0) close(fd);
    }
  }
  void poll_exit() {
    if (m_pid <= 0 || m_exited) return;
    int status = 0;
    pid_t r = waitpid(m_pid, &status, WNOHANG);
    if (r == m_pid && (WIFEXITED(status) || WIFSIGNALED(status))) {
      m_status = status;
      m_exited = true;
    }
  }

  pid_t m_pid = -1;
  int m_out_fd = -1;
  bool m_exited = false;
  int m_status = 0;
  std::string m_err_file;
  std::string m_buffer;
};

// Runs a program to its end and returns its status and output. A process
// that is still running after timeout_ms is killed (timed_out set).
inline ProcessResult run_process(const std::vector<std::string> &argv, const std::string &scratch,
                                 int timeout_ms = 30000) {
  ProcessResult result;
  ChildProcess child;
  std::string out_file = scratch + ".out";
  std::string err_file = scratch + ".err";
  if (!child.start(argv, err_file, out_file)) return result;
  if (!child.wait_exit(timeout_ms)) {
    result.timed_out = true;
    child.kill_and_reap();
  }
  result.exit_status = child.exit_status();
  result.term_signal = child.term_signal();
  result.out = read_whole_file(out_file);
  result.err = read_whole_file(err_file);
  return result;
}

}  // namespace testsupport

#endif
