// The threads of this process as the kernel sees them, from /proc/self/task:
// their names, their scheduler state, and a bounded wait until a thread is
// asleep.
//
// Threaded tests often have to know that another thread has really gone to
// sleep in a blocking call (a condition wait, a receive) before they act, so
// that they exercise "woken while waiting" and not "found it already done".
// When the code under test offers no observable state for that, the test
// watches the thread itself:
//
//   std::atomic<pid_t> tid{0};
//   std::thread t([&] { tid = testsupport::current_tid(); blocking_call(); });
//   ASSERT_TRUE(testsupport::wait_until_sleeping(tid));
//
// State 'S' means an interruptible sleep in the kernel. A thread can sleep
// there briefly for other reasons (a contended mutex, the sanitizer's own
// locks), so a thread counts as asleep only after it was seen in 'S' on
// kSleepingPolls polls in a row, one millisecond apart. The caller must make
// sure that, at that point, the blocking call is the only long sleep the
// thread can be in; tests should then check the outcome of the woken path,
// so that a wrong guess makes them fail rather than pass.
#ifndef TESTS_SUPPORT_THREAD_STATE_H
#define TESTS_SUPPORT_THREAD_STATE_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace testsupport {

// Polls in a row on which a thread must be seen in 'S' to count as asleep.
constexpr int kSleepingPolls = 3;
// Default bound of every wait below: a thread that never gets there fails
// the test instead of hanging it.
constexpr std::chrono::milliseconds kThreadWaitBound{5000};

// Kernel thread id of the calling thread (its entry in /proc/self/task).
pid_t current_tid();

// Name ("comm") of a thread of this process; "" if there is no such thread.
std::string thread_name(pid_t tid);
// Names of all threads of this process, in no particular order.
std::vector<std::string> thread_names();
// Number of threads of this process named name.
size_t count_threads(const std::string &name);
// Waits until exactly n threads are named name. A thread's entry appears
// and vanishes a little apart from its start and join. False on timeout.
bool wait_for_thread_count(const std::string &name, size_t n,
                           std::chrono::milliseconds bound = kThreadWaitBound);

// Scheduler state letter of a thread of this process ('R' running, 'S'
// sleeping, 'D' uninterruptible, ...); 0 if there is no such thread.
char thread_state(pid_t tid);

// Waits until the thread is asleep (see above). False on timeout.
bool wait_until_sleeping(pid_t tid, std::chrono::milliseconds bound = kThreadWaitBound);
// The same for a thread that publishes its own id: 0 means "not yet known",
// which counts as not asleep.
bool wait_until_sleeping(const std::atomic<pid_t> &tid,
                         std::chrono::milliseconds bound = kThreadWaitBound);
// The same for the threads named name: there must be at least one, and all
// of them must be asleep.
bool wait_until_sleeping(const std::string &name,
                         std::chrono::milliseconds bound = kThreadWaitBound);

// The kernel function a thread of this process sleeps in, from its
// "wchan" entry ("0" while it runs); "" if there is no such entry.
std::string thread_wait_channel(pid_t tid);
// Waits until the thread is seen asleep in a kernel function whose name
// starts with prefix: in a socket receive, say, and not on a lock on its
// way there. One sighting counts; it looks every 100 us. Where the kernel
// has no wait channels at all, the same as wait_until_sleeping. False on
// timeout.
bool wait_until_sleeping_in(pid_t tid, const std::string &prefix,
                            std::chrono::milliseconds bound = kThreadWaitBound);

}  // namespace testsupport

#endif
