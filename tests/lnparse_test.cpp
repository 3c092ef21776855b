// Tests of the line parser and word splitter.
#include "loreg/lnparse.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Line {
  std::string text;
  uint32_t length;
  std::string marker;  // name of the LINEEND_* pointer received
  uint32_t number;
};

bool operator==(const Line &a, const Line &b) {
  return a.text == b.text && a.length == b.length && a.marker == b.marker && a.number == b.number;
}

std::ostream &operator<<(std::ostream &os, const Line &l) {
  return os << "{\"" << l.text << "\", len " << l.length << ", " << l.marker << ", #" << l.number
            << "}";
}

// Names the marker by its address, so a copy with the same text would not
// pass.
std::string marker_name(const char *lineend) {
  if (lineend == LINEEND_NONE) return "NONE";
  if (lineend == LINEEND_UNIX) return "UNIX";
  if (lineend == LINEEND_MAC) return "MAC";
  if (lineend == LINEEND_REVDOS) return "REVDOS";
  if (lineend == LINEEND_DOS) return "DOS";
  return "UNKNOWN";
}

struct Collector {
  std::vector<Line> lines;
  int stop_at = 0;  // line number at which the callback answers stop_rc
  int stop_rc = 0;
};

int collect(char *line, uint32_t length, const char *lineend, uint32_t line_number, void *user) {
  auto *c = static_cast<Collector *>(user);
  // The line must be terminated right behind its length.
  EXPECT_EQ(line[length], '\0');
  c->lines.push_back(Line{std::string(line, length), length, marker_name(lineend), line_number});
  if (c->stop_at != 0 && static_cast<int>(line_number) == c->stop_at) return c->stop_rc;
  return 0;
}

// A parser with its own scratch buffer, fed from separate blocks.
class Parser {
 public:
  explicit Parser(uint32_t scratch_size, uint32_t flags = 0) : m_scratch(scratch_size) {
    EXPECT_EQ(lnparse_init(&ctx, collect, m_scratch.data(), scratch_size, flags, &out), 0);
  }
  // Feeds a copy of text as one block.
  int feed(const std::string &text) {
    m_blocks.emplace_back(text.begin(), text.end());
    return lnparse_data(&ctx, m_blocks.back().data(), static_cast<uint32_t>(text.size()));
  }
  int end() { return lnparse_data(&ctx, nullptr, 0); }

  lnparse_ctx ctx{};
  Collector out;

 private:
  std::vector<char> m_scratch;
  std::vector<std::vector<char>> m_blocks;
};

Line L(const std::string &text, const std::string &marker, uint32_t number) {
  return Line{text, static_cast<uint32_t>(text.size()), marker, number};
}

// ---- lnparse_init ----

TEST(LnparseInit, RejectsNullArgumentsAndEmptyScratch) {
  lnparse_ctx ctx;
  char scratch[8];
  EXPECT_EQ(lnparse_init(nullptr, collect, scratch, 8, 0, nullptr), -22);
  EXPECT_EQ(lnparse_init(&ctx, nullptr, scratch, 8, 0, nullptr), -22);
  EXPECT_EQ(lnparse_init(&ctx, collect, nullptr, 8, 0, nullptr), -22);
  EXPECT_EQ(lnparse_init(&ctx, collect, scratch, 0, 0, nullptr), -22);
}

TEST(LnparseInit, FillsTheContext) {
  lnparse_ctx ctx;
  std::memset(&ctx, 0xA5, sizeof(ctx));
  char scratch[16];
  int user = 0;
  ASSERT_EQ(lnparse_init(&ctx, collect, scratch, 16, LNPARSE_SKIP_EMPTY | LNPARSE_LF_ENDS, &user),
            0);
  EXPECT_EQ(ctx.line_cb, &collect);
  EXPECT_EQ(ctx.scratch, scratch);
  EXPECT_EQ(ctx.scratch_size, 16u);
  EXPECT_EQ(ctx.flags, 6u);
  EXPECT_EQ(ctx.user, &user);
  EXPECT_EQ(ctx.read_ptr, scratch);
  EXPECT_EQ(ctx.read_free, 16u);
  EXPECT_EQ(ctx.pending, 0u);
  EXPECT_EQ(ctx.state, 1u);
  EXPECT_EQ(ctx.line_no, 0u);
}

