// The agent's persistent store: every file under the home that the agent reads or writes, and the maps built
// from them. One instance, owned by CAgentMgr. Results: 1 done, 0 failed (one log line), unless said
// otherwise. Blocks on file I/O only, and never under a lock. Implementation by file family: AgentData.cpp
// (life cycle, paths, save convention), AgentDataConfig.cpp (version.xml, merge, cache attributes),
// AgentDataCloud.cpp (cloud record), AgentDataAddr.cpp (address files), AgentDataMid.cpp, AgentDataState.cpp,
// AgentDataPcid.cpp, AgentDataRoute.cpp, AgentDataComs.cpp.
#pragma once

#include <list>
#include <map>
#include <vector>

#include "data/AgentDataLocalIp.h"
#include "data/AgentRecords.h"
#include "platform/doc/PJsonParse.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/text/Guid.h"
#include "platform/text/PStrList.h"
#include "platform/text/PString.h"
#include "registry/AgentInterface.h"

// Command name (lower case) to its route entries in file order; "product/combo" (lower case) to GUID texts;
// GUID to names.
using commandRouteMap = std::map<CPString, std::list<_GuidProductCombo>>;
using productComboToGuidMap = std::map<CPString, CPStrList>;
using guidToProductComboMap = std::map<GUID, _ProductCombo>;

inline constexpr int kUploadBudgetMb = 64;
inline constexpr int kUploadBudgetMaxMb = 1024;

class CAgentData {
 public:
  // strSystemRoot stands in for "/" in front of the paths outside the home; empty in production.
  explicit CAgentData(CPString strSystemRoot = CPString());
  ~CAgentData();
  CAgentData(const CAgentData&) = delete;
  CAgentData& operator=(const CAgentData&) = delete;

  // --- Life cycle, paths, save convention. Init and Uninit on the host's thread.
  int Init(CPString strHomePath);
  int Uninit();
  CPString GetConfInnerPath() const { return m_strConfInnerPath; }
  int MyMoveFile(const CPString& strSrcFile, const CPString& strDstFile);

  // --- Installation description, edition, deployment configuration.
  int GetVersionXml();
  int IsPersonalEdition() const;
  int IsDesktopSystem() const;
  int GetPlatId();  // 5 desktop, 6 domestic distribution, 2 otherwise
  int IsDisableHb() const { return m_bDisableHb; }
  int CheckAgentConf();
  int MergeCheckConfig();
  int ReadCacheAttribute(const CPString& strName, unsigned long long& u64FileSize,
                         unsigned int& dwLastWriteTime);
  int SaveCacheAttribute(const CPString& strName, unsigned long long u64FileSize,
                         unsigned int dwLastWriteTime);

  // --- Cloud record (zxcloud.json) and the address files. Any thread.
  int ReadZxCloudData();
  int SaveZxCloudData();
  int SetZxCloudShortAddr(const CPString& strLocal, const CPString& strRemote);
  int SetZxCloudLongAddr(const CPString& strLocal, const CPString& strRemote);
  int SetZxCloudConnectStatus(int bStatus);
  int SetZxCloudTconfAddr(const CPString& strAddr);
  int SetZxCloudLbAddr(const CPString& strAddr);
  int UpdateZxCloudLongAddrByShortAddr();
  _ZxCloudData GetZxCloudData();
  int ReadCustomCloudAddr(CPString& strAddr);
  int SaveCustomCloudAddr(const CPString& strAddr);
  int UpdateCloudAddr(const CPString& strAddr);
  int ReadAgentAddr(CPString& strAddr);
  int ReadLbData(CPString& strData);
  int SaveLbData(const CPString& strData);
  int ReadEngineAddrStatus(unsigned int& dwStatus, CPString& strAddr);
  int SaveEngineAddrStatus(unsigned int dwStatus, const CPString& strAddr);
  void ReadAllEngineAddr(CPStrSet& addrSet);
  int SaveAllEngineAddr(const CPStrSet& addrSet, CPString& strJson);
  int UpdateDbAddr();
  CPString GetLocalIp();

  // --- Machine-id records. Identity refresh only.
  int ReadMid(_MidInfoData& info, int& bSave);
  int ReadMidKey(const zxtools::CPJsonParse& json, const char* szFirstKey, const char* szLastKey,
                 const char* szOldKey, CPString& strFirst, CPString& strLast, int& bSave);
  int SaveMid(const _MidInfoData& info);
  int ReadOldMid(CPString& strMid1, CPString& strMid2);

