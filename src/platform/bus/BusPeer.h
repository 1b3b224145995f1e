// The far end of a message or of a call, whichever carrier leads there: an endpoint of this process, or the
// connection behind which another process's component stands.
// Threads: any.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/bus/BusItems.h"

class IBusPeer {
 public:
  // Target side. 0: taken over; otherwise the message is gone and its call is the caller's to end.
  virtual uint32_t Push(std::unique_ptr<CBusMessage> pMessage) = 0;
  virtual void DropBaton(CBusCall& call) = 0;  // the sender waits no longer

  // Sender side. Whoever replies reserves room for the data first, under its own lock: these two take none.
  virtual bool ReserveReplyBytes(uint32_t uiLength) = 0;
  virtual void ReleaseReplyBytes(uint32_t uiLength) = 0;
  // False: the call had ended already. pReply is null when the data lie in the call itself.
  virtual bool Complete(CBusCall& call, uint32_t uiStatus, long i64MsgType, TBusBytes pReply,
                        uint32_t uiLength) = 0;
  virtual void Refuse(CBusCall& call, uint32_t uiStatus) = 0;  // ends it with an error of the bus

 protected:
  ~IBusPeer() = default;
};
