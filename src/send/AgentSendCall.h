// One send of CAgentSendMsg::ZxcloudSendMsg as its steps share it. Private to this folder.
#pragma once

#include <cstdint>

#include "platform/text/PString.h"

// iMsgType of a send. The bus receiver passes on what components ask for, so other values do occur.
inline constexpr int kSendServerData = 1;
inline constexpr int kSendPluginData = 2;
inline constexpr int kSendCloudTags = 3;

inline constexpr int kReportEnabled = 1;
inline constexpr int kReportServerData = 2;
inline constexpr int kReportPluginData = 4;
inline constexpr int kReportBoth = 8;

// The arguments, borrowed for the length of the call.
struct _SendCall {
  const CPString& strProduct;
  const CPString& strCombo;
  int iPriv;
  int iMsgType;
  unsigned long long u64DataId;
  int bSync;
  int bLogCache;  // lines go to the log-cache channel, bodies to a line of their own
};

// Outcome of the main send.
struct _MainSend {
  const char* pszFunction;  // name of the library call
  int iStatus;
  int iExecNumber;
  int iSendTime;  // milliseconds
};

// The lines of a send, in the form that bLogCache asks for.
void LogTagError(const _SendCall& call, const CPString& strMsg);
void LogTypeError(const _SendCall& call, const CPString& strMsg);
void LogMainError(const _SendCall& call, const _MainSend& main, const CPString& strSendMsg);
void LogMainOk(const _SendCall& call, const _MainSend& main, int iPubmsgReportType,
               const CPString& strSendMsg);

// The public-message second send: the same text once more, non-blocking, at a priority of its own. Its
// outcome is only logged.
void SendPubMsg(const _SendCall& call, int iPubmsgReportType, const CPString& strSendMsg);
// Body of a send as a line of its own, log-cache channel only.
void LogSendBody(const _SendCall& call, const char* pszFunction, const CPString& strSendMsg);
void LogSendErrorBody(const _SendCall& call, const char* pszFunction, const CPString& strSendMsg);
