// What a component in a host's process needs besides its own work: a plug-in object around one class, and the
// bus under one GUID. Copy a sample that uses it: components/zxsample.
//
// A component derives from CComponent, says which types it takes, and handles them in OnMessage. Exactly one
// instance lives between the host's Initialize and Uninitialize. ZX_COMPONENT_PLUGIN(Class) writes the four
// exports; Class has a default constructor and kGuid, the GUID as text.
//
// Threads: one host thread makes the plug-in calls. OnMessage and the completions of the component's own
// sends run on its bus dispatcher, one after the other unless the host gives it several; none after Stop
// returned.
#pragma once

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Api.h"
#include "platform/bus/zxbus.h"
#include "platform/log/Log.h"
#include "platform/text/Guid.h"
#include "plugin/zxplugin.h"

// Statuses that the components here answer with; 0 is success. A bus error (kBusErr...) is passed on as it
// is.
enum : uint32_t {
  kComponentErrSender = 0xB0030001,   // this sender may not send that
  kComponentErrText = 0xB0030002,     // a hand-off text or JSON that cannot be read
  kComponentErrCommand = 0xB0030003,  // no such command
  kComponentErrFailed = 0xB0030004,   // understood, but it did not work
};

// An unanswered message; answer it once, during OnMessage or later from any thread. The sender of one that is
// dropped unanswered learns it from its time-out. The result is the bus's, 0 also when nobody waits.
struct CBaton {
  IBusContext* pBus = nullptr;
  void* pHandle = nullptr;  // null: nobody waits
  long i64MsgType = 0;
  uint32_t Reply(uint32_t uiStatus, std::string_view data) const;
};

class CComponent : private IMRReceiveComplete {
 public:
  // pszGuid: the id on the bus; pszChannel: the log channel. Both literals.
  CComponent(const char* pszGuid, const char* pszChannel, std::vector<uint32_t> types);
  ~CComponent() override;
  CComponent(const CComponent&) = delete;
  CComponent& operator=(const CComponent&) = delete;

  const char* GuidText() const { return m_pszGuid; }
  HLog Log() const { return m_hLog; }  // null before Initialize

  // The host's calls, in their order.
  void Initialize(std::string strHome);
  void SetBus(IBusContext* pBus) { m_pBus = pBus; }
  // Where the component keeps its files, when that is not below the home; ends in "/".
  void SetDataDir(std::string strDir) { m_strDataDir = std::move(strDir); }
  // Where sockets go that others connect to; ends in "/".
  void SetRunDir(std::string strDir) { m_strRunDir = std::move(strDir); }
  int Start();  // 0, or -1 (logged) with the bus left again
  int Stop();

 protected:
  // On the component's dispatcher; data is valid during the call.
  virtual void OnMessage(const GUID& sender, uint32_t uiType, std::string_view data, const CBaton& baton) = 0;
  virtual bool OnStart() { return true; }  // on the bus already; false (log why) makes Start fail
  virtual void OnStop() {}                 // still on the bus

  IBusContext* Bus() const { return m_pBus; }
  const std::string& Home() const { return m_strHome; }  // ends in "/"
  // The component's own folder, data/<name>/ of the home unless it was told another; it may not exist yet.
  std::string DataDir(const char* pszName) const {
    return m_strDataDir.empty() ? m_strHome + "data/" + pszName + "/" : m_strDataDir;
  }
  std::string RunDir(const char* pszName) const {
    return m_strRunDir.empty() ? DataDir(pszName) : m_strRunDir;
  }

 private:
  void ReceiveCallback(const GUID& recvGuid, long i64MsgType, const unsigned char* pData,
                       unsigned int uiDataLength, void* pBatonData, void* pContext) override;

  const char* const m_pszGuid;
  const char* const m_pszChannel;
  const std::vector<uint32_t> m_types;
  std::string m_strHome;
  std::string m_strDataDir;
  std::string m_strRunDir;
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
  static void Destroy(const char* pszName, void* pInterface) {
    if (pszName != nullptr && std::strcmp(pszName, T::kGuid) == 0)
      delete static_cast<CPluginObj*>(pInterface);
  }

 private:
  static int Initialize(void* pInitParam) {
    const auto* pInit = static_cast<const CPluginInit*>(pInitParam);
    if (pInit == nullptr || pInit->uiSize < sizeof(CPluginInit) || pInit->pszHome == nullptr)
      return -1;
    if (s_pComponent == nullptr)
      s_pComponent = new (std::nothrow) T();
    if (s_pComponent == nullptr)
      return -1;
    s_pComponent->Initialize(pInit->pszHome);
    s_iStatus = 1;
    return 0;
  }
  static void Uninitialize() {
    delete s_pComponent;
    s_pComponent = nullptr;
    s_iStatus = 4;
  }
  static int Start() {
    const int iResult = s_pComponent == nullptr ? -1 : s_pComponent->Start();
    s_iStatus = 2;
    return iResult;
  }
  static int Stop() {
    const int iResult = s_pComponent == nullptr ? 0 : s_pComponent->Stop();
    s_iStatus = 3;
    return iResult;
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

#define ZX_COMPONENT_PLUGIN(Class)                                   \
  extern "C" {                                                       \
  ZX_API int InitializePlugin() {                                    \
    return 0;                                                        \
  }                                                                  \
  ZX_API void UninitializePlugin() {}                                \
  ZX_API void* CreateObject(const char* pszName) {                   \
    return CComponentPlugin<Class>::Create(pszName);                 \
  }                                                                  \
  ZX_API void DestroyObject(const char* pszName, void* pInterface) { \
    CComponentPlugin<Class>::Destroy(pszName, pInterface);           \
  }                                                                  \
  }
