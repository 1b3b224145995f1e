#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/FakeMid.h"
#include "support/MainLog.h"
#include "system/AgentSystem.h"

using testing::ElementsAre;

namespace {

class GetSysMid : public testing::Test {
 protected:
  GetSysMid() { m_fake.Reset(); }
  int Call(const char* pszKey) {
    return m_system.GetSysMid(pszKey, m_strMid1, m_strMid2, m_strSn, m_strDisk, m_strMac);
  }

  CFakeMid& m_fake = CFakeMid::Instance();
  CMainLog m_log;
  CAgentSystem m_system;
  CPString m_strMid1 = "old1", m_strMid2 = "old2", m_strSn = "oldsn", m_strDisk = "olddisk",
           m_strMac = "oldmac";
};

void LogCallback(zxlog_module, zxlog_level, const char*) {}

struct _FailureCase {
  const char* pszFunction;
  const char* pszLine;
  int iFilled;  // outputs with new values
};

class GetSysMidFailure : public GetSysMid, public testing::WithParamInterface<_FailureCase> {};

}  // namespace

TEST_F(GetSysMid, AsksForTheFiveTextsInOrder) {
  EXPECT_EQ(Call("key"), 1);
  EXPECT_THAT(m_fake.Calls(), ElementsAre("zxmid_param(key,0,0)", "mid", "mid2", "zxmid_getmid2sn",
                                          "zxmid_getmid2disk", "zxmid_getmid2mac"));
  EXPECT_TRUE(m_fake.BuffersWereClean());
  EXPECT_EQ(m_strMid1, "fake-mid");
  EXPECT_EQ(m_strMid2, "fake-mid2");
  EXPECT_EQ(m_strSn, "fake-zxmid_getmid2sn");
  EXPECT_EQ(m_strDisk, "fake-zxmid_getmid2disk");
  EXPECT_EQ(m_strMac, "fake-zxmid_getmid2mac");
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::GetSysMid start strMidKey[key]"), kLogDetail);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::GetSysMid frommid mid1[fake-mid] mid2[fake-mid2] "
                          "strMidSn[fake-zxmid_getmid2sn] strMidDisk[fake-zxmid_getmid2disk] "
                          "strMidMac[fake-zxmid_getmid2mac] strMidKey[key]"),
            kLogInfo);
}

TEST_F(GetSysMid, LeavesTheLibrarysKeyAlone_WhenTheKeyIsEmpty) {
  EXPECT_EQ(Call(""), 1);
  EXPECT_THAT(m_fake.Calls(),
              ElementsAre("mid", "mid2", "zxmid_getmid2sn", "zxmid_getmid2disk", "zxmid_getmid2mac"));
}

TEST_F(GetSysMid, StopsBeforeTheIds_WhenTheKeyIsRefused) {
  m_fake.SetResult("zxmid_param", 9);
  EXPECT_EQ(Call("key"), 0);
  EXPECT_THAT(m_fake.Calls(), ElementsAre("zxmid_param(key,0,0)"));
  EXPECT_EQ(m_strMid1, "old1");
  EXPECT_EQ(m_log.LevelOf("**zxagent CAgentSystem::GetSysMid zxmid_param Error iGetMid[9]"), kLogError);
}

TEST_F(GetSysMid, TakesTextsUpToTheCapacity) {
  m_fake.SetText("mid", std::string(511, 'm'));
  m_fake.SetText("zxmid_getmid2sn", "");
  EXPECT_EQ(Call(""), 1);
  EXPECT_EQ(m_strMid1, std::string(511, 'm'));
  EXPECT_TRUE(m_strSn.IsEmpty());
}

TEST_P(GetSysMidFailure, KeepsWhatCameBeforeIt) {
  const _FailureCase& failure = GetParam();
  m_fake.SetResult(failure.pszFunction, -7);
  EXPECT_EQ(Call(""), 0);
  const CPString* const outputs[] = {&m_strMid1, &m_strMid2, &m_strSn, &m_strDisk, &m_strMac};
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(outputs[i]->Left(5) == "fake-", i < failure.iFilled) << i;
  EXPECT_EQ(m_fake.Calls().size(), static_cast<size_t>(failure.iFilled) + 1);
  EXPECT_EQ(m_log.LevelOf(failure.pszLine), kLogError);
}

INSTANTIATE_TEST_SUITE_P(
    EachText, GetSysMidFailure,
    testing::Values(
        _FailureCase{"mid", "**zxagent CAgentSystem::GetSysMid mid1 Error iGetMid[-7]", 0},
        _FailureCase{"mid2", "**zxagent CAgentSystem::GetSysMid mid2 Error iGetMid[-7]", 1},
        _FailureCase{"zxmid_getmid2sn", "**zxagent CAgentSystem::GetSysMid mid2sn Error iGetMid[-7]", 2},
        _FailureCase{"zxmid_getmid2disk", "**zxagent CAgentSystem::GetSysMid mid2disk Error iGetMid[-7]", 3},
        _FailureCase{"zxmid_getmid2mac", "**zxagent CAgentSystem::GetSysMid mid2mac Error iGetMid[-7]", 4}),
    [](const testing::TestParamInfo<_FailureCase>& test) { return std::string(test.param.pszFunction); });

TEST_F(GetSysMid, SetMidLogCallback_HandsOverTheCallback_WhateverTheLibrarySays) {
  m_fake.SetResult("zxmid_init", 5);
  EXPECT_EQ(m_system.SetMidLogCallback(&LogCallback), 1);
  EXPECT_EQ(m_fake.LogCallback(), &LogCallback);
}

TEST_F(GetSysMid, SetMidLogCallback_RefusesNull) {
  EXPECT_EQ(m_system.SetMidLogCallback(nullptr), 0);
  EXPECT_TRUE(m_fake.Calls().empty());
}

TEST_F(GetSysMid, Versions_AreEmpty) {
  EXPECT_TRUE(m_system.GetOwnVersion().IsEmpty());
  EXPECT_TRUE(m_system.GetSystemVersion().IsEmpty());
}
