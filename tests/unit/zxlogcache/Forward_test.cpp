// When what is sent to the agent, with a clock of the test's own and an agent that is a list.
#include "zxlogcache/Forward.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "platform/bus/zxbus.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "zxlogcache/Records.h"

using namespace zxlogcache;
using testing::HasSubstr;

namespace {

constexpr int64_t kWall = 1700000000000;

class Forward : public testing::Test {
 protected:
  struct _Sent {
    uint64_t u64Id;
    std::string strText;
  };

  Forward() {
    m_settings.uiLingerMs = 0;
    m_settings.uiWindow = 4;
    m_settings.uiRetryMinMs = 1000;
    m_settings.uiRetryMaxMs = 8000;
    Begin();
  }
  void Begin() {
    std::string strAside;
    ASSERT_TRUE(m_store.Open(m_home.Path("store.db").Str(), kWall, strAside));
    m_store.SetClock(kWall, m_u64NowMs);
    m_i64A = Register("a");
    m_i64B = Register("b");
    m_pForward = std::make_unique<CForward>(
        m_settings,
        [this](const _SourceSettings& source, uint64_t u64Id, const std::string& strBody) {
          m_sent.push_back({u64Id, CacheText(source, u64Id, strBody)});
          return m_uiBus;
        },
        m_log.Open("zxlogforward"), 1);
    ASSERT_TRUE(m_pForward->Load(m_store));
  }
  int64_t Register(const char* pszName) {
    _SourceSettings source;
    source.strName = source.strProduct = source.strCombo = pszName;
    source.strGuid = "9946467F-0102-46E8-ACAC-B9EFE3CD68FD";
    source.eBody = EBody::Record;
    int64_t i64Source = 0;
    EXPECT_TRUE(m_store.Begin() && m_store.Register(source, i64Source) && m_store.Commit());
    return i64Source;
  }
  void Append(int64_t i64Source, const std::string& strRecord) {
    std::string strChunk;
    PackRecord(strRecord, strChunk);
    EXPECT_TRUE(m_store.Begin() && m_store.Append(i64Source, kWall, strChunk, 1) && m_store.Commit());
  }
  void Turn() {
    m_store.SetClock(kWall, m_u64NowMs);
    ASSERT_TRUE(m_store.Begin() && m_pForward->LetGo(m_store) && m_pForward->Form(m_store, m_u64NowMs) &&
                m_store.Commit());
    m_pForward->Committed();
    m_pForward->Send(m_store, m_u64NowMs);
  }
  void Pass(uint64_t u64Ms) {
    m_u64NowMs += u64Ms;
    Turn();
  }
  void Accept(uint64_t u64Id) { m_pForward->OnReply(u64Id, 0, m_u64NowMs); }
  void Refuse(uint64_t u64Id, uint32_t uiStatus) { m_pForward->OnReply(u64Id, uiStatus, m_u64NowMs); }
  void Result(uint64_t u64Id, int32_t iResult) { m_pForward->OnResult(u64Id, iResult, m_u64NowMs); }
  uint64_t Id(size_t uSent) const { return m_sent.at(uSent).u64Id; }

