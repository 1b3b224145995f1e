// A whole component: answers the command "hello" with a greeting.
#include "kit/ComponentMain.h"
#include "kit/HandOff.h"
#include "platform/doc/PJsonParse.h"

using zxtools::CPJsonParse;

class CHello : public CComponent {
 public:
  static constexpr char kGuid[] = "0D6F1C2A-7B3E-4C58-9E21-5A4B3C2D1E0F";
  CHello() : CComponent(kGuid, "hello", {20001}) {}

 private:
  void OnMessage(const GUID& sender, uint32_t, std::string_view data, const CBaton& baton) override {
    CPString strAnswer;
    const uint32_t uiStatus = sender == m_guidTaskMgr ? Run(data, strAnswer) : uint32_t{kComponentErrSender};
    if (uiStatus != 0)
      LogWarnTo(Log(), "*hello refused iStatus[%x] from[%s]", uiStatus, sender.ToUpper());
    baton.Reply(uiStatus, strAnswer.View());
  }

  uint32_t Run(std::string_view data, CPString& strAnswer) {
    CHandOff handOff;
    if (!ParseHandOff(data, handOff))
      return kComponentErrText;
    if (handOff.strCommand != "hello")
      return kComponentErrCommand;
    CPJsonParse answer;
    answer.CreateJson();
    answer.AddNode(nullptr, "ID", CommandId(handOff.strMsg));
    answer.AddNode(nullptr, "greeting", CPString("Hello, " + handOff.strCombo));
    answer.GetJsonStr(strAnswer);
    LogInfoTo(Log(), "hello answered strAnswer[%s]", strAnswer);
    return 0;
  }

  const GUID m_guidTaskMgr{"FAB922A8-736E-4CB5-A666-4FD849A3049A"};
};

ZX_COMPONENT(CHello)