TEST(LnparseMarkers, HaveTheirTexts) {
  EXPECT_STREQ(LINEEND_NONE, "");
  EXPECT_STREQ(LINEEND_UNIX, "\n");
  EXPECT_STREQ(LINEEND_MAC, "\r");
  EXPECT_STREQ(LINEEND_REVDOS, "\n\r");
  EXPECT_STREQ(LINEEND_DOS, "\r\n");
  EXPECT_EQ(LNPARSE_SKIP_LEADING, 1u);
  EXPECT_EQ(LNPARSE_SKIP_EMPTY, 2u);
  EXPECT_EQ(LNPARSE_LF_ENDS, 4u);
  EXPECT_EQ(LNPARSE_CR_ENDS, 8u);
}

TEST(LnparseData, NullContextIsInvalid) {
  char data[] = "x\n";
  EXPECT_EQ(lnparse_data(nullptr, data, 2), -22);
  EXPECT_EQ(lnparse_data(nullptr, nullptr, 0), -22);
  EXPECT_EQ(lnparse_has_data_pending(nullptr), -22);
}

// ---- line ends ----

TEST(LnparseData, LineEndedByLfIsHandedOverOnlyAtEndOfInput) {
  Parser p(32);
  ASSERT_EQ(p.feed("a\n"), 0);
  EXPECT_TRUE(p.out.lines.empty());
  EXPECT_EQ(p.ctx.line_no, 0u);
  EXPECT_EQ(lnparse_has_data_pending(&p.ctx), 1);
  EXPECT_EQ(p.ctx.state, 2u | 16u);
  EXPECT_EQ(p.ctx.pending, 2u);  // the LF is held with the line
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "UNIX", 1)}));
  EXPECT_EQ(p.ctx.line_no, 1u);
  EXPECT_EQ(p.ctx.state, 1u);
  EXPECT_EQ(p.ctx.pending, 0u);
  EXPECT_EQ(lnparse_has_data_pending(&p.ctx), 0);
}

TEST(LnparseData, LfCrInOneBlockIsOneRevdosLineEnd) {
  Parser p(32);
  ASSERT_EQ(p.feed("\n\rx"), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("", "REVDOS", 1)}));
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("", "REVDOS", 1), L("x", "NONE", 2)}));
}

TEST(LnparseData, LfCrSplitBetweenBlocksBehavesAlike) {
  for (size_t cut = 1; cut <= 2; cut++) {
    SCOPED_TRACE(cut);
    const std::string text = "\n\rx";
    Parser p(32);
    ASSERT_EQ(p.feed(text.substr(0, cut)), 0);
    ASSERT_EQ(p.feed(text.substr(cut)), 0);
    ASSERT_EQ(p.end(), 0);
    EXPECT_EQ(p.out.lines, (std::vector<Line>{L("", "REVDOS", 1), L("x", "NONE", 2)}));
  }
}

TEST(LnparseData, CrAtBlockEndAndLfAtNextStartIsOneDosLine) {
  Parser p(32);
  ASSERT_EQ(p.feed("line\r"), 0);
  EXPECT_TRUE(p.out.lines.empty());
  EXPECT_EQ(p.ctx.state, 2u | 32u);
  ASSERT_EQ(p.feed("\nnext"), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("line", "DOS", 1)}));
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("line", "DOS", 1), L("next", "NONE", 2)}));
}

TEST(LnparseData, LoneCrIsAMacLineEnd) {
  Parser p(32);
  ASSERT_EQ(p.feed("one\rtwo\r"), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("one", "MAC", 1)}));
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("one", "MAC", 1), L("two", "MAC", 2)}));
}

