// The upload queue when memory is out. Replaces the global allocation functions, therefore a program of its
// own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "send/AgentLogMsg.h"
#include "support/FakeCloud.h"
#include "support/FakeHub.h"
#include "support/LogChannels.h"

using ::testing::ElementsAre;

namespace {

thread_local bool g_bRefuse = false;  // non-throwing allocations of this thread fail

void* Allocate(size_t uSize) {
  if (void* p = std::malloc(uSize > 0 ? uSize : 1))
    return p;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(size_t uSize) {
  return Allocate(uSize);
}
void* operator new[](size_t uSize) {
  return Allocate(uSize);
}
void* operator new(size_t uSize, const std::nothrow_t&) noexcept {
  return g_bRefuse ? nullptr : std::malloc(uSize);
}
void* operator new[](size_t uSize, const std::nothrow_t&) noexcept {
  return g_bRefuse ? nullptr : std::malloc(uSize);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}

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
  g_bRefuse = true;
  const uint32_t uiRet = logMsg.InsertSendMsg(strProduct, strCombo, 3, 2, 0x1f, strMsg, 1);
  g_bRefuse = false;
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
