// What the host answers on the bus (docs/zxhost.md): its status, who the components are, and how much is
// logged. Callers are root or the host's own user; the bus has checked that. Answers are JSON texts. Threads:
// the bus's thread for host calls makes all calls; waits for a plug-in's answer at most kAnswerMs.
#pragma once

#include <cstdint>
#include <ctime>

#include "BusService.h"
#include "PluginDriver.h"
#include "platform/bus/zxbus.h"

class CHostMethods {
 public:
  static constexpr uint32_t kAnswerMs = 500;

  // Both are borrowed and must outlive the object. strHome ends in "/".
  CHostMethods(CBusService& bus, CPluginDriver& driver, CPString strHome);

  // pContext is the object.
  static uint32_t Serve(const ZxBusHostCall* pCall, void* pContext);
  // 0, kBusErrNoReceiver (no such method) or kBusErrInvalid; the answer, or the reason.
  uint32_t Call(const CPString& strMethod, const CPString& strJson, CPString& strAnswer);

 private:
  CPString Status();
  CPString Components();
  uint32_t LogLevel(const CPString& strJson, CPString& strAnswer);

  CBusService& m_bus;
  CPluginDriver& m_driver;
  const CPString m_strHome;
  const uint64_t m_u64StartMs;
  const std::time_t m_tStart;
  int m_iLogLevel = 0;  // forced; 0: none
};
