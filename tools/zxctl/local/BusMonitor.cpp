#include "zxctl/local/BusMonitor.h"

#include <cstring>
#include <string_view>

#include "platform/bus/BusNames.h"
#include "zxctl/Table.h"
#include "zxctl/local/BusView.h"

namespace zxctl {

namespace {

constexpr size_t kMaxOpenCalls = 10000;

std::string GuidText(const char* pszName) {
  GUID guid;
  return pszName != nullptr && GuidOfBusName(pszName, guid) ? std::string(guid.ToUpper().Str())
                                                            : std::string();
}

std::string CallKey(const char* pszName, uint64_t u64Serial) {
  return std::string(pszName != nullptr ? pszName : "") + "/" + std::to_string(u64Serial);
}

std::string_view BytesOf(sd_bus_message* pMessage) {
  const void* pData = nullptr;
  size_t uSize = 0;
  return sd_bus_message_read_array(pMessage, 'y', &pData, &uSize) > 0
             ? std::string_view(static_cast<const char*>(pData), uSize)
             : std::string_view();
}

int OpenBus(const std::string& strAddress, bool bMonitor, sd_bus** ppBus) {
  int iResult = sd_bus_new(ppBus);
  if (iResult >= 0)
    iResult = sd_bus_set_address(*ppBus, strAddress.c_str());
  if (iResult >= 0)
    iResult = sd_bus_set_bus_client(*ppBus, 1);
  if (iResult >= 0 && bMonitor)
    iResult = sd_bus_set_monitor(*ppBus, 1);
  return iResult >= 0 ? sd_bus_start(*ppBus) : iResult;
}

}  // namespace

CBusMonitor::~CBusMonitor() {
  sd_bus_close_unref(m_pBus);
}

int CBusMonitor::LearnNames(sd_bus* pBus) {
  char** ppszNames = nullptr;
  const int iResult = sd_bus_list_names(pBus, &ppszNames, nullptr);
  for (char** ppsz = ppszNames; iResult >= 0 && ppsz != nullptr && *ppsz != nullptr; ++ppsz) {
    sd_bus_creds* pCreds = nullptr;
    const char* pszUnique = nullptr;
    const std::string strGuid = GuidText(*ppsz);
    if (!strGuid.empty() && sd_bus_get_name_creds(pBus, *ppsz, SD_BUS_CREDS_UNIQUE_NAME, &pCreds) >= 0 &&
        sd_bus_creds_get_unique_name(pCreds, &pszUnique) >= 0)
      m_mapOwners[pszUnique] = strGuid;
    sd_bus_creds_unref(pCreds);
  }
  for (char** ppsz = ppszNames; ppsz != nullptr && *ppsz != nullptr; ++ppsz)
    std::free(*ppsz);
  std::free(ppszNames);
  return iResult;
}

int CBusMonitor::Open(const std::string& strAddress, std::string& strError) {
  sd_bus* pAsk = nullptr;
  int iResult = OpenBus(strAddress, false, &pAsk);
  if (iResult >= 0)
    iResult = LearnNames(pAsk);
  sd_bus_close_unref(pAsk);
  if (iResult >= 0)
    iResult = OpenBus(strAddress, true, &m_pBus);
  sd_bus_error error{};
  if (iResult >= 0)
    iResult = sd_bus_call_method(m_pBus, kDaemonName, kDaemonPath, "org.freedesktop.DBus.Monitoring",
                                 "BecomeMonitor", &error, nullptr, "asu", 0, 0);
  if (iResult < 0)
    strError = error.message != nullptr ? error.message : ErrnoText(-iResult);
  sd_bus_error_free(&error);
  return iResult < 0 ? iResult : 0;
}

std::string CBusMonitor::WhoIs(const char* pszName) const {
  if (pszName == nullptr)
    return "everybody";
  if (const std::string strGuid = GuidText(pszName); !strGuid.empty())
    return strGuid;
  const auto it = m_mapOwners.find(pszName);
  return it != m_mapOwners.end() ? it->second : std::string(pszName);
}

bool CBusMonitor::TakeOwner(sd_bus_message* pMessage, _BusEvent& event) {
  const char *pszName = nullptr, *pszOld = nullptr, *pszNew = nullptr;
  if (sd_bus_message_read(pMessage, "sss", &pszName, &pszOld, &pszNew) < 0)
    return false;
  const std::string strGuid = GuidText(pszName);
  if (strGuid.empty())
    return false;
  m_mapOwners.erase(pszOld);
  if (*pszNew != '\0')
    m_mapOwners[pszNew] = strGuid;
  event = {strGuid, "bus", *pszNew != '\0' ? "joined" : "left"};
  return true;
}

bool CBusMonitor::TakeReply(sd_bus_message* pMessage, _BusEvent& event) {
  uint64_t u64Serial = 0;
  if (sd_bus_message_get_reply_cookie(pMessage, &u64Serial) < 0)
    return false;
  const auto node = m_mapCalls.extract(CallKey(sd_bus_message_get_destination(pMessage), u64Serial));
  if (node.empty())
    return false;
  event.strFrom = WhoIs(sd_bus_message_get_sender(pMessage));
  event.strTo = WhoIs(sd_bus_message_get_destination(pMessage));
  const sd_bus_error* pError = sd_bus_message_get_error(pMessage);
  int32_t iStatus = 0;
  if (pError != nullptr) {
    event.strWhat = "error " + std::string(pError->name) + " to " + node.mapped();
    return true;
  }
  if (sd_bus_message_read(pMessage, "i", &iStatus) < 0)
    return false;
  char szStatus[16] = {};
  std::snprintf(szStatus, sizeof(szStatus), "0x%X", static_cast<uint32_t>(iStatus));
  event.strWhat = "status " + std::string(szStatus) + " to " + node.mapped();
  return true;
}

bool CBusMonitor::Take(sd_bus_message* pMessage, _BusEvent& event) {
  if (sd_bus_message_is_signal(pMessage, kDaemonInterface, "NameOwnerChanged") > 0)
    return TakeOwner(pMessage, event);
  uint8_t byType = 0;
  if (sd_bus_message_get_type(pMessage, &byType) < 0)
    return false;
  if (byType == SD_BUS_MESSAGE_METHOD_RETURN || byType == SD_BUS_MESSAGE_METHOD_ERROR)
    return TakeReply(pMessage, event);
  uint32_t uiType = 0;
  const char* pszPath = sd_bus_message_get_path(pMessage);
  if (pszPath == nullptr || !TypeOfBusPath(pszPath, uiType) ||
      sd_bus_message_has_signature(pMessage, "ay") <= 0)
    return false;
  event.strFrom = WhoIs(sd_bus_message_get_sender(pMessage));
  event.strTo = WhoIs(sd_bus_message_get_destination(pMessage));
  event.strWhat = std::to_string(uiType) + " " + DescribeMessage(uiType, BytesOf(pMessage));
  uint64_t u64Serial = 0;
  if (byType == SD_BUS_MESSAGE_METHOD_CALL && sd_bus_message_get_cookie(pMessage, &u64Serial) >= 0 &&
      m_mapCalls.size() < kMaxOpenCalls)
    m_mapCalls[CallKey(sd_bus_message_get_sender(pMessage), u64Serial)] = std::to_string(uiType);
  return true;
}

int CBusMonitor::Read(const std::function<void(const _BusEvent&)>& fnEvent) {
  for (;;) {
    sd_bus_message* pMessage = nullptr;
    const int iResult = sd_bus_process(m_pBus, &pMessage);
    _BusEvent event;
    if (pMessage != nullptr && Take(pMessage, event))
      fnEvent(event);
    sd_bus_message_unref(pMessage);
    if (iResult <= 0)
      return iResult;
  }
}

}  // namespace zxctl
