#include "platform/bus/BusControl.h"

#include <unistd.h>

#include <cstring>
#include <utility>

#include "platform/bus/BusCarrier.h"
#include "platform/bus/BusErrors.h"
#include "platform/bus/BusNames.h"

namespace {

constexpr size_t kMaxCalls = 64;  // of the host object at a time

}  // namespace

CBusControl::CBusControl(CBusCarrier& carrier, const std::string& strAddress, bool bHost)
    : CBusWire(carrier, strAddress, bHost ? kBusHostName : ""), m_bHost(bHost) {}

CBusControl::~CBusControl() = default;

std::vector<_BusPeerFacts> CBusControl::Facts() {
  std::vector<_BusPeerFacts> facts;
  CCritLock lock(m_cs);
  for (auto& [guid, strOwner] : m_owners.All()) {
    const auto it = m_ids.find(strOwner);
    const bool bKnown = it != m_ids.end();
    facts.push_back({guid, strOwner, bKnown, bKnown ? it->second.uiUid : 0, bKnown ? it->second.uiPid : 0});
  }
  return facts;
}

const sd_bus_vtable* CBusControl::Vtable() {
  static const sd_bus_vtable s_vtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_ARGS("Call", SD_BUS_ARGS("s", method, "s", json), SD_BUS_RESULT("s", json),
                              &CBusControl::OnCall, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END,
  };
  return s_vtable;
}

int CBusControl::OnOpened() {
  if (!m_bHost)
    return 0;
  return sd_bus_add_object_vtable(Bus(), nullptr, kBusHostPath, kBusHostInterface, Vtable(),
                                  static_cast<CBusWire*>(this));
}

void CBusControl::OnReady() {
  m_bWasReady = true;
  m_carrier.SetConnected(true, "connected");
}

void CBusControl::OnRefused(uint32_t uiResult) {
  m_carrier.Report(kBusStateRefused, std::string(kBusHostName) + ": " + TextOfBusResult(uiResult));
}

void CBusControl::OnLost(const char* pszReason) {
  m_asking.clear();
  m_askingPeers.clear();
  m_running.clear();
  {
    CCritLock lock(m_cs);
    m_ids.clear();
    m_answers.clear();
  }
  if (std::exchange(m_bWasReady, false) && !HasEnded())
    m_carrier.SetConnected(false, pszReason);
}

void CBusControl::OnOwnerNew(const char* pszOwner) {
  uint64_t u64Serial = 0;
  if (Call(kDaemonName, kDaemonPath, kDaemonInterface, "GetConnectionCredentials", &OnPeerIds, &u64Serial,
           pszOwner) >= 0)
    m_askingPeers.emplace(u64Serial, pszOwner);
}

void CBusControl::OnOwnerGone(const char* pszOwner) {
  CCritLock lock(m_cs);
  const auto it = m_ids.find(pszOwner);
  if (it != m_ids.end())
    m_ids.erase(it);
}

bool CBusControl::ReadIds(sd_bus_message* pMessage, _Ids& ids) {
  bool bUid = false;
  if (sd_bus_message_is_method_error(pMessage, nullptr) != 0 ||
      sd_bus_message_enter_container(pMessage, 'a', "{sv}") < 0)
    return false;
  while (sd_bus_message_enter_container(pMessage, 'e', "sv") > 0) {
    const char* pszKey = nullptr;
    if (sd_bus_message_read(pMessage, "s", &pszKey) <= 0)
      return false;
    int iResult = 0;
    if (std::strcmp(pszKey, "UnixUserID") == 0)
      bUid = (iResult = sd_bus_message_read(pMessage, "v", "u", &ids.uiUid)) > 0;
    else if (std::strcmp(pszKey, "ProcessID") == 0)
      iResult = sd_bus_message_read(pMessage, "v", "u", &ids.uiPid);
    else
      iResult = sd_bus_message_skip(pMessage, "v");
    if (iResult < 0 || sd_bus_message_exit_container(pMessage) < 0)
      return false;
  }
  return bUid;
}

int CBusControl::OnPeerIds(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
  auto& self = *static_cast<CBusControl*>(static_cast<CBusWire*>(pSelf));
  uint64_t u64Serial = 0;
  sd_bus_message_get_reply_cookie(pMessage, &u64Serial);
  const auto node = self.m_askingPeers.extract(u64Serial);
  _Ids ids;
  if (node.empty() || !ReadIds(pMessage, ids))
    return 1;
  CCritLock lock(self.m_cs);
  GUID guid;
  if (self.m_owners.GuidOf(node.mapped().c_str(), guid))
    self.m_ids[node.mapped()] = ids;
  return 1;
}

