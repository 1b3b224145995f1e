// What the companions ask of the manager. Pure, so that each companion can be tested without one.
#pragma once

#include <cstdint>

#include "data/AgentRecords.h"

class IAgentHub {
 public:
  // A component answered a command; called on a bus thread. 0, the component's result, or the send error.
  virtual uint32_t RecvMsgResultsFromTaskMgr(_SendTaskMgrData* pSendData) = 0;
  virtual int IsConnect() = 0;

 protected:
  ~IAgentHub() = default;
};

// The manager while one exists, else null. Set by the manager's Instance and Close.
IAgentHub* AgentHub();
IAgentHub* SetAgentHub(IAgentHub* pHub);  // returns the previous one
