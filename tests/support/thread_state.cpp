#include "support/thread_state.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <thread>

namespace testsupport {

namespace {

const std::string kTaskDir = "/proc/self/task";

std::string task_path(pid_t tid) { return kTaskDir + "/" + std::to_string(tid); }

// Ids of all threads of this process.
std::vector<pid_t> all_tids() {
  std::vector<pid_t> tids;
  DIR *dir = opendir(kTaskDir.c_str());
  if (dir == nullptr) return tids;
  while (struct dirent *entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    tids.push_back(static_cast<pid_t>(std::atoi(entry->d_name)));
  }
  closedir(dir);
  return tids;
}

std::vector<pid_t> tids_named(const std::string &name) {
  std::vector<pid_t> out;
  for (pid_t tid : all_tids()) {
    if (thread_name(tid) == name) out.push_back(tid);
  }
  return out;
}

// Polls the state every millisecond until it was 'S' kSleepingPolls times
// in a row, or the bound has passed.
bool wait_sleeping(const std::function<char()> &state, std::chrono::milliseconds bound) {
  auto deadline = std::chrono::steady_clock::now() + bound;
  int streak = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    if (state() == 'S') {
      if (++streak >= kSleepingPolls) return true;
    } else {
      streak = 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

}  // namespace

pid_t current_tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

std::string thread_name(pid_t tid) {
  std::ifstream comm(task_path(tid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

std::vector<std::string> thread_names() {
  std::vector<std::string> names;
  for (pid_t tid : all_tids()) {
    std::string name = thread_name(tid);
    if (!name.empty()) names.push_back(name);
  }
  return names;
}

size_t count_threads(const std::string &name) { return tids_named(name).size(); }

bool wait_for_thread_count(const std::string &name, size_t n, std::chrono::milliseconds bound) {
  auto deadline = std::chrono::steady_clock::now() + bound;
  while (count_threads(name) != n) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

char thread_state(pid_t tid) {
  // The line reads "<tid> (<comm>) <state> ...": the name may itself hold
  // blanks and parentheses, so the state follows the last ')'.
  std::ifstream stat(task_path(tid) + "/stat");
  std::string line;
  std::getline(stat, line);
  size_t close = line.rfind(')');
  if (close == std::string::npos || close + 2 >= line.size()) return 0;
  return line[close + 2];
}

bool wait_until_sleeping(pid_t tid, std::chrono::milliseconds bound) {
  return wait_sleeping([tid] { return thread_state(tid); }, bound);
}

bool wait_until_sleeping(const std::atomic<pid_t> &tid, std::chrono::milliseconds bound) {
  return wait_sleeping(
      [&tid] {
        pid_t t = tid.load();
        return t != 0 ? thread_state(t) : '\0';
      },
      bound);
}

bool wait_until_sleeping(const std::string &name, std::chrono::milliseconds bound) {
  return wait_sleeping(
      [&name] {
        std::vector<pid_t> tids = tids_named(name);
        if (tids.empty()) return '\0';
        for (pid_t tid : tids) {
          char state = thread_state(tid);
          if (state != 'S') return state;
        }
        return 'S';
      },
      bound);
}

std::string thread_wait_channel(pid_t tid) {
  std::ifstream wchan(task_path(tid) + "/wchan");
  std::string name;
  std::getline(wchan, name);
  return name;
}

bool wait_until_sleeping_in(pid_t tid, const std::string &prefix,
                            std::chrono::milliseconds bound) {
  if (thread_wait_channel(current_tid()).empty()) return wait_until_sleeping(tid, bound);
  // The wait channel tells where the thread sleeps, so one sighting is
  // enough; looking often matters because the sleep it names may be short
  // (a leader gives up its receive when its lead ends), and a sleep of the
  // looking thread may last far longer than asked on a busy machine.
  auto deadline = std::chrono::steady_clock::now() + bound;
  for (;;) {
    if (thread_state(tid) == 'S' &&
        thread_wait_channel(tid).compare(0, prefix.size(), prefix) == 0) {
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
}

}  // namespace testsupport
