// State and figures of the bus as JSON.
#include <cjson/cJSON.h>

#include <memory>
#include <new>
#include <string>

#include "platform/bus/BusCarrier.h"
#include "platform/bus/BusEndpoint.h"
#include "platform/bus/BusErrors.h"
#include "platform/bus/BusNames.h"
#include "platform/bus/BusRouter.h"

namespace {

struct CJsonDelete {
  void operator()(cJSON* p) const { cJSON_Delete(p); }
};

void AddNumber(cJSON* pObject, const char* pszKey, uint64_t u64Value) {
  cJSON_AddNumberToObject(pObject, pszKey, static_cast<double>(u64Value));
}

void AddLink(cJSON* pObject, CBusLink& link) {
  const CBusLink::_State state = link.State();
  const _BusLinkFigures& figures = link.Figures();
  cJSON_AddBoolToObject(pObject, "connected", state.bUp);
  cJSON_AddStringToObject(pObject, "unique_name", state.strUniqueName.c_str());
  if (state.uiRefused != 0)
    cJSON_AddStringToObject(pObject, "refused_because", TextOfBusResult(state.uiRefused));
  AddNumber(pObject, "send_bytes", state.uQueuedBytes);
  AddNumber(pObject, "sent", figures.u64Sent);
  AddNumber(pObject, "sent_bytes", figures.u64SentBytes);
  AddNumber(pObject, "received", figures.u64Received);
  AddNumber(pObject, "received_bytes", figures.u64ReceivedBytes);
  AddNumber(pObject, "refused", figures.u64Refused);
  AddNumber(pObject, "denied", figures.u64Denied);
  AddNumber(pObject, "busy", figures.u64Busy);
  AddNumber(pObject, "connects", figures.u64Connects);
}

void AddComponents(cJSON* pRoot) {
  cJSON* pArray = cJSON_AddArrayToObject(pRoot, "components");
  for (const auto& [guid, pEndpoint] : CBusRouter::Instance().All()) {
    cJSON* pObject = cJSON_CreateObject();
    const CBusEndpoint::_Depths depths = pEndpoint->Depths();
    cJSON_AddStringToObject(pObject, "guid", guid.ToUpper().c_str());
    AddNumber(pObject, "queued", depths.uQueued);
    AddNumber(pObject, "queued_bytes", depths.uQueuedBytes);
    AddNumber(pObject, "unanswered", depths.uBatons);
    AddNumber(pObject, "under_way", depths.uUnderWay);
    if (const auto pLink = pEndpoint->Link())
      AddLink(pObject, *pLink);
    cJSON_AddItemToArray(pArray, pObject);
  }
}

void AddPeers(cJSON* pRoot, CBusControl& control) {
  cJSON* pArray = cJSON_AddArrayToObject(pRoot, "peers");
  for (const _BusPeerFacts& facts : control.Facts()) {
    if (CBusRouter::Instance().Find(facts.guid) != nullptr)
      continue;
    cJSON* pObject = cJSON_CreateObject();
    cJSON_AddStringToObject(pObject, "guid", facts.guid.ToUpper().c_str());
    cJSON_AddStringToObject(pObject, "unique_name", facts.strOwner.c_str());
    if (facts.bKnown) {
      AddNumber(pObject, "uid", facts.uiUid);
      AddNumber(pObject, "pid", facts.uiPid);
    }
    cJSON_AddItemToArray(pArray, pObject);
  }
}

}  // namespace

std::string CBusCarrier::Stats() {
  std::shared_ptr<CBusControl> pControl;
  std::string strAddress, strLastError;
  bool bOn = false, bConnected = false;
  uint64_t u64Losses = 0;
  {
    CCritLock lock(m_cs);
    pControl = m_pControl;
    bOn = m_eState == EState::On;
    strAddress = m_strAddress;
    strLastError = m_strLastError;
    bConnected = m_bConnected;
    u64Losses = m_u64Losses;
  }
  const std::unique_ptr<cJSON, CJsonDelete> root(cJSON_CreateObject());
  cJSON_AddStringToObject(root.get(), "state", !bOn ? "off" : bConnected ? "connected" : "connecting");
  cJSON_AddStringToObject(root.get(), "address", bOn ? strAddress.c_str() : "");
  AddNumber(root.get(), "losses", u64Losses);
  cJSON_AddStringToObject(root.get(), "last_error", strLastError.c_str());
  AddComponents(root.get());
  if (pControl != nullptr)
    AddPeers(root.get(), *pControl);
  char* pszText = cJSON_PrintUnformatted(root.get());
  if (pszText == nullptr)
    throw std::bad_alloc();
  std::string strText(pszText);
  cJSON_free(pszText);
  return strText;
}
