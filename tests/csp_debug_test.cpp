// Debug output: thresholds per channel and the pluggable sink.
#include <gtest/gtest.h>

#include "platform/csp_debug.h"
#include "support/log_capture.h"

namespace {

constexpr uint32_t kChannel = 0x42;

void Log(uint32_t level, const char *text) {
  if (cspDebugCheckLevelGetFrameAndChunk(kChannel, level, 0x1234)) cspDebugOutput0("%s\n", text);
}

TEST(CspDebug, DefaultThresholdShowsStatusAndSevereLinesOnly) {
  EXPECT_EQ(cspDebugGetThreshold(kChannel), CSP_DEBUG_DEFAULT_THRESHOLD);
  EXPECT_TRUE(cspDebugCheckLevelGetFrameAndChunk(kChannel, 1, 0));
  EXPECT_TRUE(cspDebugCheckLevelGetFrameAndChunk(kChannel, 1000, 0));
  EXPECT_FALSE(cspDebugCheckLevelGetFrameAndChunk(kChannel, 1001, 0));
  EXPECT_FALSE(cspDebugCheckLevelGetFrameAndChunk(kChannel, 3000, 0));
}

TEST(CspDebug, SinkReceivesExactTextWithChannelLevelAndModule) {
  testsupport::LogCapture capture({kChannel}, 3000);
  Log(3000, "failure line");
  Log(4000, "detail line");  // above the threshold: not printed
  auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "failure line\n");
  EXPECT_EQ(lines[0].channel, kChannel);
  EXPECT_EQ(lines[0].level, 3000u);
  EXPECT_EQ(lines[0].module, 0x1234u);
}

TEST(CspDebug, ThresholdIsPerChannelAndRestorable) {
  int old = cspDebugSetThreshold(kChannel, 5000);
  EXPECT_EQ(old, CSP_DEBUG_DEFAULT_THRESHOLD);
  EXPECT_TRUE(cspDebugCheckLevelGetFrameAndChunk(kChannel, 5000, 0));
  EXPECT_FALSE(cspDebugCheckLevelGetFrameAndChunk(kChannel + 1, 5000, 0));
  EXPECT_EQ(cspDebugSetThreshold(kChannel, static_cast<uint32_t>(old)), 5000);
  EXPECT_EQ(cspDebugSetThreshold(CSP_DEBUG_CHANNELS, 1), -22);
  EXPECT_EQ(cspDebugGetThreshold(CSP_DEBUG_CHANNELS), -22);
  EXPECT_FALSE(cspDebugCheckLevelGetFrameAndChunk(CSP_DEBUG_CHANNELS, 1, 0));
}

TEST(CspDebug, LongLinesAreCutNotOverrun) {
  testsupport::LogCapture capture({kChannel}, 5000);
  std::string big(3000, 'x');
  Log(1, big.c_str());
  auto texts = capture.texts();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(texts[0].size(), 1023u);
  EXPECT_EQ(texts[0], std::string(1023, 'x'));
}

}  // namespace