TEST(LnparseData, LastLineWithoutLineEndComesAtEndOfInputWithNone) {
  Parser p(32);
  ASSERT_EQ(p.feed("first\nlast"), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("first", "UNIX", 1)}));
  EXPECT_EQ(lnparse_has_data_pending(&p.ctx), 1);
  EXPECT_EQ(p.ctx.pending, 4u);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("first", "UNIX", 1), L("last", "NONE", 2)}));
}

TEST(LnparseData, EndOfInputInIdleStateCallsNothing) {
  Parser p(32);
  ASSERT_EQ(p.end(), 0);
  EXPECT_TRUE(p.out.lines.empty());
  EXPECT_EQ(p.ctx.line_no, 0u);
  // Also after complete lines: "a\r\n" ends inside the block.
  ASSERT_EQ(p.feed("a\r\n"), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "DOS", 1)}));
  EXPECT_EQ(p.ctx.state, 1u);
  EXPECT_EQ(p.ctx.line_no, 1u);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines.size(), 1u);
  EXPECT_EQ(p.ctx.line_no, 1u);
}

TEST(LnparseData, EmptyBlockMeansEndOfInput) {
  Parser p(32);
  ASSERT_EQ(p.feed("x"), 0);
  char dummy = 'z';
  ASSERT_EQ(lnparse_data(&p.ctx, &dummy, 0), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("x", "NONE", 1)}));
}

TEST(LnparseData, AllFourLineEndsInOneBlock) {
  Parser p(64);
  ASSERT_EQ(p.feed("u\nm\rr\n\rd\r\nend"), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("u", "UNIX", 1), L("m", "MAC", 2),
                                            L("r", "REVDOS", 3), L("d", "DOS", 4)}));
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines.back(), L("end", "NONE", 5));
}

TEST(LnparseData, TwoLfsAreTwoLines) {
  Parser p(16);
  ASSERT_EQ(p.feed("a\n\nb\n"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines,
            (std::vector<Line>{L("a", "UNIX", 1), L("", "UNIX", 2), L("b", "UNIX", 3)}));
}

TEST(LnparseData, CrLfCrIsDosThenMac) {
  Parser p(16);
  ASSERT_EQ(p.feed("a\r\n\rb"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "DOS", 1), L("", "MAC", 2), L("b", "NONE", 3)}));
}

TEST(LnparseData, LfEndsOptionEndsAtOnce) {
  Parser p(16, LNPARSE_LF_ENDS);
  ASSERT_EQ(p.feed("a\n"), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "UNIX", 1)}));
  EXPECT_EQ(p.ctx.state, 1u);
  // LF CR: the LF ends at once, the CR still waits for its follower.
  ASSERT_EQ(p.feed("b\n\rc\r\n"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "UNIX", 1), L("b", "UNIX", 2), L("", "MAC", 3),
                                            L("c", "DOS", 4)}));
}

TEST(LnparseData, CrEndsOptionEndsAtOnce) {
  Parser p(16, LNPARSE_CR_ENDS);
  ASSERT_EQ(p.feed("a\r"), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "MAC", 1)}));
  // CR LF: the CR ends at once, the LF is a line end of its own.
  ASSERT_EQ(p.feed("b\r\nc"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "MAC", 1), L("b", "MAC", 2), L("", "UNIX", 3),
                                            L("c", "NONE", 4)}));
}

TEST(LnparseData, BothEndsOptionsCountLfCrAsTwoLineEnds) {
  Parser p(16, LNPARSE_LF_ENDS | LNPARSE_CR_ENDS);
  ASSERT_EQ(p.feed("a\n\rb\r\n"), 0);
  // No look-ahead: everything is handed over at once.
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "UNIX", 1), L("", "MAC", 2), L("b", "MAC", 3),
                                            L("", "UNIX", 4)}));
  EXPECT_EQ(p.ctx.state, 1u);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines.size(), 4u);
}

TEST(LnparseData, EndOfInputAfterCrGivesMac) {
  Parser p(16);
  ASSERT_EQ(p.feed("a\r"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "MAC", 1)}));
}

// ---- skip options ----