  CTempHome m_home;
  CLogCapture m_log;
  _Settings m_settings;
  CStore m_store;
  std::unique_ptr<CForward> m_pForward;
  std::vector<_Sent> m_sent;
  uint32_t m_uiBus = 0;
  uint64_t m_u64NowMs = 5000;
  int64_t m_i64A = 0, m_i64B = 0;
};

TEST_F(Forward, Record_IsKept_UntilItsResultSaysDone) {
  Append(m_i64A, "body");
  Turn();
  ASSERT_EQ(m_sent.size(), 1u);
  char szId[32];
  std::snprintf(szId, sizeof(szId), "<dataid=%llx>", static_cast<unsigned long long>(Id(0)));
  EXPECT_THAT(m_sent[0].strText, HasSubstr(szId));
  EXPECT_THAT(m_sent[0].strText, HasSubstr("<product=a><combo=a>"));
  EXPECT_THAT(m_sent[0].strText, HasSubstr("<end=1><msg=body>"));
  Accept(Id(0));
  Pass(1000);
  EXPECT_EQ(m_store.Held().u64Records, 1u) << "accepted is not uploaded";
  Result(Id(0), 0);
  EXPECT_EQ(m_pForward->NextMs(m_u64NowMs), m_u64NowMs);
  Turn();
  EXPECT_EQ(m_store.Held().u64Records, 0u);
  EXPECT_EQ(m_pForward->InFlight(), 0u);
  EXPECT_EQ(m_pForward->Counts().u64Forwarded, 1u);
  EXPECT_EQ(m_pForward->NextMs(m_u64NowMs), UINT64_MAX);
}

TEST_F(Forward, ResultBeforeTheAnswer_Counts) {
  Append(m_i64A, "1");
  Turn();
  Result(Id(0), 0);
  Accept(Id(0));
  Turn();
  EXPECT_EQ(m_store.Held().u64Records, 0u);
}

TEST_F(Forward, Window_IsKept) {
  for (int i = 0; i < 10; ++i)
    Append(m_i64A, std::to_string(i));
  Turn();
  EXPECT_EQ(m_sent.size(), 4u);
  Accept(Id(0));
  Turn();
  EXPECT_EQ(m_sent.size(), 4u);
  Result(Id(0), 0);
  Result(Id(1), 0);
  Turn();
  EXPECT_EQ(m_sent.size(), 6u);
}

TEST_F(Forward, Refused_IsRepeatedUnderTheSameId_WithGrowingPauses) {
  Append(m_i64A, "1");
  Turn();
  uint64_t u64Last = m_u64NowMs;
  std::vector<uint64_t> pauses;
  for (int i = 0; i < 6; ++i) {
    Refuse(Id(m_sent.size() - 1), 0xB0010003);
    const size_t uBefore = m_sent.size();
    const uint64_t u64Due = m_pForward->NextMs(m_u64NowMs);
    m_u64NowMs = u64Due - 1;
    Turn();
    ASSERT_EQ(m_sent.size(), uBefore) << "before its time";
    Pass(1);
    ASSERT_EQ(m_sent.size(), uBefore + 1);
    EXPECT_EQ(m_sent.back().u64Id, Id(0));
    EXPECT_EQ(m_sent.back().strText, m_sent[0].strText);
    pauses.push_back(m_u64NowMs - u64Last);
    u64Last = m_u64NowMs;
  }
  for (size_t u = 0; u < pauses.size(); ++u) {
    const uint64_t u64Full = std::min<uint64_t>(8000, 1000u << u);
    EXPECT_GE(pauses[u], u64Full / 2) << u;
    EXPECT_LE(pauses[u], u64Full) << u;
  }
  EXPECT_EQ(m_log.Count("*zxrelay refused source[a]"), 1u) << "once for each reason";
  Result(Id(0), 0);
  Turn();
  EXPECT_EQ(m_store.Held().u64Records, 0u);
  EXPECT_TRUE(m_log.Contains("zxrelay gets through again source[a]"));
}

TEST_F(Forward, FailedUpload_IsRepeated) {
  Append(m_i64A, "1");
  Turn();
  Accept(Id(0));
  Result(Id(0), static_cast<int32_t>(0xB0010026));
  EXPECT_TRUE(m_log.Contains("*zxrelay not uploaded source[a]"));
  Pass(1000);
  EXPECT_EQ(m_sent.size(), 2u);
  EXPECT_EQ(m_pForward->Counts().u64Failed, 1u);
}

TEST_F(Forward, AfterAFailure_OneIsTried_ThenTheWindowOpens) {
  for (int i = 0; i < 8; ++i)
    Append(m_i64A, std::to_string(i));
  Turn();
  ASSERT_EQ(m_sent.size(), 4u);
  for (size_t u = 0; u < 4; ++u)
    Refuse(Id(u), 0xB0010003);
  Pass(2000);
  ASSERT_EQ(m_sent.size(), 5u);
  Pass(60000);
  EXPECT_EQ(m_sent.size(), 5u) << "the one tried has no answer yet";
  Result(Id(4), 0);
  Turn();
  EXPECT_EQ(m_sent.size(), 9u);
}

TEST_F(Forward, SourceThatIsNeverTaken_DoesNotHoldUpOthers) {
  for (int i = 0; i < 8; ++i)
    Append(m_i64A, std::to_string(i));
  Turn();
  for (size_t u = 0; u < 4; ++u)
    Refuse(Id(u), 0xB0010053);
  for (int i = 0; i < 8; ++i)
    Append(m_i64B, "b" + std::to_string(i));
  size_t uTaken = 0, uSeen = m_sent.size();
  for (int iRound = 0; iRound < 40; ++iRound) {
    Pass(500);
    for (; uSeen < m_sent.size(); ++uSeen) {
      const bool bB = m_sent[uSeen].strText.find("<product=b>") != std::string::npos;
      uTaken += bB ? 1 : 0;
      bB ? Result(Id(uSeen), 0) : Refuse(Id(uSeen), 0xB0010053);
    }
  }
  EXPECT_EQ(uTaken, 8u);
  EXPECT_EQ(m_store.Held().u64Records, 8u);
}

TEST_F(Forward, LogCacheThatIsNeverTaken_DoesNotHoldUpItsSource) {
  for (int i = 0; i < 6; ++i)
    Append(m_i64A, std::to_string(i));
  size_t uSeen = 0;
  for (int iRound = 0; iRound < 400 && m_store.Held().u64Records > 1; ++iRound) {
    Pass(500);
    for (; uSeen < m_sent.size(); ++uSeen)
      Result(Id(uSeen), Id(uSeen) == Id(0) ? 5 : 0);
  }
  EXPECT_EQ(m_store.Held().u64Records, 1u);
}

TEST_F(Forward, MissingResult_IsRepeatedAfterItsTime) {
  m_settings.uiResultTimeoutMs = 30000;
  Append(m_i64A, "1");
  Turn();
  Accept(Id(0));
  Pass(29999);
  EXPECT_EQ(m_sent.size(), 1u);
  Pass(1);
  EXPECT_TRUE(m_log.Contains("*zxrelay has no upload result source[a]"));
  Pass(1000);
  EXPECT_EQ(m_sent.size(), 2u);
  Result(Id(0), 0);
  Turn();
  Result(Id(0), 7);  // the first attempt's result, late
  EXPECT_EQ(m_store.Held().u64Records, 0u);
}

TEST_F(Forward, AgentThatIsGone_LosesWhatItHadAccepted_WeDoNot) {
  for (int i = 0; i < 3; ++i)
    Append(m_i64A, std::to_string(i));
  Turn();
  Accept(Id(0));
  Accept(Id(1));
  m_uiBus = kBusErrNoTarget;
  Refuse(Id(2), kBusErrGone);
  Pass(1000);
  ASSERT_EQ(m_sent.size(), 4u);
  m_uiBus = 0;
  size_t uSeen = 4;
  for (int iRound = 0; iRound < 60 && m_store.Held().u64Records > 0; ++iRound) {
    Pass(500);
    for (; uSeen < m_sent.size(); ++uSeen)
      Result(Id(uSeen), 0);
  }
  EXPECT_EQ(m_store.Held().u64Records, 0u);
}

TEST_F(Forward, Restart_SendsWhatWasUnderWay_UnderItsId) {
  Append(m_i64A, "1");
  Append(m_i64A, "2");
  Turn();
  Accept(Id(0));
  const uint64_t u64First = Id(0), u64Second = Id(1);
  m_store.Close();
  m_sent.clear();
  Begin();
  Turn();
  ASSERT_EQ(m_sent.size(), 2u);
  EXPECT_EQ(Id(0), u64First);
  EXPECT_EQ(Id(1), u64Second);
  EXPECT_EQ(m_store.Held().u64Records, 2u);
}

TEST_F(Forward, RolledBack_IsDoneAgain) {
  Append(m_i64A, "1");
  ASSERT_TRUE(m_store.Begin() && m_pForward->Form(m_store, m_u64NowMs));
  m_store.Rollback();
  m_pForward->RolledBack();
  Turn();
  ASSERT_EQ(m_sent.size(), 1u);
  Result(Id(0), 0);
  ASSERT_TRUE(m_store.Begin() && m_pForward->LetGo(m_store));
  m_store.Rollback();
  m_pForward->RolledBack();
  EXPECT_EQ(m_pForward->NextMs(m_u64NowMs), m_u64NowMs) << "still to be let go of";
  EXPECT_EQ(m_store.Held().u64Records, 1u);
  Turn();
  EXPECT_EQ(m_store.Held().u64Records, 0u);
}

TEST_F(Forward, TooOld_IsGivenUp_AndSaid) {
  m_settings.i64MaxAgeMs = 60000;
  Append(m_i64A, "1");
  Turn();
  Refuse(Id(0), 0xB0010053);
  Pass(59999);
  EXPECT_EQ(m_store.Held().u64Records, 1u);
  Refuse(m_sent.back().u64Id, 0xB0010053);
  Pass(2);
  EXPECT_EQ(m_store.Held().u64Records, 0u);
  EXPECT_EQ(m_pForward->Counts().u64Expired, 1u);
  EXPECT_TRUE(m_log.Contains("*zxrelay gives up: too old"));
}

}  // namespace
