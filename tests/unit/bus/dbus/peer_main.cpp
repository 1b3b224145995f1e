// An external component for tests: joins the bus under a GUID, answers, and does what its standard input
// says. Prints one line per event. Types: 1 answers reversed with status 7 and type + 1; 2 keeps its baton; 3
// is only noted; 4 answers with an empty text; 5 gives back what it got.
#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/bus/zxbus.h"

namespace {

std::mutex g_output;

__attribute__((format(printf, 1, 2))) void Say(const char* pszFormat, ...) {
  const std::lock_guard lock(g_output);
  va_list args;
  va_start(args, pszFormat);
  std::vprintf(pszFormat, args);
  va_end(args);
  std::printf("\n");
  std::fflush(stdout);
}

class CPeer final : public IMRReceiveComplete, public IMRSendComplete {
 public:
  void ReceiveCallback(const GUID& recvGuid, long i64MsgType, const unsigned char* pData,
                       unsigned int uiDataLength, void* pBatonData, void* pContext) override {
    std::string strData(reinterpret_cast<const char*>(pData), uiDataLength);
    if (i64MsgType == 2) {
      const std::lock_guard lock(m_mutex);
      m_batons.push_back(pBatonData);
    }
    Say("recv %ld from %s bytes %u baton %d text %.40s", i64MsgType, recvGuid.ToUpper().c_str(), uiDataLength,
        pBatonData != nullptr ? 1 : 0, strData.c_str());
    auto* pBus = static_cast<IBusContext*>(pContext);
    if (i64MsgType == 1) {
      std::reverse(strData.begin(), strData.end());
      Answer(pBus, 7, i64MsgType + 1, strData, pBatonData);
    } else if (i64MsgType == 4) {
      Answer(pBus, 0, 4, "", pBatonData);
    } else if (i64MsgType == 5) {
      Answer(pBus, 0, 5, strData, pBatonData);
    }
  }
  void SendCallback(unsigned int iRetReply, long i64MsgType, const unsigned char*, unsigned int uiLength,
                    unsigned long long, void*) override {
    Say("done %x type %ld bytes %u", iRetReply, i64MsgType, uiLength);
  }
  void AnswerLate(IBusContext* pBus) {
    std::vector<void*> batons;
    {
      const std::lock_guard lock(m_mutex);
      batons.swap(m_batons);
    }
    for (void* pBaton : batons)
      Say("late %x", pBus->Reply(9, 2, "late", 4, pBaton));
  }

 private:
  static void Answer(IBusContext* pBus, uint32_t uiStatus, long i64Type, const std::string& strData,
                     void* pBaton) {
    if (pBaton == nullptr)
      return;
    const uint32_t uiResult =
        pBus->Reply(uiStatus, i64Type, strData.data(), static_cast<uint32_t>(strData.size()), pBaton);
    if (uiResult != 0)
      Say("reply refused %x", uiResult);
  }
  std::mutex m_mutex;
  std::vector<void*> m_batons;
};

void OnState(uint32_t uiState, const char* pszText, void*) {
  Say("state %u %s", uiState, pszText);
}

void Command(IBusContext* pBus, CPeer& peer, const std::string& strLine) {
  std::istringstream words(strLine);
  std::string strVerb, strGuid;
  uint32_t uiType = 0, uiLength = 0, uiTimeoutMs = 0, uiCount = 0;
  words >> strVerb;
  if (strVerb == "send") {
    words >> strGuid >> uiType >> uiLength >> uiTimeoutMs >> uiCount;
    const GUID guid(strGuid.c_str());
    const std::string strData(uiLength, 'x');
    uint32_t uiRefused = 0;
    for (uint32_t i = 0; i < uiCount; ++i) {
      const uint32_t uiResult =
          pBus->AsynSendEx(&guid, uiType, strData.data(), uiLength, &peer, nullptr, nullptr, uiTimeoutMs);
      if (uiResult != 0 && uiRefused++ == 0)
        Say("refused %x", uiResult);
    }
    Say("sent %u refused %u", uiCount - uiRefused, uiRefused);
  } else if (strVerb == "broadcast") {
    words >> uiType >> uiLength >> uiCount;
    const std::string strData(uiLength, 'b');
    uint32_t uiResult = 0;
    for (uint32_t i = 0; i < uiCount; ++i)
      uiResult = std::max(uiResult, pBus->BroadcastSend(uiType, strData.data(), uiLength));
    Say("broadcast %x", uiResult);
  } else if (strVerb == "late") {
    peer.AnswerLate(pBus);
  } else if (strVerb == "unreceive") {
    words >> uiType;
    pBus->Unreceive(uiType);
    Say("unreceived %u", uiType);
  } else if (strVerb == "stats") {
    uint32_t uiNeeded = 0;
    ZxBusStats(nullptr, 0, &uiNeeded);
    std::vector<char> text(uiNeeded + 1000);
    const uint32_t uiResult = ZxBusStats(text.data(), static_cast<uint32_t>(text.size()), &uiNeeded);
    Say("stats %x %s", uiResult, text.data());
  } else if (strVerb == "leave") {
    pBus->Uninitialize();
    Say("left");
  } else {
    Say("unknown %s", strVerb.c_str());
  }
}

}  // namespace

// peer ADDRESS GUID
int main(int argc, char** argv) {
  if (argc < 3)
    return 2;
  ZxBusConnectSettings settings;
  settings.pszAddress = argv[1];
  settings.pfnState = &OnState;
  Say("connect %x", ZxBusConnect(&settings));
  const GUID guid(argv[2]);
  CPeer peer;
  IBusContext* pBus = ZxBusCreateContext();
  Say("initialize %x", pBus->Initialize(&guid));
  for (uint32_t uiType = 1; uiType <= 5; ++uiType)
    pBus->Receive(uiType, &peer);
  Say("up");
  std::string strLine;
  while (std::getline(std::cin, strLine) && strLine != "quit")
    Command(pBus, peer, strLine);
  ZxBusDestroyContext(pBus);
  ZxBusDisconnect();
  Say("end");
  return 0;
}
