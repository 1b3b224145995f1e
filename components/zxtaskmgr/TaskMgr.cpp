// Sample task manager: takes commands from the agent, passes each to its component, and answers the agent
// with the component's status and data. What a component answered is also a task result: it is kept on disk
// and handed to the agent until the cloud has it (ResultBox.h). The agent's list of GUIDs is kept in
// guidlist.json of its folder.
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "ResultBox.h"
#include "kit/ComponentMain.h"
#include "kit/HandOff.h"
#include "platform/os/ZxFile.h"

namespace {

constexpr uint32_t kCommandType = 20001;
constexpr uint32_t kGuidListType = 20104;
constexpr uint32_t kUploadResultType = 20105;
// Below the agent's own 60 s, so that the component's time-out is told as such.
constexpr uint32_t kTimeoutMs = 55000;
constexpr int kResultPriority = 1;
constexpr char kAgentGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";

}  // namespace

class CTaskMgr final : public CComponent, private IMRSendComplete {
 public:
  static constexpr char kGuid[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";

  CTaskMgr()
      : CComponent(kGuid, "zxtaskmgr", {kCommandType, kGuidListType, kUploadResultType}),
        m_guidAgent(kAgentGuid) {}

 private:
  // A command that its component has not answered yet. Belongs to the bus between the send and its
  // completion.
  struct _Pending {
    CBaton baton;
    CPString strId;
    CHandOff handOff;
  };

  void OnMessage(const GUID& sender, uint32_t uiType, std::string_view data, const CBaton& baton) override {
    if (sender != m_guidAgent) {
      LogWarnTo(Log(), "*zxtaskmgr refused: not the agent uiType[%u] from[%s]", uiType, sender.ToUpper());
      Answer(baton, kComponentErrSender, {});
      return;
    }
    if (uiType == kGuidListType) {
      Answer(baton, KeepGuidList(data) ? 0u : uint32_t{kComponentErrFailed}, {});
      return;
    }
    if (uiType == kUploadResultType) {
      Answer(baton, TakeUploadResult(data), {});
      return;
    }
    const uint32_t uiStatus = PassOn(data, baton);
    if (uiStatus != 0)
      Answer(baton, uiStatus, {});
  }

  bool OnStart() override {
    m_results.Start(DataDir("zxtaskmgr"), Bus(), Log());
    return true;
  }
  void OnStop() override { m_results.Stop(); }

  bool KeepGuidList(std::string_view data) {
    const CPString strFile(DataDir("zxtaskmgr") + "guidlist.json");
    std::error_code error;
    std::filesystem::create_directories(DataDir("zxtaskmgr"), error);
    if (!ZxSaveFileData(strFile + ".tmp", CPString(data)) || !ZxSyncedRename(strFile + ".tmp", strFile))
      return LogWarnTo(Log(), "*zxtaskmgr cannot keep the GUID list strFile[%s] Error[%d]", strFile, errno) !=
             0;
    LogInfoTo(Log(), "zxtaskmgr keeps the GUID list strGuidList[%s]", CPString(data));
    return true;
  }

  uint32_t TakeUploadResult(std::string_view data) {
    uint64_t u64DataId = 0;
    int32_t iResult = 0;
    if (!ParseUploadResult(data, u64DataId, iResult)) {
      LogWarnTo(Log(), "*zxtaskmgr refused: no upload result bytes[%llu]", data.size());
      return kComponentErrText;
    }
    LogInfoTo(Log(), "zxtaskmgr upload result u64DataId[%llx] iResult[%x]", u64DataId, iResult);
    m_results.OnUploadResult(u64DataId, iResult);
    return 0;
  }

  // The agent is answered, and acknowledges the command to the cloud, when the result cannot get lost any
  // more.
  void KeepResult(const _Pending& pending, std::string_view response) {
    zxlogcache::_SourceSettings source;
    source.strName =
        pending.handOff.strGuid + " " + pending.handOff.strProduct + "/" + pending.handOff.strCombo;
    source.strGuid = pending.handOff.strGuid;
    source.strProduct = pending.handOff.strProduct;
    source.strCombo = pending.handOff.strCombo;
    source.iPriv = kResultPriority;
    source.eBody = zxlogcache::EBody::Record;
    const CBaton baton = pending.baton;
    const std::string strResponse(response);
    m_results.Add(source, strResponse, [this, baton, strResponse, strId = pending.strId](bool bKept) {
      if (!bKept)
        LogErrorTo(Log(), "**zxtaskmgr cannot keep the result strID[%s] bytes[%llu]", strId,
                   strResponse.size());
      Answer(baton, bKept ? 0u : uint32_t{kComponentErrFailed}, strResponse);
    });
  }

  // 0: on its way, the answer follows with the component's own.
  uint32_t PassOn(std::string_view data, const CBaton& baton) {
    CHandOff handOff;
    if (!ParseHandOff(data, handOff) || !IsGuidText(handOff.strGuid)) {
      LogWarnTo(Log(), "*zxtaskmgr refused: no hand-off bytes[%llu]", data.size());
      return kComponentErrText;
    }
    auto pPending = std::make_unique<_Pending>(_Pending{baton, CommandId(handOff.strMsg), handOff});
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
                pPending->strId, pPending->handOff.strCommand, pPending->handOff.strGuid, CPString(response));
    else
      LogWarnTo(Log(), "*zxtaskmgr failed strID[%s] strCommand[%s] strGuid[%s] iStatus[%x]", pPending->strId,
                pPending->handOff.strCommand, pPending->handOff.strGuid, iRetReply);
    if (iRetReply == 0 && !response.empty())
      KeepResult(*pPending, response);
    else
      Answer(pPending->baton, iRetReply, response);
  }

  void Answer(const CBaton& baton, uint32_t uiStatus, std::string_view data) {
    const uint32_t uiRet = baton.Reply(uiStatus, data);
    if (uiRet != 0)
      LogWarnTo(Log(), "*zxtaskmgr answer not taken by the agent iStatus[%x] iRet[%x]", uiStatus, uiRet);
  }

  const GUID m_guidAgent;
  CResultBox m_results;
};

ZX_COMPONENT(CTaskMgr)
