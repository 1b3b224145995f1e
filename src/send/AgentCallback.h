// Completions of bus sends. Stateless static instances; called on bus threads.
#pragma once

#include "platform/bus/zxbus.h"

// Answers of the task manager: passes the pending record (_SendTaskMgrData) to the manager, then deletes it.
class CAgentAsynCallback final : public IMRSendComplete {
 public:
  static CAgentAsynCallback m_AgentAsynCallback;
  void SendCallback(unsigned int iRetReply, long i64MsgType, const unsigned char* pResponse,
                    unsigned int uiResponseLength, unsigned long long ui64ACT, void* pContext) override;
};

// Results told to the log cache and the task manager: nobody waits for their answer, so this does nothing.
class CLogCacheResultAsynCallback final : public IMRSendComplete {
 public:
  static CLogCacheResultAsynCallback m_LogCacheResultAsynCallback;
  void SendCallback(unsigned int, long, const unsigned char*, unsigned int, unsigned long long,
                    void*) override {}
};
