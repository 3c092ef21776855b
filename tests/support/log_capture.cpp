#include "support/log_capture.h"

#include <regex>

#include "platform/csp_debug.h"
#include "support/thread_state.h"

namespace testsupport {

LogCapture::LogCapture() : LogCapture({0x6B, 0x6C}, 0xFFFFFFFFu) {}

LogCapture::LogCapture(std::vector<uint32_t> channels, uint32_t threshold) {
  for (uint32_t channel : channels) {
    m_saved_thresholds.emplace_back(channel, cspDebugSetThreshold(channel, threshold));
  }
  cspDebugSetSink(&LogCapture::sink, this);
}

LogCapture::~LogCapture() {
  cspDebugSetSink(nullptr, nullptr);
  for (const auto &saved : m_saved_thresholds) {
    cspDebugSetThreshold(saved.first, static_cast<uint32_t>(saved.second));
  }
}

void LogCapture::sink(void *context, uint32_t channel, uint32_t level, uint32_t module,
                      const char *text) {
  auto *self = static_cast<LogCapture *>(context);
  std::lock_guard<std::mutex> lock(self->m_mutex);
  self->m_lines.push_back(LogLine{channel, level, module, text, current_tid()});
}

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

std::vector<std::string> LogCapture::texts() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<std::string> out;
  for (const auto &line : m_lines) out.push_back(line.text);
  return out;
}

size_t LogCapture::count(const std::string &fragment) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  size_t n = 0;
  for (const auto &line : m_lines) {
    if (line.text.find(fragment) != std::string::npos) n++;
  }
  return n;
}

bool LogCapture::has_line(const std::string &text) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (const auto &line : m_lines) {
    if (line.text == text) return true;
  }
  return false;
}

bool LogCapture::has_line_matching(const std::string &pattern) const {
  const std::regex re(pattern);
  std::lock_guard<std::mutex> lock(m_mutex);
  for (const auto &line : m_lines) {
    if (std::regex_match(line.text, re)) return true;
  }
  return false;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.clear();
}

std::string LogCapture::dump() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::string out;
  for (const auto &line : m_lines) out += line.text;
  return out;
}

}  // namespace testsupport