TEST(LnparseData, SkipLeadingDropsBlanksAtTheStartOnly) {
  Parser p(32, LNPARSE_SKIP_LEADING);
  ASSERT_EQ(p.feed("  \t x y  \n   \nz\n"), 0);
  ASSERT_EQ(p.end(), 0);
  // A line of blanks only is empty, but still handed over.
  EXPECT_EQ(p.out.lines,
            (std::vector<Line>{L("x y  ", "UNIX", 1), L("", "UNIX", 2), L("z", "UNIX", 3)}));
}

TEST(LnparseData, WithoutSkipLeadingBlanksStay) {
  Parser p(32);
  ASSERT_EQ(p.feed("  x\n   \n"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("  x", "UNIX", 1), L("   ", "UNIX", 2)}));
}

TEST(LnparseData, SkipEmptyDropsEmptyLinesButCountsThem) {
  Parser p(32, LNPARSE_SKIP_EMPTY);
  ASSERT_EQ(p.feed("a\n\n  \nb\n"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines,
            (std::vector<Line>{L("a", "UNIX", 1), L("  ", "UNIX", 3), L("b", "UNIX", 4)}));
  EXPECT_EQ(p.ctx.line_no, 4u);
}

TEST(LnparseData, SkipLeadingAndEmptyDropBlankLines) {
  Parser p(32, LNPARSE_SKIP_LEADING | LNPARSE_SKIP_EMPTY);
  ASSERT_EQ(p.feed("a\n \t \n\n  b\n"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "UNIX", 1), L("b", "UNIX", 4)}));
}

// ---- callback result ----

TEST(LnparseData, NonZeroCallbackResultStopsAndIsReturned) {
  Parser p(32);
  p.out.stop_at = 2;
  p.out.stop_rc = -77;
  ASSERT_EQ(p.feed("xy"), 0);
  char *read_ptr_before = p.ctx.read_ptr;
  ASSERT_EQ(read_ptr_before, p.ctx.scratch + 2);
  ASSERT_EQ(p.feed("\r\nb\r\nc\r\nd"), -77);
  // The rest of the block is not looked at, and read_ptr/read_free are not
  // refreshed (a refresh would point them at the empty scratch).
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("xy", "DOS", 1), L("b", "DOS", 2)}));
  EXPECT_EQ(p.ctx.read_ptr, read_ptr_before);
  EXPECT_EQ(p.ctx.read_free, 30u);
  EXPECT_EQ(p.ctx.line_no, 2u);
}

TEST(LnparseData, NonZeroCallbackResultOfPendingLineResetsState) {
  Parser p(32);
  p.out.stop_at = 1;
  p.out.stop_rc = 5;
  ASSERT_EQ(p.feed("ab"), 0);
  ASSERT_EQ(p.feed("c\r\nd\r\n"), 5);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("abc", "DOS", 1)}));
  // The pending line was consumed whatever the callback said.
  EXPECT_EQ(p.ctx.pending, 0u);
  EXPECT_EQ(lnparse_has_data_pending(&p.ctx), 0);
}

TEST(LnparseData, NonZeroCallbackResultAtEndOfInputIsReturned) {
  Parser p(32);
  p.out.stop_at = 1;
  p.out.stop_rc = 9;
  ASSERT_EQ(p.feed("tail"), 0);
  EXPECT_EQ(p.end(), 9);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("tail", "NONE", 1)}));
}

// ---- lines across blocks and in place ----

TEST(LnparseData, LineAcrossBlocksIsAssembledInScratch) {
  Parser p(32);
  ASSERT_EQ(p.feed("hel"), 0);
  EXPECT_EQ(p.ctx.pending, 3u);
  EXPECT_EQ(p.ctx.read_free, 29u);
  ASSERT_EQ(p.feed("lo wo"), 0);
  EXPECT_EQ(p.ctx.pending, 8u);
  ASSERT_EQ(p.feed("rld\nnext"), 0);
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("hello world", "UNIX", 1)}));
  EXPECT_EQ(p.ctx.pending, 4u);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(p.out.lines.back(), L("next", "NONE", 2));
}

