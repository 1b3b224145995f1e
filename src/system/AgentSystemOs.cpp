#include <strings.h>

#include <cerrno>
#include <string_view>

#include "data/AgentLog.h"
#include "platform/os/ZxFile.h"
#include "system/AgentSystem.h"

namespace {

// "nfs" also matches names that merely contain it; that is wanted.
constexpr std::string_view kNationKeywords[] = {"uniontech", "uos",  "kylin", "neokylin",
                                                "nfs",       "ky10", "方德"};

constexpr size_t kLineMax = 1023;  // a longer line counts as several
constexpr std::string_view kBlanks = " \t\n\v\f\r";

struct _OsRelease {
  bool bName = false;
  bool bId = false;
  CPString strName;  // as they stand, quotes and line end included
  CPString strId;
};

// Takes the next line off svText: up to and with its line feed, at most kLineMax bytes, cut at a NUL.
std::string_view TakeLine(std::string_view& svText) {
  const size_t uFeed = svText.substr(0, kLineMax).find('\n');
  const std::string_view svLine = svText.substr(0, uFeed == std::string_view::npos ? kLineMax : uFeed + 1);
  svText.remove_prefix(svLine.size());
  return svLine.substr(0, svLine.find('\0'));
}

// "NAME" and "NAME " are the key NAME, "NAME_X" is not.
bool IsKey(std::string_view svText, std::string_view svKey) {
  if (svText.size() < svKey.size() || strncasecmp(svText.data(), svKey.data(), svKey.size()) != 0)
    return false;
  return svText.size() == svKey.size() || kBlanks.find(svText[svKey.size()]) != std::string_view::npos;
}

void ReadLine(std::string_view svLine, _OsRelease& os) {
  const size_t uBegin = svLine.find_first_not_of(kBlanks);
  if (uBegin == std::string_view::npos)
    return;
  svLine.remove_prefix(uBegin);
  LogDetail("zxagent CAgentSystem::IsNationSystem read pBegin[%s]", CPString(svLine));
  const size_t uEqual = svLine.find('=');
  if (svLine.front() == '#' || uEqual == std::string_view::npos)
    return;
  const std::string_view svKey = svLine.substr(0, uEqual);
  const CPString strValue(svLine.substr(uEqual + 1));
  if (!os.bName && IsKey(svKey, "NAME")) {
    os.bName = true;
    os.strName = strValue;
    LogInfo("zxagent CAgentSystem::IsNationSystem find NAME strName[%s]", strValue);
  } else if (!os.bId && IsKey(svKey, "ID")) {
    os.bId = true;
    os.strId = strValue;
    LogInfo("zxagent CAgentSystem::IsNationSystem find ID strID[%s]", strValue);
  }
}

bool HoldsNationKeyword(const CPString& strText) {
  const CPString strLower = strText.Lower();
  for (const std::string_view svKeyword : kNationKeywords) {
    if (strLower.Find(svKeyword) != CPString::npos)
      return true;
  }
  return false;
}

}  // namespace

// The file is read before it is looked at: no descriptor is open while a cancelled thread could unwind.
int CAgentSystem::IsNationSystem() {
  const CPString strFile = m_strSystemRoot + "/etc/os-release";
  CPString strText;
  if (!ZxReadFileText(strFile, strText))
    return LogWarn("*zxagent CAgentSystem::IsNationSystem fopen Error[%d] szFile[%s]", errno, strFile);
  _OsRelease os;
  std::string_view svRest = strText.View();
  while (!svRest.empty() && !(os.bName && os.bId))
    ReadLine(TakeLine(svRest), os);
  return HoldsNationKeyword(os.strName) || HoldsNationKeyword(os.strId) ? 1 : 0;
}

CPString CAgentSystem::GetOwnVersion() {
  return CPString();
}

CPString CAgentSystem::GetSystemVersion() {
  return GetOwnVersion();
}
