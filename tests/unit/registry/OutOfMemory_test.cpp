#include <gtest/gtest.h>

#include "registry/AgentInterface.h"
#include "support/MainLog.h"
#include "support/RefusingNew.h"

TEST(OutOfMemory, Init_SaysThatThereIsNoProxy) {
  CMainLog log;
  CAgentInterface agentInterface;
  const CPString strHome = "/nonexistent/home/";
  const int iRet = [&] {
    const CRefuseNew refuse;
    return agentInterface.Init(strHome);
  }();
  EXPECT_EQ(iRet, 0);
  EXPECT_EQ(log.LevelOf("**zxagent CAgentInterface::Init Error pDornConfigProxy is NULL"), kLogError);

  std::list<_GuidProductCombo> list;
  EXPECT_EQ(agentInterface.GetAllGuidProductCombo(list), 0);
  EXPECT_EQ(agentInterface.Uninit(), 0);
}
