#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "registry/AgentInterface.h"
#include "support/MainLog.h"

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

TEST(OutOfMemory, Init_SaysThatThereIsNoProxy) {
  CMainLog log;
  CAgentInterface agentInterface;
  const CPString strHome = "/nonexistent/home/";
  g_bRefuse = true;
  const int iRet = agentInterface.Init(strHome);
  g_bRefuse = false;
  EXPECT_EQ(iRet, 0);
  EXPECT_EQ(log.LevelOf("**zxagent CAgentInterface::Init Error pDornConfigProxy is NULL"), kLogError);

  std::list<_GuidProductCombo> list;
  EXPECT_EQ(agentInterface.GetAllGuidProductCombo(list), 0);
  EXPECT_EQ(agentInterface.Uninit(), 0);
}
