#include "registry/DornConfigProxy.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/FakeConfigProxy.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

namespace {

// What the fake calls inside GetConfig: reports that it is there and waits to be let go.
CEventWaiter* g_pInside = nullptr;
CEventWaiter* g_pLetGo = nullptr;
void WaitInside() {
  g_pInside->Set();
  g_pLetGo->Wait();
}

struct CValue : CConfigValue {
  ~CValue() { std::free(pData); }
};

int AskPlugins(CDornConfigProxy& proxy) {
  CValue out;
  CValue in;
  return proxy.GetConfig(kCfgItemPlugins, &out, &in, 0);
}

class DornConfigProxy : public testing::Test {
 protected:
  DornConfigProxy() {
    g_pInside = &m_inside;
    g_pLetGo = &m_letGo;
  }
  ~DornConfigProxy() override { CDornConfigProxy::Destroy(); }
  std::shared_ptr<CDornConfigProxy> CreateAndInit() {
    std::shared_ptr<CDornConfigProxy> pProxy = CDornConfigProxy::Create();
    EXPECT_EQ(pProxy->Init(m_home.Root(), m_strError), kCfgOk) << m_strError.c_str();
    return pProxy;
  }
  bool IsMapped() const {
    void* hLib = dlopen(m_home.Path("lib/modules/libconfigproxy.so").c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (hLib != nullptr)
      dlclose(hLib);
    return hLib != nullptr;
  }

  CTempHome m_home;
  CPString m_strError;
  CEventWaiter m_inside;
  CEventWaiter m_letGo;
};

}  // namespace

TEST_F(DornConfigProxy, IsOnePerProcess) {
  EXPECT_EQ(CDornConfigProxy::Instance(), nullptr);
  const auto pProxy = CDornConfigProxy::Create();
  EXPECT_EQ(CDornConfigProxy::Create(), pProxy);
  EXPECT_EQ(CDornConfigProxy::Instance(), pProxy);
  EXPECT_TRUE(CDornConfigProxy::Destroy());
  EXPECT_EQ(CDornConfigProxy::Instance(), nullptr);
  EXPECT_FALSE(CDornConfigProxy::Destroy());
  EXPECT_STREQ(CDornConfigProxy::kClassId, "29562e31-2c2b-4fb2-9108-144d91a56755");
}

TEST_F(DornConfigProxy, UnloadsTheLibrary) {
  { const CFakeConfigProxy fake(m_home.Root().Str()); }  // leaves the file, drops its own hold
  ASSERT_FALSE(IsMapped());
  CreateAndInit();
  EXPECT_TRUE(IsMapped());
  EXPECT_TRUE(CDornConfigProxy::Destroy());
  EXPECT_FALSE(IsMapped());
}

TEST_F(DornConfigProxy, LoadsOnce_WhoeverAsksFirst) {
  CFakeConfigProxy fake(m_home.Root().Str());
  fake.State().bRefuse = 1;
  const auto pProxy = CDornConfigProxy::Create();
  EXPECT_EQ(pProxy->Init(m_home.Root(), m_strError), kCfgNotLoaded);
  fake.State().bRefuse = 0;
  std::vector<std::thread> threads;
  threads.reserve(8);
  std::atomic<int> iOk{0};
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&] { iOk += AskPlugins(*pProxy) == kCfgOk ? 1 : 0; });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(iOk, 8);
  EXPECT_EQ(fake.State().iObjects, 1);
  CDornConfigProxy::Destroy();
  EXPECT_EQ(fake.State().iObjects, 0);
}

TEST_F(DornConfigProxy, SetConfigEx_UsesTheSameLibrary) {
  CFakeConfigProxy fake(m_home.Root().Str());
  const auto pProxy = CreateAndInit();
  CValue in;
  CValue out;
  EXPECT_EQ(pProxy->Private().SetConfigEx("key", &in, &out, 0), kCfgOk);
  EXPECT_STREQ(static_cast<const char*>(out.pData), "key");
  EXPECT_EQ(fake.State().iCreated, 1);
}

TEST_F(DornConfigProxy, AnswersThirteen_WithoutALibrary) {
  const auto pProxy = CDornConfigProxy::Create();
  CValue in;
  CValue out;
  EXPECT_EQ(pProxy->GetConfig(kCfgItemPlugins, &out, &in, 0), 13);
  EXPECT_EQ(pProxy->Private().SetConfigEx("key", &in, &out, 0), 13);
  EXPECT_EQ(out.pData, nullptr);
}

TEST_F(DornConfigProxy, Destroy_LeavesTheLibraryToACallThatRuns) {
  CFakeConfigProxy fake(m_home.Root().Str());
  fake.State().pfnInGet = &WaitInside;
  std::shared_ptr<CDornConfigProxy> pProxy = CreateAndInit();
  int iRet = 0;
  std::thread caller([&] { iRet = AskPlugins(*pProxy); });
  ASSERT_TRUE(m_inside.Wait());
  EXPECT_TRUE(CDornConfigProxy::Destroy());
  EXPECT_EQ(fake.State().iObjects, 1);
  m_letGo.Set();
  caller.join();
  EXPECT_EQ(iRet, kCfgOk);
  EXPECT_EQ(fake.State().iObjects, 0);
  EXPECT_EQ(AskPlugins(*pProxy), kCfgNotLoaded);  // a latecomer does not bring it back
  EXPECT_EQ(fake.State().iCreated, 1);
}

TEST_F(DornConfigProxy, HoldsBackCancellationInsideTheLibrary) {
  CFakeConfigProxy fake(m_home.Root().Str());
  fake.State().pfnInGet = &WaitInside;
  const std::shared_ptr<CDornConfigProxy> pProxy = CreateAndInit();
  struct _Call {
    CDornConfigProxy* pProxy;
    std::atomic<int> iRet;
  } call{pProxy.get(), 0};
  pthread_t hThread{};
  ASSERT_EQ(pthread_create(
                &hThread, nullptr,
                [](void* pArg) -> void* {
                  auto* pCall = static_cast<_Call*>(pArg);
                  pCall->iRet = AskPlugins(*pCall->pProxy);
                  pthread_testcancel();
                  return nullptr;
                },
                &call),
            0);
  ASSERT_TRUE(m_inside.Wait());
  ASSERT_EQ(pthread_cancel(hThread), 0);
  m_letGo.Set();
  void* pResult = nullptr;
  ASSERT_EQ(pthread_join(hThread, &pResult), 0);
  EXPECT_EQ(call.iRet, kCfgOk);
  EXPECT_EQ(pResult, PTHREAD_CANCELED);
}
