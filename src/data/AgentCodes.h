// Result codes (0 = success), bus message types and fixed ids of the agent.
#pragma once

#include <cstdint>

enum : uint32_t {
  kErrGeneral = 0xB0010001,    // general failure, or a null argument
  kErrNoText = 0xB0010002,     // missing text or empty ID
  kErrNoManager = 0xB0010003,  // no manager instance, allocation or queue failure
  kErrNoBusContext = 0xB0010011,
  kErrCloudInit = 0xB0010021,
  kErrCloudUninit = 0xB0010022,
  kErrCloudSetopt = 0xB0010023,
  kErrCloudGetopt = 0xB0010024,
  kErrCloudSend = 0xB0010025,  // non-blocking send or poll query
  kErrCloudSendSync = 0xB0010026,
  kErrCloudTest = 0xB0010027,
  kErrNoConfPath = 0xB0010031,
  kErrPcidSave = 0xB0010038,
  kErrReportSave = 0xB0010042,
  kErrCommandSave = 0xB0010043,
  kErrCustomAddrSave = 0xB001003A,
  kErrCloudAddrUpdate = 0xB001003D,
  kErrUnknownPcid = 0xB0010051,
  kErrUnknownGuid = 0xB0010053,
  kErrEmptyCombo = 0xB0010054,
  kErrNoRoute = 0xB0010055,
  kErrBusType = 0xB0010061,
  kErrSender = 0xB0010062,
  kErrCloudMsgType = 0xB0010063,
  kErrTagsEmptyText = 0xB0010065,
  kErrLogCacheBody = 0xB0010065,  // the same number in the receiver: no body
  kErrLogCacheVersion = 0xB0010066,
  kErrLogCacheDataId = 0xB0010067,
  kErrLogCachePriv = 0xB0010068,
  kErrLogCacheMsgType = 0xB0010069,
  kErrLogCacheGuidTag = 0xB001006A,
  kErrLogCacheProduct = 0xB001006B,
  kErrLogCacheCombo = 0xB001006C,
  kErrTagsNone = 0xB001006D,
  kErrJson = 0xB0010081,
  kErrJsonNoId = 0xB0010084,
  kErrJsonIdLength = 0xB0010085,
  kErrReportParam = 0xB0010088,
  kErrReportType = 0xB0010089,
  kErrCommandParse = 0xB001008E,
  kErrTagsNoObject = 0xB001008F,
  kErrTagsNotEnumerable = 0xB0010090,
};

// Bus message types. Names and numbers are fixed by the bus.
enum : uint32_t {
  AGENT_MSG_BST_CONNECT = 1000,
  AGENT_MSG_BST_DISCONNECT = 1001,
  KBUS_MSG_TYPE_BST_AUTH_EVENT = 1003,
  AGENT_MSG_BST_CLIENTREADY = 1006,
  AGENT_MSG_BST_LBDATA = 1007,
  AGENT_MSG_BST_ENGINEADDR = 1008,
  AGENT_MSG_SYNC_SETCONNECT = 10011,
  AGENT_MSG_SYNC_GETCONNECT = 10012,
  AGENT_MSG_SYNC_TESTCONNECT = 10013,
  AGENT_MSG_SYNC_TESTLBCONNECT = 10014,
  AGENT_MSG_SYNC_GETCLIENTREADY = 10021,
  AGENT_MSG_SYNC_GETLBDATA = 10022,
  AGENT_MSG_SYNC_GETPLUGINGUID = 10203,
  TASKMGR_MSG_TYPE_ASYNC = 20001,
  AGENT_MSG_ASYNC_TASKMGR = TASKMGR_MSG_TYPE_ASYNC,  // the same type under its second name
  AGENT_MSG_SYNC_LOGCACHE = 20002,                   // "SYNC" although it sits among the asynchronous types
  AGENT_MSG_ASYNC_LOGCACHERESULT = 20003,
  AGENT_MSG_ASYNC_GUIDLIST = 20104,
  AGENT_MSG_ASYNC_TASKMGRRESULT = 20105,
  AGENT_MSG_ASYNC_SENDTEMPLATE = 20204,
};

inline constexpr char kAgentGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
inline constexpr char kTaskMgrGuid[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";
inline constexpr char kLogCacheGuid[] = "9946467F-0102-46E8-ACAC-B9EFE3CD68FD";
inline constexpr uint32_t kBusTimeoutMs = 60000;
