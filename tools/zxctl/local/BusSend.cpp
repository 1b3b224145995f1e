#include <cerrno>
#include <cstdio>
#include <memory>

#include "components/kit/HandOff.h"
#include "platform/bus/zxbus.h"
#include "platform/os/ZxEvent.h"
#include "zxctl/Answers.h"
#include "zxctl/Commands.h"
#include "zxctl/Table.h"
#include "zxctl/local/BusView.h"
#include "zxctl/local/Home.h"

namespace zxctl {

namespace {

// zxctl's own name on the bus; nothing is addressed to it but answers.
constexpr char kOwnGuid[] = "0C6B6F2E-93D1-4F5B-9B0B-7A5D41C3E8A6";
constexpr uint32_t kConnectMs = 5000;
constexpr uint32_t kSpareMs = 5000;

class CAnswer : public IMRSendComplete {
 public:
  CAnswer() : m_hEvent(ZxCreateEvent()) {}
  ~CAnswer() override { ZxDestroyEvent(m_hEvent); }
  CAnswer(const CAnswer&) = delete;
  CAnswer& operator=(const CAnswer&) = delete;

  void SendCallback(unsigned int iRetReply, long i64MsgType, const unsigned char* pResponse,
                    unsigned int uiResponseLength, unsigned long long /*ui64ACT*/,
                    void* /*pContext*/) override {
    m_uiStatus = iRetReply;
    m_i64Type = i64MsgType;
    if (pResponse != nullptr)
      m_strData.assign(reinterpret_cast<const char*>(pResponse), uiResponseLength);
    if (m_hEvent != nullptr)
      ZxSetEvent(m_hEvent);
  }
  bool Wait(uint32_t uiMs) { return m_hEvent != nullptr && ZxWaitEventTimeout(m_hEvent, uiMs); }

  uint32_t m_uiStatus = 0;
  long m_i64Type = 0;
  std::string m_strData;

 private:
  HZxEvent m_hEvent;
};

// On the bus as a component for as long as it lives.
class CGuest {
 public:
  ~CGuest() {
    if (m_pContext != nullptr) {
      m_pContext->Uninitialize();
      ZxBusDestroyContext(m_pContext);
    }
    ZxBusDisconnect();
  }
  uint32_t Join(const std::string& strAddress) {
    ZxBusConnectSettings settings;
    settings.pszAddress = strAddress.c_str();
    settings.uiTimeoutMs = kConnectMs;
    if (const uint32_t uiResult = ZxBusConnect(&settings); uiResult != 0)
      return uiResult;
    m_pContext = ZxBusCreateContext();
    const GUID guid(kOwnGuid);
    return m_pContext == nullptr ? uint32_t{kBusErrBusy} : m_pContext->Initialize(&guid);
  }
  IBusContext* operator->() const { return m_pContext; }

 private:
  IBusContext* m_pContext = nullptr;
};

bool ReadMessage(const _SendOptions& options, std::string& strData) {
  if (options.strFile.empty()) {
    strData = options.strData;
    return true;
  }
  if (options.strFile != "-") {
    if (ReadFileBounded(options.strFile, kBusMaxBytes, false, strData))
      return true;
    std::fprintf(stderr, "zxctl: %s: %s\n", options.strFile.c_str(), ErrnoText(errno).c_str());
    return false;
  }
  char szPart[65536];
  size_t uRead = 0;
  while ((uRead = std::fread(szPart, 1, sizeof(szPart), stdin)) > 0 && strData.size() <= kBusMaxBytes)
    strData.append(szPart, uRead);
  return true;
}

const char* BusText(uint32_t uiStatus) {
  switch (uiStatus) {
    case 0:
      return "done";
    case kBusErrNoTarget:
      return "nobody on the bus has this GUID";
    case kBusErrNoReceiver:
      return "the component does not take this type";
    case kBusErrTimeout:
      return "no answer in time";
    case kBusErrGone:
      return "the component or the bus went away";
    case kBusErrBusy:
      return "a queue is full; try later";
    case kBusErrTooLong:
      return "the message is too long";
    case kBusErrTaken:
      return "another zxctl sends at this moment";
    case kBusErrDenied:
      return "the policy does not allow it; root may";
    case kBusErrNoReply:
      return "the component gave no answer";
    default:
      return "the component's own status";
  }
}

int Report(uint32_t uiStatus, const CAnswer& answer, bool bJson) {
  if (bJson) {
    CPJsonParse json;
    CPString strText;
    json.CreateJson();
    json.AddNode(nullptr, "status", static_cast<double>(uiStatus));
    json.AddNode(nullptr, "meaning", BusText(uiStatus));
    json.AddNode(nullptr, "type", static_cast<double>(answer.m_i64Type));
    json.AddNode(nullptr, "data", answer.m_strData.c_str());
    json.GetJsonStr(strText);
    Print(strText.Str() + "\n");
  } else {
    std::printf("status 0x%X (%s)\n", uiStatus, BusText(uiStatus));
    PrintForeign(answer.m_strData.empty() ? "" : answer.m_strData + "\n");
  }
  return uiStatus == 0 ? kExitOk : kExitFailed;
}

}  // namespace

int SendMessage(const std::string& strHome, const _SendOptions& options, bool bJson) {
  std::string strData;
  if (!IsGuidText(options.strTarget)) {
    std::fprintf(stderr, "zxctl: %s is not a GUID; zxctl components lists them\n", options.strTarget.c_str());
    return kExitUsage;
  }
  if (!ReadMessage(options, strData))
    return kExitFailed;
  const std::string strAddress = BusAddressOf(strHome);
  CAnswer answer;
  CGuest guest;
  const uint32_t uiJoin = guest.Join(strAddress);
  if (uiJoin != 0) {
    std::fprintf(stderr, "zxctl: the bus %s does not let zxctl in: 0x%X %s\n", strAddress.c_str(), uiJoin,
                 BusText(uiJoin));
    return uiJoin == kBusErrGone ? kExitUnreachable : uiJoin == kBusErrDenied ? kExitDenied : kExitFailed;
  }
  const GUID target(options.strTarget.c_str());
  unsigned long long u64Act = 0;
  const uint32_t uiSent =
      guest->AsynSendEx(&target, options.uiType, strData.data(), static_cast<uint32_t>(strData.size()),
                        &answer, nullptr, &u64Act, options.uiTimeoutMs);
  if (uiSent != 0)
    return Report(uiSent, answer, bJson);
  if (!answer.Wait(options.uiTimeoutMs + kSpareMs))
    return Report(kBusErrTimeout, CAnswer(), bJson);
  return Report(answer.m_uiStatus, answer, bJson);
}

}  // namespace zxctl
