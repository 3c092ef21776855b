// Captures the platform's debug output for assertions on exact log lines.
//
// While a LogCapture lives it is the debug sink, and the thresholds of the
// given channels are raised so that every level prints (or set to the
// level given). The destructor restores sink and thresholds. Lines from
// every thread are collected, in order of arrival.
#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

struct LogLine {
  uint32_t channel;
  uint32_t level;
  uint32_t module;
  std::string text;
  pid_t tid;  // kernel id of the thread that printed it
};

class LogCapture {
 public:
  // Captures channel 0x6B (registry) and 0x6C (lmq) at every level.
  LogCapture();
  // Captures the given channels with the given threshold.
  LogCapture(std::vector<uint32_t> channels, uint32_t threshold);
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  std::vector<LogLine> lines() const;
  std::vector<std::string> texts() const;
  // Number of lines whose text contains the fragment.
  size_t count(const std::string &fragment) const;
  bool contains(const std::string &fragment) const { return count(fragment) > 0; }
  // True if some line's text equals the text exactly (newline included).
  bool has_line(const std::string &text) const;
  // True if some line's text matches the regular expression as a whole
  // (newline included), for lines with a part that varies, such as a
  // source line number.
  bool has_line_matching(const std::string &pattern) const;
  void clear();
  // All texts joined, for failure messages.
  std::string dump() const;

 private:
  static void sink(void *context, uint32_t channel, uint32_t level, uint32_t module, const char *text);
  mutable std::mutex m_mutex;
  std::vector<LogLine> m_lines;
  std::vector<std::pair<uint32_t, int>> m_saved_thresholds;
};

}  // namespace testsupport

#endif
