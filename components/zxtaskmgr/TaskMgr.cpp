// Sample task manager: takes commands from the agent, passes each to its component, and answers the agent
// with the component's status and data. Keeps the agent's list of GUIDs in memory.
#include <memory>
#include <string>

#include "kit/Component.h"
#include "kit/HandOff.h"

namespace {

constexpr uint32_t kCommandType = 20001;
constexpr uint32_t kGuidListType = 20104;
// Below the agent's own 60 s, so that the component's time-out is told as such.
constexpr uint32_t kTimeoutMs = 55000;
constexpr char kAgentGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";

}  // namespace

class CTaskMgr final : public CComponent, private IMRSendComplete {
 public:
  static constexpr char kGuid[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";

  CTaskMgr() : CComponent(kGuid, "zxtaskmgr", {kCommandType, kGuidListType}), m_guidAgent(kAgentGuid) {}

 private:
  // A command that its component has not answered yet. Belongs to the bus between the send and its
  // completion.
  struct _Pending {
    CBaton baton;
    CPString strId;
    std::string strGuid;
    std::string strCommand;
  };

  void OnMessage(const GUID& sender, uint32_t uiType, std::string_view data, const CBaton& baton) override {
    if (sender != m_guidAgent) {
      LogWarnTo(Log(), "*zxtaskmgr refused: not the agent uiType[%u] from[%s]", uiType, sender.ToUpper());
      Answer(baton, kComponentErrSender, {});
      return;
    }
    if (uiType == kGuidListType) {
      m_strGuidList = CPString(data);
      LogInfoTo(Log(), "zxtaskmgr keeps the GUID list strGuidList[%s]", m_strGuidList);
      Answer(baton, 0, {});
      return;
    }
    const uint32_t uiStatus = PassOn(data, baton);
    if (uiStatus != 0)
      Answer(baton, uiStatus, {});
  }

  // 0: on its way, the answer follows with the component's own.
  uint32_t PassOn(std::string_view data, const CBaton& baton) {
    CHandOff handOff;
    if (!ParseHandOff(data, handOff) || !IsGuidText(handOff.strGuid)) {
      LogWarnTo(Log(), "*zxtaskmgr refused: no hand-off bytes[%llu]", data.size());
      return kComponentErrText;
    }
    auto pPending = std::make_unique<_Pending>(
        _Pending{baton, CommandId(handOff.strMsg), handOff.strGuid, handOff.strCommand});
    LogInfoTo(Log(), "zxtaskmgr passes on strID[%s] strCommand[%s] strProduct[%s] strCombo[%s] strGuid[%s]",
              pPending->strId, handOff.strCommand, handOff.strProduct, handOff.strCombo, handOff.strGuid);
    const GUID guid(handOff.strGuid.c_str());
    unsigned long long ui64ACT = 0;
    const uint32_t uiRet =
        Bus()->AsynSendEx(&guid, kCommandType, data.data(), static_cast<uint32_t>(data.size()), this,
                          pPending.get(), &ui64ACT, kTimeoutMs);
    if (uiRet == 0)
      (void)pPending.release();  // the completion owns it, and may have ended it already
    else
      LogWarnTo(Log(), "*zxtaskmgr cannot deliver strID[%s] strCommand[%s] strGuid[%s] iRet[%x]",
                pPending->strId, handOff.strCommand, handOff.strGuid, uiRet);
    return uiRet;
  }

  void SendCallback(unsigned int iRetReply, long, const unsigned char* pResponse,
                    unsigned int uiResponseLength, unsigned long long, void* pContext) override {
    const std::unique_ptr<_Pending> pPending(static_cast<_Pending*>(pContext));
    const std::string_view response(reinterpret_cast<const char*>(pResponse),
                                    pResponse == nullptr ? 0 : uiResponseLength);
    if (iRetReply == 0)
      LogInfoTo(Log(), "zxtaskmgr answered strID[%s] strCommand[%s] strGuid[%s] strAnswer[%s]",
                pPending->strId, pPending->strCommand, pPending->strGuid, CPString(response));
    else
      LogWarnTo(Log(), "*zxtaskmgr failed strID[%s] strCommand[%s] strGuid[%s] iStatus[%x]", pPending->strId,
                pPending->strCommand, pPending->strGuid, iRetReply);
    Answer(pPending->baton, iRetReply, response);
  }

  void Answer(const CBaton& baton, uint32_t uiStatus, std::string_view data) {
    const uint32_t uiRet = baton.Reply(uiStatus, data);
    if (uiRet != 0)
      LogWarnTo(Log(), "*zxtaskmgr answer not taken by the agent iStatus[%x] iRet[%x]", uiStatus, uiRet);
  }

  const GUID m_guidAgent;
  CPString m_strGuidList;  // the dispatcher's thread only
};

ZX_COMPONENT_PLUGIN(CTaskMgr)
