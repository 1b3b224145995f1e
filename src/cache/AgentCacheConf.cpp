// Which commands are tasks, and how many copies of each are kept (etc/zxagent/taskconf.json).
#include <cerrno>
#include <cstring>
#include <vector>

#include "cache/AgentCache.h"
#include "data/AgentLog.h"
#include "platform/doc/PJsonParse.h"

namespace {

constexpr unsigned int kDefaultSaveCount = 10;

CPString Key(const CPString& strProduct, const CPString& strCombo) {
  return (strProduct + "/" + strCombo).Lower();
}

}  // namespace

void CAgentCache::LoadTaskConf() {
  const CPString strFile = m_strPath + "etc/zxagent/taskconf.json";
  zxtools::CPJsonParse json;
  if (json.LoadFile(strFile) == 0) {
    const int iError = errno;
    char szBuffer[128] = {};
    LogWarn("*zxagent CAgentCache::LoadTaskConf LoadFile error[%d][%s] strFile[%s]", iError,
            strerror_r(iError, szBuffer, sizeof(szBuffer)), strFile);
    return;
  }
  const zxtools::HJsonNode hList = json.GetNode("taskconf");
  if (hList == nullptr) {
    LogWarn("*zxagent CAgentData::LoadTaskConf Error GetNode taskconf strFile[%s]", strFile);
    return;
  }
  std::vector<zxtools::HJsonNode> children;
  if (json.GetAllNode(hList, children) == 0) {
    LogWarn("*zxagent CAgentData::LoadTaskConf Error GetAllNode strFile[%s]", strFile);
    return;
  }

  taskConfMap mapNew;
  for (const zxtools::HJsonNode hChild : children) {
    CPString strProduct;
    CPString strCombo;
    if (zxtools::CPJsonParse::GetValue(json.GetNode(hChild, "product"), strProduct) == 0 ||
        zxtools::CPJsonParse::GetValue(json.GetNode(hChild, "combo"), strCombo) == 0)
      continue;
    CPString strCommand;
    int iSaveCount = 0;
    zxtools::CPJsonParse::GetValue(json.GetNode(hChild, "command"), strCommand);
    zxtools::CPJsonParse::GetIntValue(json.GetNode(hChild, "savecount"), iSaveCount);
    CPStrList commands;
    strCommand.Split(",", commands, true, true);
    std::list<_TaskConf>& list = mapNew[Key(strProduct, strCombo)];
    for (const CPString& str : commands)
      list.push_back({str, static_cast<unsigned int>(iSaveCount)});
  }
  const CCritLock lock(m_csTaskConf);
  m_mapTaskConf.swap(mapNew);
}

int CAgentCache::FindTaskConf(const CPString& strProduct, const CPString& strCombo,
                              const CPString& strCommand, unsigned int& uiSaveCount) {
  const CPString strKey = Key(strProduct, strCombo);
  const CCritLock lock(m_csTaskConf);
  const auto it = m_mapTaskConf.find(strKey);
  if (it == m_mapTaskConf.end())
    return 0;
  bool bAny = it->second.empty();
  for (const _TaskConf& conf : it->second) {
    if (conf.strCommand.CompareNoCase(strCommand) == 0) {
      uiSaveCount = conf.uiSaveCount;
      return 1;
    }
    bAny = bAny || conf.strCommand.IsEmpty();
  }
  if (!bAny)
    return 0;
  uiSaveCount = kDefaultSaveCount;  // not the empty entry's own count
  return 1;
}
