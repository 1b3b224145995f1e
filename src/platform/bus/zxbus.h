// Component bus: binary interface between a component (the agent is one) and its host. Fixed; other programs
// are built against it. C++ virtual tables of the Itanium ABI; nothing thrown crosses it. Result 0 = OK.
//
// Threads: every operation of a context may be called from any thread, also from inside a callback. Callbacks
// of one component, receivers and completions alike, run on its own dispatcher threads, never on the caller's
// thread of AsynSendEx or BroadcastSend. A component has one dispatcher unless its host says otherwise: then
// its callbacks run one after the other, and one that blocks delays only the component's own.
#pragma once

#include <cstdint>

#include "platform/Api.h"
#include "platform/text/Guid.h"

// Results of bus operations (0 = OK). A completion carries either one of these or the receiver's own status.
enum : uint32_t {
  kBusErrNotInitialized = 0xB0020001,  // the context has no GUID yet, or was uninitialised
  kBusErrNoTarget = 0xB0020002,        // nobody on the bus has this GUID
  kBusErrNoReceiver = 0xB0020003,      // the target has no receiver for this type
  kBusErrTimeout = 0xB0020004,         // no reply within the time given
  kBusErrGone = 0xB0020005,            // the target left, or the bus went down, before it replied
  kBusErrBusy = 0xB0020006,            // a queue, a byte budget or memory is exhausted; try later
  kBusErrTooLong = 0xB0020007,         // more than kBusMaxBytes of data
  kBusErrTaken = 0xB0020008,           // the GUID already belongs to another component
  kBusErrDenied = 0xB0020009,          // the policy does not allow it
  kBusErrInvalid = 0xB002000A,  // null data with a length, null or zero GUID, unknown, used or late baton
  kBusErrAborted = 0xB002000B,  // the sender uninitialised while the send was under way
  kBusErrNoReply = 0xB002000C,  // the target gave up the baton without an answer before the deadline
};
inline constexpr uint32_t kBusMaxBytes = (8u << 20) - 4096;
inline constexpr uint32_t kBusMaxTimeoutMs = 300000;  // 0 or more means this

// Implemented by the component. A received message: sender, type, data (valid during the call), and a baton
// when the sender waits for a reply. pContext is the component's own bus context; reply there, during the
// call or later, from any thread. A baton is good for one Reply until the sender's time-out; what the sender
// gets when none came is kBusErrTimeout. pBatonData is null when nobody waits: for broadcasts, for sends
// without a callback, and when the sender gave up before the message was its turn.
class IMRReceiveComplete {
 public:
  virtual ~IMRReceiveComplete() = default;
  virtual void ReceiveCallback(const GUID& recvGuid, long i64MsgType, const unsigned char* pData,
                               unsigned int uiDataLength, void* pBatonData, void* pContext) = 0;
};

// Implemented by the sender. Called exactly once per accepted AsynSendEx: iRetReply is the receiver's status,
// or a kBusErr value when no reply came; pResponse is valid during the call.
class IMRSendComplete {
 public:
  virtual ~IMRSendComplete() = default;
  virtual void SendCallback(unsigned int iRetReply, long i64MsgType, const unsigned char* pResponse,
                            unsigned int uiResponseLength, unsigned long long ui64ACT, void* pContext) = 0;
};

// The context that the host hands to a component; called by slot, so the order is the interface. No
// destructor in front of slot 0: the host owns and destroys it, after the component's Uninitialize.
class IBusContext {
 public:
  // 0: joins the bus under this GUID (kBusErrInvalid when the context is on it already). 1: leaves it:
  // receivers are dropped, sends under way complete with kBusErrAborted, whoever waits for an answer of this
  // component gets kBusErrGone, and no callback runs after it returned. Called from inside a callback it does
  // not wait: completions that are due still run, receivers do not.
  virtual uint32_t Initialize(const GUID* pOwn) = 0;
  virtual void Uninitialize() = 0;
  // 2, 3: one receiver per type; a second Receive replaces the first. After Unreceive returned the receiver
  // is not called for that type any more (a call from inside the receiver itself does not wait for itself).
  // Messages of that type that were waiting complete with kBusErrNoReceiver; batons stay good.
  virtual uint32_t Receive(uint32_t uiType, IMRReceiveComplete* pReceiver) = 0;
  virtual void Unreceive(uint32_t uiType) = 0;
  // 4: copies the data; *pui64ACT is written before the completion can run. pContext comes back in the
  // completion. On a non-zero result there is no completion. pCallback may be null.
  virtual uint32_t AsynSendEx(const GUID* pTarget, uint32_t uiType, const void* pData, uint32_t uiLength,
                              IMRSendComplete* pCallback, void* pContext, unsigned long long* pui64ACT,
                              uint32_t uiTimeoutMs) = 0;
  // 5: to every other component with a receiver for the type. Best effort: a full receiver loses it.
  virtual uint32_t BroadcastSend(uint32_t uiType, const void* pData, uint32_t uiLength) = 0;
  // 6: answers a baton, once. kBusErrBusy: the sender has too many unread replies; the baton stays good.
  virtual uint32_t Reply(uint32_t uiStatus, long i64MsgType, const void* pData, uint32_t uiLength,
                         void* pBatonData) = 0;

 protected:
  ~IBusContext() = default;
};

// Bounds of one component, chosen by its host; 0 means the default.
struct ZxBusSettings {
  uint32_t uiSize = sizeof(ZxBusSettings);
  uint32_t uiDispatchers = 0;  // 1; at most 64. With more, receivers of the component run at the same time
  uint32_t uiMaxRecords = 0;   // 65536: messages waiting and batons held together; and sends under way
  uint32_t uiMaxBytes = 0;     // 16 MiB of messages waiting, and as much of replies
};

// Host side, C linkage. Contexts of one process share one bus. Destroy after the component's Uninitialize; a
// context that is still initialised is uninitialised first.
extern "C" {
ZX_API IBusContext* ZxBusCreateContext();                                    // null when out of memory
ZX_API IBusContext* ZxBusCreateContextWith(const ZxBusSettings* pSettings);  // null: defaults
ZX_API void ZxBusDestroyContext(IBusContext* pContext);
}
