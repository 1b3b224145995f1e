#include <gmock/gmock.h>

#include <cerrno>

#include "LogFixture.h"
#include "support/LogCapture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

enum class EWide : uint64_t { Big = 0x1234567890abcdefULL };
enum class ENarrow : uint8_t { Seven = 7 };

// What the compiler decides about a literal.
template <size_t N, class... A>
consteval bool Fits(const char (&szText)[N], const A&...) {
  constexpr zxlog::EArg kinds[sizeof...(A) + 1] = {zxlog::ArgKind<A>()..., zxlog::EArg::Bad};
  return zxlog::CheckFormat(szText, kinds, sizeof...(A));
}
static_assert(Fits("plain"));
static_assert(Fits("%s %d %u %x 100%%", "a", 1, 2u, 3));
static_assert(Fits("%llx %lld %lu %08llX %p", 1ULL, 2LL, 3UL, 4ULL, nullptr));
static_assert(Fits("%02hhx %.2f", '\1', 0.5));
static_assert(!Fits("%d", 1ULL));
static_assert(!Fits("%llu", 1u));
static_assert(!Fits("%s", 1));
static_assert(!Fits("%d", "a"));
static_assert(!Fits("%d"));
static_assert(!Fits("none", 1));
static_assert(!Fits("%"));
static_assert(!Fits("%n", 1));
static_assert(zxlog::Stars("**x") == 2 && zxlog::Stars("x*") == 0);

class LogFront_test : public CLogHomeTest {};

TEST_F(LogFront_test, Calls_PassEveryKindOfArgument) {
  CLogCapture capture;
  const HLog h = capture.Open("zxagent");
  const std::string strStd = "std";
  const CPString strOwn("own");
  const char* pszNull = nullptr;
  char szArray[] = "array";
  LogInfoTo(h, "s[%s] o[%s] a[%s] n[%s]", strStd, strOwn, szArray, pszNull);
  LogInfoTo(h, "u[%u] x[%llx] b[%d] f[%.1f]", 4000000000u, uint64_t{0xfeed00000001}, true, 2.5f);
  LogInfoTo(h, "w[%llx] n[%d] l[%ld] c[%d]", EWide::Big, ENarrow::Seven, -5L, static_cast<signed char>(-1));
  LogInfoTo(h, "p[%p]", nullptr);
  EXPECT_THAT(capture.Lines(),
              ElementsAre("s[std] o[own] a[array] n[(null)]", "u[4000000000] x[feed00000001] b[1] f[2.5]",
                          "w[1234567890abcdef] n[7] l[-5] c[-1]", "p[(nil)]"));
}

TEST_F(LogFront_test, Calls_CarryTheirLevel) {
  CLogCapture capture;
  const HLog h = capture.Open("zxagent");
  LogDetailTo(h, "detail");
  LogDetailWarnTo(h, "*detail warning");
  LogInfoTo(h, "info");
  EXPECT_EQ(LogWarnTo(h, "*warning"), 0);
  EXPECT_EQ(LogErrorTo(h, "**error"), 0);
  LogTraceTo(h, "trace");
  std::vector<int> levels;
  for (const CLogCapture::CEntry& entry : capture.Entries()) {
    EXPECT_EQ(entry.strChannel, "zxagent");
    levels.push_back(entry.iLevel);
  }
  EXPECT_THAT(levels, ElementsAre(1, 1, 2, 3, 4, 6));
}

TEST_F(LogFront_test, Lines_BelowTheThreshold_AreNotSeen) {
  CLogCapture capture;
  const HLog h = capture.Open("zxagent", kLogWarn);
  EXPECT_FALSE(LogCheckLevel(h, kLogInfo));
  EXPECT_TRUE(LogCheckLevel(h, kLogWarn));
  LogInfoTo(h, "hidden");
  LogPrint(h, 2, "hidden");
  LogPrintStr(h, 2, "hidden");
  LogWarnTo(h, "*seen");
  EXPECT_THAT(capture.Lines(), ElementsAre("*seen"));
}

TEST_F(LogFront_test, NullHandle_SwallowsEverything) {
  CLogCapture capture;
  EXPECT_FALSE(LogCheckLevel(nullptr, 6));
  LogPrint(nullptr, 4, "x");
  LogPrintStr(nullptr, 4, "x");
  EXPECT_EQ(LogWarnTo(nullptr, "*x"), 0);
  LogUninit(nullptr);
  const HLog h = capture.Open("zxagent");
  LogPrintStr(h, 4, nullptr);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(LogFront_test, Sink_GetsTheTextAsFormatted) {
  CLogCapture capture;
  const HLog h = capture.Open("zxagent");
  const std::string strLong(5000, 'x');
  LogPrint(h, 2, "%s\n%d%%\n", "two lines", 5);
  LogPrintStr(h, 2, "100% %s as it stands");
  LogPrint(h, 2, "%s", strLong.c_str());
  LogPrint(h, 2, "%s", "");
  EXPECT_THAT(capture.Lines(), ElementsAre("two lines\n5%\n", "100% %s as it stands", strLong, ""));
}

TEST_F(LogFront_test, Sink_MayBeSetBeforeOrAfterAChannelIsOpened) {
  const HLog hBefore = LogInit("before");
  CLogCapture capture;
  const HLog hAfter = LogInit("after");
  LogPrintStr(hBefore, 2, "a");
  LogPrintStr(hAfter, 2, "b");
  EXPECT_THAT(capture.Lines(), ElementsAre("a", "b"));
  EXPECT_EQ(LogSetSink(nullptr), &capture);
  LogPrintStr(hAfter, 2, "unseen");
  EXPECT_EQ(LogSetSink(&capture), nullptr);
  LogUninit(hBefore);
  LogUninit(hAfter);
  EXPECT_THAT(capture.Lines(), ElementsAre("a", "b"));
}

TEST_F(LogFront_test, Calls_KeepErrno) {
  const HLog h = LogInit("zxagent");
  errno = EBUSY;
  LogPrint(h, 2, "errno[%d]", errno);
  LogPrintStr(h, 2, "x");
  EXPECT_EQ(errno, EBUSY);
  LogUninit(h);
}

TEST_F(LogFront_test, Capture_WaitsForALine) {
  CLogCapture capture;
  const HLog h = capture.Open("zxagent");
  EXPECT_FALSE(capture.WaitFor("needle", 1));
  LogPrintStr(h, 2, "a needle here");
  EXPECT_TRUE(capture.WaitFor("needle"));
  EXPECT_TRUE(capture.Contains("needle"));
  capture.Clear();
  EXPECT_FALSE(capture.Contains("needle"));
}

}  // namespace
