// The process's own connection to the daemon, beside those of its components: tells whether the daemon is
// there, knows who the other components are, and serves the host object.
// Threads: the I/O thread's, except where said.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus/BusWire.h"
#include "platform/bus/zxbus.h"

struct _BusPeerFacts {
  GUID guid;
  std::string strOwner;
  bool bKnown = false;  // whether the daemon has told the ids already
  uint32_t uiUid = 0;
  uint32_t uiPid = 0;
};

class CBusControl final : public CBusWire {
 public:
  // bHost: claims the host's name and serves its object.
  CBusControl(CBusCarrier& carrier, const std::string& strAddress, bool bHost);
  ~CBusControl() override;

  // Any thread.
  std::vector<_BusPeerFacts> Facts() TS_EXCLUDES(m_cs);
  void Answer(uint64_t u64Call, uint32_t uiResult, std::string strJson) TS_EXCLUDES(m_cs);

 private:
  struct _Ids {
    uint32_t uiUid = 0;
    uint32_t uiPid = 0;
  };
  struct _Answer {
    uint64_t u64Call = 0;
    uint32_t uiResult = 0;
    std::string strJson;
  };

  int OnOpened() override;
  void OnReady() override;
  void OnRefused(uint32_t uiResult) override;
  void OnLost(const char* pszReason) override TS_EXCLUDES(m_cs);
  void OnOwnerNew(const char* pszOwner) override;
  void OnOwnerGone(const char* pszOwner) override TS_EXCLUDES(m_cs);
  void Work(uint64_t u64NowNs) override TS_EXCLUDES(m_cs);

  static const sd_bus_vtable* Vtable();
  static int OnCall(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static int OnCallerIds(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static int OnPeerIds(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static bool ReadIds(sd_bus_message* pMessage, _Ids& ids);
  void Run(TBusMessage call, const _Ids& ids);
  void Reply(const _Answer& answer);

  const bool m_bHost;
  bool m_bWasReady = false;
  uint64_t m_u64LastCall = 0;
  std::map<uint64_t, TBusMessage> m_asking;       // calls whose caller is being asked for, by serial of that
  std::map<uint64_t, std::string> m_askingPeers;  // the same for owners of component names
  std::map<uint64_t, TBusMessage> m_running;
  std::map<std::string, _Ids, std::less<>> m_ids TS_GUARDED_BY(m_cs);
  std::vector<_Answer> m_answers TS_GUARDED_BY(m_cs);
};