TEST(LnparseData, LinesInsideABlockAreCutInPlace) {
  char scratch[16];
  Collector out;
  lnparse_ctx ctx;
  ASSERT_EQ(lnparse_init(&ctx, collect, scratch, sizeof(scratch), 0, &out), 0);
  char block[] = "ab\r\ncd\r\nef";
  ASSERT_EQ(lnparse_data(&ctx, block, 10), 0);
  // The line ends in the caller's block were overwritten by terminators.
  EXPECT_EQ(std::memcmp(block, "ab\0\ncd\0\nef", 10), 0);
  // Only the tail went to scratch.
  EXPECT_EQ(ctx.pending, 2u);
  EXPECT_EQ(std::memcmp(scratch, "ef", 2), 0);
  EXPECT_EQ(ctx.read_ptr, scratch + 2);
  EXPECT_EQ(ctx.read_free, 14u);
}

// Reads text into the parser the intended way: straight into read_ptr,
// at most read_free and at most chunk bytes at a time.
std::vector<Line> read_in_chunks(const std::string &text, size_t chunk, uint32_t scratch_size,
                                 uint32_t flags) {
  std::vector<char> scratch(scratch_size);
  Collector out;
  lnparse_ctx ctx;
  EXPECT_EQ(lnparse_init(&ctx, collect, scratch.data(), scratch_size, flags, &out), 0);
  size_t pos = 0;
  while (pos < text.size()) {
    EXPECT_GE(ctx.read_ptr, scratch.data());
    EXPECT_EQ(ctx.read_ptr + ctx.read_free, scratch.data() + scratch_size);
    size_t n = std::min({chunk, static_cast<size_t>(ctx.read_free), text.size() - pos});
    EXPECT_GT(n, 0u);
    std::memcpy(ctx.read_ptr, text.data() + pos, n);
    EXPECT_EQ(lnparse_data(&ctx, ctx.read_ptr, static_cast<uint32_t>(n)), 0);
    pos += n;
  }
  EXPECT_EQ(lnparse_data(&ctx, nullptr, 0), 0);
  EXPECT_EQ(ctx.read_ptr, scratch.data());
  EXPECT_EQ(ctx.read_free, scratch_size);
  return out.lines;
}

TEST(LnparseData, ReadingIntoReadPtrInChunksOfEverySizeGivesTheSameLines) {
  const std::string text =
      "[root]\n"
      "alpha = 1\r\n"
      "beta\r"
      "\n"
      "  gamma delta\n\r"
      "\n\n"
      "mac\r\r"
      "epsilon \t\n"
      "zeta";
  const std::vector<Line> expected = {
      L("[root]", "UNIX", 1),     L("alpha = 1", "DOS", 2),
      L("beta", "DOS", 3),        L("  gamma delta", "REVDOS", 4),
      L("", "UNIX", 5),           L("", "UNIX", 6),
      L("mac", "MAC", 7),         L("", "MAC", 8),
      L("epsilon \t", "UNIX", 9), L("zeta", "NONE", 10),
  };
  for (size_t chunk = 1; chunk <= text.size() + 1; chunk++) {
    SCOPED_TRACE("chunk " + std::to_string(chunk));
    EXPECT_EQ(read_in_chunks(text, chunk, 20, 0), expected);
  }
}

TEST(LnparseData, ReadingInChunksWithSkipOptions) {
  const std::string text = "  a b\n\n \t\nc\r\n   d  \r";
  const std::vector<Line> expected = {L("a b", "UNIX", 1), L("c", "DOS", 4), L("d  ", "MAC", 5)};
  for (size_t chunk = 1; chunk <= text.size() + 1; chunk++) {
    SCOPED_TRACE("chunk " + std::to_string(chunk));
    EXPECT_EQ(read_in_chunks(text, chunk, 12, LNPARSE_SKIP_LEADING | LNPARSE_SKIP_EMPTY), expected);
  }
}

// ---- overflow ----