  // --- Small state files.
  int ReadPubmsgReportData(int& iPubmsgReport);
  int SavePubmsgReportData(int iPubmsgReport);
  int ReadTermConnectData(CPString& strData);
  int SaveTermConnectData(const CPString& strData);
  int ParseTermConnectData(const CPString& strData, int& iType, int& iPollerCycle);
  int ReadMsgSrvAddrSetData(CPString& strData);
  int SaveMsgSrvAddrSetData(const CPString& strData);
  int ParseMsgSrvAddrSetData(const CPString& strData, CPString& strAddr);
  int ReadConfigChannelId(CPString& strChannelId, CPString& strIpartner);
  // Megabytes that uploads may take while they wait: the number "upload_budget_mb" of the object "zxagent" in
  // the deployed configuration, kept within 1 and kUploadBudgetMaxMb; kUploadBudgetMb (and 0) without one.
  int ReadConfigUploadBudget(int& iMegabytes);
  // Product id of the deployment's product-information record: home + "etc/productinfo.json", a JSON object
  // with the text "pid". On failure strPid is left as it was.
  int ReadConfigPid(CPString& strPid);

  // --- Product combos and business numbers. Any thread.
  uint32_t SetPcidData(const CPString& strPcidData, int bSaveFile);  // 0 done, kErrPcidSave
  int ReadPcidData(CPString& strPcidData);
  int SavePcidData(const CPString& strPcidData);
  void CleanPcidData();
  int GetProductComboByID(int iId, CPString& strProduct, CPString& strCombo);
  int GetIDByProductCombo(const CPString& strProduct, const CPString& strCombo, int& iId);
  int TransProductCombo(CPString& strProduct, CPString& strCombo);
  int GetProductComboByGuid(const GUID& guid, CPString& strProduct, CPString& strCombo);
  CPString GetAllPcidBusiness(int& bChanged);

  // --- Command routing table. Lookups on the work thread, rebuilds on a bus thread.
  int LoadCommandRoute(commandRouteMap& mapRoute);
  int SetCommandRoute(const CPString& strGuid, const CPString& strProduct, const CPString& strCombo,
                      CPString strCommand,
                      commandRouteMap& mapRoute);  // names added; -1 empty argument
  int SetGuidProductCombo(const CPString& strGuid, const CPString& strProduct, const CPString& strCombo,
                          productComboToGuidMap& mapPcGuid, guidToProductComboMap& mapGuidPc);
  int LoadCommandGuid(commandRouteMap& mapRoute, productComboToGuidMap& mapPcGuid,
                      guidToProductComboMap& mapGuidPc);
  int ReLoadCommandGuid();
  int GetCommandGuid(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                     CPString strCommand, CPStrList& guidList);
  void GetCommandProductMap(commandRouteMap& mapRoute, productComboToGuidMap& mapPcGuid);

  // --- Per-client component files, for other modules of the deployment.
  int LoadComsFile(std::list<_GuidProductCombo>& gpcList);
  int LoadComsClientConfig(const CPString& strFile, std::list<_GuidProductCombo>& gpcList);
  int GetComboConfigListByProductCombo(const CPString& strKey, std::list<_ComboConfig>& list);

 protected:
  // Constant after construction; a derived store may start with other values.
  int m_bDisableHb = 1;  // the heartbeat of this library is always off
  bool (*m_pfnListInterfaces)(std::vector<_InterfaceAddr>&) = &ListInterfaces;

 private:
  int PutCacheAttribute(zxtools::CPJsonParse& json, const CPString& strFile, const CPString& strName,
                        unsigned long long u64FileSize, unsigned int dwLastWriteTime);
  void FindLocalIp(CPString& strLocalIp);

  // Set in Init, then constant.
  CPString m_strSystemRoot;
  CPString m_strHomePath;
  CPString m_strConfPath;
  CPString m_strConfInnerPath;
  _VersionXml m_VersionXml;

  CCritSec m_csData;  // business-number maps
  CPString m_strPcidData TS_GUARDED_BY(m_csData);
  CPString m_strLastBusiness TS_GUARDED_BY(m_csData);
  std::map<int, _ProductCombo> m_idpcMap TS_GUARDED_BY(m_csData);
  std::map<CPString, int> m_pcidMap TS_GUARDED_BY(m_csData);
  std::map<CPString, _ProductCombo> m_strpcMap TS_GUARDED_BY(m_csData);

  CCritSec m_csRoute;  // route maps
  commandRouteMap m_commandRouteMap TS_GUARDED_BY(m_csRoute);
  productComboToGuidMap m_productComboToGuidMap TS_GUARDED_BY(m_csRoute);
  guidToProductComboMap m_guidToProductComboMap TS_GUARDED_BY(m_csRoute);

  CCritSec m_csCloud;  // cloud record: re-initialisation reads it on other threads than the setters
  _ZxCloudData m_ZxCloudData TS_GUARDED_BY(m_csCloud);

  CAgentInterface m_AgentInterface;

  CCritSec m_csCombo;  // component configuration map
  std::map<CPString, std::list<_ComboConfig>> m_ComboCfgMap TS_GUARDED_BY(m_csCombo);
};
