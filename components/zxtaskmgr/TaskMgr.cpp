// Sample task manager: takes commands from the agent, passes each to its component, and answers the agent
// with the component's status.
#include <memory>
#include <string>

#include "kit/Component.h"
#include "kit/HandOff.h"

namespace {

constexpr uint32_t kCommandType = 20001;
constexpr uint32_t kGuidListType = 20104;
constexpr uint32_t kTimeoutMs =
    55000;  // below the agent's own 60 s, so that the component's time-out is told as such
constexpr char kAgentGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";

enum : uint32_t { kNotForYou = 1, kBadHandOff = 2, kUnknownType = 3 };

// A command that its component has not answered yet.
struct CPending {
  CBaton baton;
  HLog hLog = nullptr;
  std::string strGuid;
  std::string strCommand;
};

// Passes the component's answer on and forgets the command.
class CAnswer final : public IMRSendComplete {
 public:
  void SendCallback(unsigned int iRetReply, long, const unsigned char* pResponse,
                    unsigned int uiResponseLength, unsigned long long, void* pContext) override {
    const std::unique_ptr<CPending> pPending(static_cast<CPending*>(pContext));
    const std::string_view response(reinterpret_cast<const char*>(pResponse),
                                    pResponse == nullptr ? 0 : uiResponseLength);
    LogInfoTo(pPending->hLog, "taskmgr component[%s] answered command[%s] status[%x] answer[%s]",
              pPending->strGuid, pPending->strCommand, iRetReply, CPString(response));
    pPending->baton.Reply(iRetReply, response);
  }
};
CAnswer g_Answer;

}  // namespace

class CTaskMgr final : public CComponent {
 public:
  static constexpr char kGuid[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";

  CTaskMgr() : CComponent(kGuid, "zxtaskmgr", {kCommandType, kGuidListType}) {}

 private:
  void OnMessage(const GUID& sender, uint32_t uiType, std::string_view data, const CBaton& baton) override {
    if (sender != GUID(kAgentGuid)) {
      LogWarnTo(Log(), "*taskmgr refused type[%u] from[%s]", uiType, sender.ToUpper());
      return baton.Reply(kNotForYou, {});
    }
    if (uiType == kCommandType)
      return PassOn(data, baton);
    if (uiType != kGuidListType)
      return baton.Reply(kUnknownType, {});
    LogInfoTo(Log(), "taskmgr GUID list %s", CPString(data));
    baton.Reply(0, {});
  }

  void PassOn(std::string_view data, const CBaton& baton) {
    CHandOff handOff;
    if (!ParseHandOff(data, handOff)) {
      LogWarnTo(Log(), "*taskmgr refused a hand-off of %llu bytes", data.size());
      return baton.Reply(kBadHandOff, {});
    }
    LogInfoTo(Log(), "taskmgr passes command[%s] to component[%s] %s", handOff.strCommand, handOff.strGuid,
              handOff.strMsg);
    auto pPending = std::make_unique<CPending>(CPending{baton, Log(), handOff.strGuid, handOff.strCommand});
    const GUID guid(handOff.strGuid.c_str());
    unsigned long long ui64ACT = 0;
    const uint32_t uiRet =
        Bus()->AsynSendEx(&guid, kCommandType, data.data(), static_cast<uint32_t>(data.size()), &g_Answer,
                          pPending.get(), &ui64ACT, kTimeoutMs);
    if (uiRet != 0) {
      LogWarnTo(Log(), "*taskmgr component[%s] command[%s] cannot be reached iRet[%x]", handOff.strGuid,
                handOff.strCommand, uiRet);
      return baton.Reply(uiRet, {});
    }
    (void)pPending.release();  // the completion owns it
  }
};

ZX_COMPONENT_PLUGIN(CTaskMgr)