TEST(LnparseOverflow, LongLineOverSeveralBlocksPrintsOneMessageAndKeepsNumbering) {
  Parser p(8);
  testing::internal::CaptureStdout();
  ASSERT_EQ(p.feed("ok\n"), 0);
  ASSERT_EQ(p.feed("abcd"), 0);  // line 2 starts
  ASSERT_EQ(p.feed("efgh"), 0);  // 4 + 4 bytes do not fit 8 with the terminator
  EXPECT_EQ(p.ctx.state & 15u, 3u);
  EXPECT_EQ(p.ctx.pending, 0u);
  ASSERT_EQ(p.feed("ijklmnop"), 0);  // dropped silently
  ASSERT_EQ(p.feed("qr"), 0);        // dropped silently
  ASSERT_EQ(p.feed("st\nnext\n"), 0);
  ASSERT_EQ(p.end(), 0);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed,
            "parse_mid_chunk() scratch buffer overflow, (line 1 length > 8) line is ignored.\n");
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("ok", "UNIX", 1), L("next", "UNIX", 3)}));
  EXPECT_EQ(p.ctx.line_no, 3u);
}

TEST(LnparseOverflow, BlockFillingTheWholeScratchOverflows) {
  Parser p(4);
  testing::internal::CaptureStdout();
  ASSERT_EQ(p.feed("abcd"), 0);  // no room for the terminator
  ASSERT_EQ(p.feed("\r\nxy\r\n"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "parse_mid_chunk() scratch buffer overflow, (line 0 length > 4) line is ignored.\n");
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("xy", "DOS", 2)}));
}

TEST(LnparseOverflow, EndChunkOverflowDropsTheLineAndCountsIt) {
  for (uint32_t flags : {0u, LNPARSE_LF_ENDS}) {
    SCOPED_TRACE(flags);
    Parser p(8, flags);
    testing::internal::CaptureStdout();
    ASSERT_EQ(p.feed("abcde"), 0);  // pending 5, 3 bytes free
    EXPECT_EQ(p.ctx.pending, 5u);
    // The chunk "fg\n" ends inside the block (decided by the 'o' without
    // LF_ENDS) and needs more than the 3 free bytes with its terminator.
    ASSERT_EQ(p.feed("fg\nok\n"), 0);
    ASSERT_EQ(p.end(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "parse_end_chunk() scratch buffer overflow, (line 0 length 8) line is ignored.\n");
    EXPECT_EQ(p.out.lines, (std::vector<Line>{L("ok", "UNIX", 2)}));
    EXPECT_EQ(p.ctx.line_no, 2u);
  }
}

TEST(LnparseOverflow, EndingChunkHeldBackAtBlockEndOverflowsInMidChunk) {
  Parser p(8);
  testing::internal::CaptureStdout();
  ASSERT_EQ(p.feed("abcde"), 0);
  // The LF is the block's last byte, so the chunk has not ended yet and is
  // kept as the tail, which no longer fits.
  ASSERT_EQ(p.feed("fg\n"), 0);
  EXPECT_EQ(p.ctx.state, 3u | 16u);
  ASSERT_EQ(p.feed("x\n"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "parse_mid_chunk() scratch buffer overflow, (line 0 length > 8) line is ignored.\n");
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("x", "UNIX", 2)}));
}

TEST(LnparseOverflow, OverflowedLastLineIsCountedAtEndOfInput) {
  Parser p(4);
  testing::internal::CaptureStdout();
  ASSERT_EQ(p.feed("a\nbcdefgh"), 0);
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "parse_mid_chunk() scratch buffer overflow, (line 1 length > 4) line is ignored.\n");
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("a", "UNIX", 1)}));
  EXPECT_EQ(p.ctx.line_no, 2u);
  EXPECT_EQ(p.ctx.state, 1u);
}

