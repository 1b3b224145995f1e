// What a component in a host's process needs besides its own work: a plug-in object around one class, and the
// bus under one GUID. Copy a sample that uses it: components/zxsample.
//
// A component derives from CComponent, says which types it takes, and handles them in OnMessage. Exactly one
// instance lives between the host's Initialize and Uninitialize. ZX_COMPONENT_PLUGIN(Class) writes the four
// exports.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Api.h"
#include "platform/bus/zxbus.h"
#include "platform/log/Log.h"
#include "platform/text/Guid.h"
#include "plugin/zxplugin.h"

// An unanswered message; answer it once, during OnMessage or later from any thread. Dropped unanswered, the
// bus tells the sender so at its deadline.
struct CBaton {
  IBusContext* pBus = nullptr;
  void* pHandle = nullptr;  // null: nobody waits
  long i64MsgType = 0;
  void Reply(uint32_t uiStatus, std::string_view data) const {
    if (pHandle != nullptr)
      pBus->Reply(uiStatus, i64MsgType, data.data(), static_cast<uint32_t>(data.size()), pHandle);
  }
};

class CComponent : private IMRReceiveComplete {
 public:
  // pszGuid: the id on the bus; pszChannel: the log channel. Both literals.
  CComponent(const char* pszGuid, const char* pszChannel, std::vector<uint32_t> types)
      : m_pszGuid(pszGuid), m_pszChannel(pszChannel), m_types(std::move(types)) {}
  ~CComponent() override { LogUninit(m_hLog); }
  CComponent(const CComponent&) = delete;
  CComponent& operator=(const CComponent&) = delete;

  const char* GuidText() const { return m_pszGuid; }

  // The host's calls, in their order.
  void Initialize(std::string strHome) {
    m_strHome = std::move(strHome);
    m_hLog = LogInit(m_pszChannel);
  }
  void SetBus(IBusContext* pBus) { m_pBus = pBus; }
  int Start() {
    if (m_pBus == nullptr)
      return -1;
    const GUID guid(m_pszGuid);
    const uint32_t uiRet = m_pBus->Initialize(&guid);
    if (uiRet != 0)
      return LogWarnTo(m_hLog, "*component guid[%s] cannot join the bus iRet[%x]", m_pszGuid, uiRet) - 1;
    for (const uint32_t uiType : m_types)
      m_pBus->Receive(uiType, this);
    return OnStart() ? 0 : -1;
  }
  int Stop() {
    OnStop();
    if (m_pBus != nullptr)
      m_pBus->Uninitialize();  // no message and no completion comes behind this
    return 0;
  }

 protected:
  // On the component's dispatcher thread; data is valid during the call.
  virtual void OnMessage(const GUID& sender, uint32_t uiType, std::string_view data, const CBaton& baton) = 0;
  virtual bool OnStart() { return true; }
  virtual void OnStop() {}

  IBusContext* Bus() const { return m_pBus; }
  HLog Log() const { return m_hLog; }
  const std::string& Home() const { return m_strHome; }  // ends in "/"

 private:
  void ReceiveCallback(const GUID& recvGuid, long i64MsgType, const unsigned char* pData,
                       unsigned int uiDataLength, void* pBatonData, void* pContext) override {
    const CBaton baton{static_cast<IBusContext*>(pContext), pBatonData, i64MsgType};
    try {
      OnMessage(recvGuid, static_cast<uint32_t>(i64MsgType),
                std::string_view(reinterpret_cast<const char*>(pData), pData == nullptr ? 0 : uiDataLength),
                baton);
    } catch (const std::exception& e) {
      LogErrorTo(m_hLog, "**component guid[%s] what[%s] i64MsgType[%lld]", m_pszGuid, e.what(), i64MsgType);
      baton.Reply(kBusErrNoReply, {});
    }
  }

  const char* const m_pszGuid;
  const char* const m_pszChannel;
  const std::vector<uint32_t> m_types;
  std::string m_strHome;
  HLog m_hLog = nullptr;
  IBusContext* m_pBus = nullptr;
};

// The plug-in side of a component class: one instance, reached by the eight entry points.
template <class T>
class CComponentPlugin {
 public:
  static void* Create(const char* pszName) {
    if (pszName == nullptr || std::strcmp(pszName, T::kGuid) != 0)
      return nullptr;
    return new (std::nothrow)
        CPluginObj{&Initialize, &Uninitialize, &Start, &Stop, &GetStatus, &GetCtx, &SetCtx, &Info};
  }
  static void Destroy(void* pInterface) { delete static_cast<CPluginObj*>(pInterface); }

 private:
  // As the host hands it over: a size, then borrowed texts.
  struct CInitParam {
    uint32_t uSize;
    const char* pszHome;
  };
  static int Initialize(void* pInitParam) {
    if (pInitParam == nullptr)
      return -1;
    auto* pParam = static_cast<const CInitParam*>(pInitParam);
    s_pComponent = new (std::nothrow) T();
    if (s_pComponent == nullptr)
      return -1;
    s_pComponent->Initialize(pParam->pszHome == nullptr ? "" : pParam->pszHome);
    s_iStatus = 1;
    return 0;
  }
  static void Uninitialize() {
    delete s_pComponent;
    s_pComponent = nullptr;
    s_iStatus = 4;
  }
  static int Start() {
    const int iRet = s_pComponent == nullptr ? -1 : s_pComponent->Start();
    s_iStatus = 2;
    return iRet;
  }
  static int Stop() {
    s_iStatus = 3;
    return s_pComponent == nullptr ? 0 : s_pComponent->Stop();
  }
  static int GetStatus() { return s_iStatus; }
  static int GetCtx(void*) { return 0; }
  static void SetCtx(void* pBusContext) {
    if (s_pComponent != nullptr)
      s_pComponent->SetBus(static_cast<IBusContext*>(pBusContext));
  }
  static int Info(void* pInfo) { return pInfo == nullptr ? -1 : 0; }

  static inline T* s_pComponent = nullptr;
  static inline int s_iStatus = 0;
};

#define ZX_COMPONENT_PLUGIN(Class)                           \
  extern "C" {                                               \
  ZX_API int InitializePlugin() {                            \
    return 0;                                                \
  }                                                          \
  ZX_API void UninitializePlugin() {}                        \
  ZX_API void* CreateObject(const char* pszName) {           \
    return CComponentPlugin<Class>::Create(pszName);         \
  }                                                          \
  ZX_API void DestroyObject(const char*, void* pInterface) { \
    CComponentPlugin<Class>::Destroy(pInterface);            \
  }                                                          \
  }
