// The upload queue when memory is out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "send/AgentLogMsg.h"
#include "support/FakeCloud.h"
#include "support/FakeHub.h"
#include "support/LogChannels.h"
#include "support/RefusingNew.h"

using ::testing::ElementsAre;

TEST(LogMsgMemory, Insert_Refuses_AndNothingIsQueued) {
  CLogChannels log;
  CFakeHub hub;
  CFakeCloud::Get().Reset();
  CAgentSendMsg send;
  CAgentLogMsg logMsg;
  const CPString strProduct = "Scan";
  const CPString strCombo = "One";
  const CPString strMsg = "body";
  log.Clear();
  const uint32_t uiRet = [&] {
    const CRefuseNew refuse;
    return logMsg.InsertSendMsg(strProduct, strCombo, 3, 2, 0x1f, strMsg, 1);
  }();
  EXPECT_EQ(uiRet, 0xb0010003u);
  EXPECT_THAT(
      log.Lines("zxlogcache"),
      ElementsAre(
          "*zxagent Error InsertSendMsg new Error u64DataId[1f] iPriv[3] iMsgType[2] strProduct[Scan] strCombo[One] strMsg[body]"));
  EXPECT_THAT(log.Levels("zxlogcache"), ElementsAre(3));
  logMsg.Init(&send);
  EXPECT_EQ(logMsg.InsertSendMsg(strProduct, strCombo, 3, 2, 0x20, strMsg, 1), 0u);
  EXPECT_TRUE(hub.WaitOutcomes(1));
  logMsg.Uninit();
  ASSERT_EQ(hub.Outcomes().size(), 1u);
  EXPECT_EQ(hub.Outcomes()[0].u64DataId, 0x20u);
}