TEST(LnparseOverflow, LongestLineThatFitsIsHandedOver) {
  Parser p(8);
  testing::internal::CaptureStdout();
  ASSERT_EQ(p.feed("abc"), 0);
  ASSERT_EQ(p.feed("defg"), 0);  // 7 bytes pending, the terminator fits
  ASSERT_EQ(p.end(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(p.out.lines, (std::vector<Line>{L("abcdefg", "NONE", 1)}));
}

// ---- words ----

TEST(LnparseArgs, CountCountsLongestRunsAboveBlank) {
  EXPECT_EQ(lnparse_arg_count(""), 0);
  EXPECT_EQ(lnparse_arg_count("   \t "), 0);
  EXPECT_EQ(lnparse_arg_count("one"), 1);
  EXPECT_EQ(lnparse_arg_count("  one two\tthree\x01"
                              "four  "),
            4);
  // Bytes above 127 are word bytes, as unsigned.
  EXPECT_EQ(lnparse_arg_count("\xC3\xA4 \xFF"), 2);
  EXPECT_EQ(lnparse_arg_count(nullptr), -22);
}

TEST(LnparseArgs, SeparateFiveWordsWithMaxFour) {
  char text[] = " one two  three\tfour five  ";
  char *argv[5] = {nullptr, nullptr, nullptr, nullptr, nullptr};
  ASSERT_EQ(lnparse_arg_separate(text, argv, 4), 5);
  EXPECT_STREQ(argv[0], "one");
  EXPECT_STREQ(argv[1], "two");
  EXPECT_STREQ(argv[2], "three");
  EXPECT_STREQ(argv[3], "four");
  EXPECT_EQ(argv[4], nullptr);
  // The words point into the text, which was cut in place.
  EXPECT_EQ(argv[0], text + 1);
  EXPECT_EQ(argv[3], text + 16);
  // The fourth word is cut, the fifth stays joined to what follows it.
  EXPECT_EQ(text[20], '\0');
  EXPECT_STREQ(text + 21, "five  ");
}

TEST(LnparseArgs, SeparateWithRoomForAll) {
  char text[] = "set /a/b \"x\"";
  char *argv[8] = {};
  ASSERT_EQ(lnparse_arg_separate(text, argv, 8), 3);
  EXPECT_STREQ(argv[0], "set");
  EXPECT_STREQ(argv[1], "/a/b");
  EXPECT_STREQ(argv[2], "\"x\"");
  EXPECT_EQ(argv[3], nullptr);
}

TEST(LnparseArgs, SeparateEmptyAndBlankTexts) {
  char empty[] = "";
  char blank[] = " \t ";
  char *argv[2] = {};
  EXPECT_EQ(lnparse_arg_separate(empty, argv, 2), 0);
  EXPECT_EQ(lnparse_arg_separate(blank, argv, 2), 0);
  EXPECT_STREQ(blank, " \t ");
  EXPECT_EQ(argv[0], nullptr);
}

TEST(LnparseArgs, SeparateWithMaxZeroOnlyCounts) {
  char text[] = "a b c";
  EXPECT_EQ(lnparse_arg_separate(text, nullptr, 0), 3);
  EXPECT_STREQ(text, "a b c");
  EXPECT_EQ(lnparse_arg_separate(nullptr, nullptr, 0), -22);
  EXPECT_EQ(lnparse_arg_separate(text, nullptr, 1), -22);
}

// ---- memcpy ----

TEST(LnparseMemcpy, CopiesDisjointBuffers) {
  char src[] = "abcdef";
  char dst[7] = {};
  EXPECT_EQ(lnparse_memcpy(dst, src, 7), dst);
  EXPECT_STREQ(dst, "abcdef");
}

TEST(LnparseMemcpy, OverlapForwardAndBackward) {
  char buf[] = "0123456789";
  EXPECT_EQ(lnparse_memcpy(buf + 2, buf, 6), buf + 2);  // target above source
  EXPECT_STREQ(buf, "0101234589");
  char buf2[] = "0123456789";
  EXPECT_EQ(lnparse_memcpy(buf2, buf2 + 3, 6), buf2);  // target below source
  EXPECT_STREQ(buf2, "3456786789");
  char buf3[] = "0123";
  EXPECT_EQ(lnparse_memcpy(buf3, buf3, 4), buf3);
  EXPECT_STREQ(buf3, "0123");
  EXPECT_EQ(lnparse_memcpy(buf3, "zz", 0), buf3);
  EXPECT_STREQ(buf3, "0123");
}

}  // namespace
