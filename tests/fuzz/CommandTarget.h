// A manager for fuzz entries of the command path: real routing over a home of its own, a bus that answers
// every hand-off at once, the fake cloud library. Built once per process; Forget between inputs keeps memory
// flat.
#pragma once

#include "agent/AgentMgr.h"
#include "support/FakeCloud.h"
#include "support/FakeConfigProxy.h"
#include "support/TempHome.h"

class CAnsweringBus final : public IBusContext {
 public:
  uint32_t Initialize(const GUID*) override { return 0; }
  void Uninitialize() override {}
  uint32_t Receive(uint32_t, IMRReceiveComplete*) override { return 0; }
  void Unreceive(uint32_t) override {}
  uint32_t AsynSendEx(const GUID*, uint32_t uiType, const void*, uint32_t uiLength,
                      IMRSendComplete* pCallback, void* pContext, unsigned long long* pui64ACT,
                      uint32_t) override {
    *pui64ACT = ++m_ui64ACT;
    if (uiLength % 3 == 0)
      return kBusErrBusy;
    pCallback->SendCallback(uiLength % 2, uiType, nullptr, 0, m_ui64ACT, pContext);
    return 0;
  }
  uint32_t BroadcastSend(uint32_t, const void*, uint32_t) override { return 0; }
  uint32_t Reply(uint32_t, long, const void*, uint32_t, void*) override { return 0; }

 private:
  unsigned long long m_ui64ACT = 0;
};

class CCommandTarget {
 public:
  static CAgentMgr& Mgr() {
    static CCommandTarget target;
    CFakeCloud::Get().Reset();
    return target.m_mgr;
  }

 private:
  CCommandTarget() : m_proxy(m_home.Root().Str()), m_mgr(m_home.Path("root")) {
    const std::string strGuid = "11111111-1111-1111-1111-111111111111";
    m_proxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin(strGuid, "veltExtHost", "PCInfo") + "]}");
    m_home.WriteFile("etc/zxagent/commandroute.json",
                     R"({"commandroute":[{"id":"a","command":"x,y","product":"","combo":"","desc":""}]})");
    m_mgr.Data().Init(m_home.Root());
    m_mgr.Data().SetPcidData("P,C,2|veltExtHost,MessagePush,3", 0);
    m_mgr.SetCtx(static_cast<IBusContext*>(&m_bus));
    SetAgentHub(&m_mgr);
  }
  ~CCommandTarget() { SetAgentHub(nullptr); }

  CTempHome m_home;
  CFakeConfigProxy m_proxy;
  CAnsweringBus m_bus;
  CAgentMgr m_mgr;
};