int CBusControl::OnCall(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError) {
  auto& self = *static_cast<CBusControl*>(static_cast<CBusWire*>(pSelf));
  const char* pszSender = sd_bus_message_get_sender(pMessage);
  if (pszSender == nullptr)
    return sd_bus_error_set_const(pError, SD_BUS_ERROR_ACCESS_DENIED, "no sender");
  if (self.m_asking.size() + self.m_running.size() >= kMaxCalls)
    return sd_bus_error_set_const(pError, SD_BUS_ERROR_LIMITS_EXCEEDED, "too many calls at a time");
  uint64_t u64Serial = 0;
  const int iResult = self.Call(kDaemonName, kDaemonPath, kDaemonInterface, "GetConnectionCredentials",
                                &OnCallerIds, &u64Serial, pszSender);
  if (iResult < 0)
    return iResult;
  self.m_asking.emplace(u64Serial, TBusMessage(sd_bus_message_ref(pMessage)));
  return 1;
}

int CBusControl::OnCallerIds(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
  auto& self = *static_cast<CBusControl*>(static_cast<CBusWire*>(pSelf));
  uint64_t u64Serial = 0;
  sd_bus_message_get_reply_cookie(pMessage, &u64Serial);
  auto node = self.m_asking.extract(u64Serial);
  if (node.empty())
    return 1;
  _Ids ids;
  if (!ReadIds(pMessage, ids) || (ids.uiUid != 0 && ids.uiUid != geteuid())) {
    const sd_bus_error error{SD_BUS_ERROR_ACCESS_DENIED,
                             "only root and the host's own user may call the host", 0};
    sd_bus_reply_method_error(node.mapped().get(), &error);
    return 1;
  }
  self.Run(std::move(node.mapped()), ids);
  return 1;
}

void CBusControl::Run(TBusMessage call, const _Ids& ids) {
  const char* pszMethod = nullptr;
  const char* pszJson = nullptr;
  if (sd_bus_message_read(call.get(), "ss", &pszMethod, &pszJson) <= 0)
    return;
  const uint64_t u64Call = ++m_u64LastCall;
  auto pSelf = std::static_pointer_cast<CBusControl>(shared_from_this());
  m_running.emplace(u64Call, std::move(call));
  if (!m_carrier.RunHostCall(pSelf, u64Call, pszMethod, pszJson, ids.uiUid, ids.uiPid))
    Reply({u64Call, kBusErrBusy, "too many calls at a time"});
}

void CBusControl::Answer(uint64_t u64Call, uint32_t uiResult, std::string strJson) {
  {
    CCritLock lock(m_cs);
    m_answers.push_back({u64Call, uiResult, std::move(strJson)});
  }
  m_carrier.Ready(shared_from_this());
}

void CBusControl::Work(uint64_t) {
  std::vector<_Answer> answers;
  {
    CCritLock lock(m_cs);
    answers.swap(m_answers);
  }
  for (const _Answer& answer : answers)
    Reply(answer);
}

void CBusControl::Reply(const _Answer& answer) {
  const auto node = m_running.extract(answer.u64Call);
  if (node.empty())
    return;  // the connection was lost meanwhile
  sd_bus_message* pCall = node.mapped().get();
  if (answer.uiResult == 0 && answer.strJson.size() <= kBusMaxBytes &&
      sd_bus_reply_method_return(pCall, "s", answer.strJson.c_str()) >= 0)
    return;
  const char* pszError = kErrorFailed;
  if (answer.uiResult == kBusErrNoReceiver)
    pszError = SD_BUS_ERROR_UNKNOWN_METHOD;
  else if (answer.uiResult == kBusErrInvalid || answer.uiResult == kBusErrDenied ||
           answer.uiResult == kBusErrBusy)
    pszError = ErrorOfBusResult(answer.uiResult);
  const char* pszText = answer.uiResult == 0 ? "the answer is too long or no text" : answer.strJson.c_str();
  if (*pszText == 0)
    pszText = TextOfBusResult(answer.uiResult);
  const sd_bus_error error{pszError, pszText, 0};
  sd_bus_reply_method_error(pCall, &error);
}
