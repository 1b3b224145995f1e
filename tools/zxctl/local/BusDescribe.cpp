#include <algorithm>
#include <array>

#include "components/kit/HandOff.h"
#include "data/AgentCodes.h"
#include "zxctl/Answers.h"
#include "zxctl/Table.h"
#include "zxctl/local/BusView.h"
#include "zxctl/local/HostView.h"

namespace zxctl {

namespace {

constexpr size_t kNameMax = 80;

std::string Name(const std::string& str) {
  return Shorten(str.empty() ? "-" : str, kNameMax);
}

const char* KindOf(uint32_t uiType) {
  switch (uiType) {
    case TASKMGR_MSG_TYPE_ASYNC:
      return "policy";
    case AGENT_MSG_SYNC_LOGCACHE:
      return "log cache";
    case AGENT_MSG_ASYNC_LOGCACHERESULT:
      return "result of a log cache";
    case AGENT_MSG_ASYNC_GUIDLIST:
      return "list of components";
    case AGENT_MSG_ASYNC_TASKMGRRESULT:
      return "result of a record";
    case AGENT_MSG_ASYNC_SENDTEMPLATE:
      return "result record";
    default:
      return "message";
  }
}

}  // namespace

std::string DescribeMessage(uint32_t uiType, std::string_view svData) {
  CHandOff handOff;
  const std::string strSize = ", " + BytesText(static_cast<int64_t>(svData.size()));
  if (uiType == TASKMGR_MSG_TYPE_ASYNC && ParseHandOff(svData, handOff))
    return "command " + Name(handOff.strCommand) + " for " + Name(handOff.strProduct) + "/" +
           Name(handOff.strCombo) + ", id " + Name(CommandId(handOff.strMsg).Str()) + strSize;
  return std::string(KindOf(uiType)) + strSize;
}

}  // namespace zxctl
