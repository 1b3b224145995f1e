// Component bus: binary interface between a component (the agent is one) and its host. Fixed; other programs
// are built against it. C++ virtual tables of the Itanium ABI; nothing thrown crosses it. Result 0 = OK.
//
// Threads: every operation of a context may be called from any thread, also from inside a callback. Callbacks
// of one component run on its own dispatcher threads, never on the caller's thread of AsynSendEx or
// BroadcastSend.
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
  kBusErrBusy = 0xB0020006,            // the target's queue or byte budget is full; try later
  kBusErrTooLong = 0xB0020007,         // more than kBusMaxBytes of data
  kBusErrTaken = 0xB0020008,           // the GUID already belongs to another component
  kBusErrDenied = 0xB0020009,          // the policy does not allow it
  kBusErrInvalid = 0xB002000A,         // null data with a length, null GUID, unknown or used baton
  kBusErrAborted = 0xB002000B,         // the sender uninitialised while the send was under way
  kBusErrNoReply = 0xB002000C,         // the receiver returned without replying and dropped the baton
};
inline constexpr uint32_t kBusMaxBytes = (8u << 20) - 4096;
inline constexpr uint32_t kBusMaxTimeoutMs = 300000;  // 0 or more means this

// Implemented by the component. A received message: sender, type, data (valid during the call), and a baton
// when the sender waits for a reply. pContext is the component's own bus context; reply there, during the
// call or later. A baton that is not used within its deadline is answered kBusErrNoReply by the bus.
// pBatonData is null for broadcasts.
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
  // 0: joins the bus under this GUID. 1: leaves it: receivers are dropped, sends under way complete with
  // kBusErrAborted, and no callback runs after it returned (unless called from inside one).
  virtual uint32_t Initialize(const GUID* pOwn) = 0;
  virtual void Uninitialize() = 0;
  // 2, 3: one receiver per type; a second Receive replaces the first. After Unreceive returned the receiver
  // is not called for that type any more (a call from inside the receiver itself does not wait for itself).
  virtual uint32_t Receive(uint32_t uiType, IMRReceiveComplete* pReceiver) = 0;
  virtual void Unreceive(uint32_t uiType) = 0;
  // 4: copies the data; *pui64ACT is written before the completion can run. pContext comes back in the
  // completion. On a non-zero result there is no completion. pCallback may be null.
  virtual uint32_t AsynSendEx(const GUID* pTarget, uint32_t uiType, const void* pData, uint32_t uiLength,
                              IMRSendComplete* pCallback, void* pContext, unsigned long long* pui64ACT,
                              uint32_t uiTimeoutMs) = 0;
  // 5: to every other component with a receiver for the type. Best effort: a full receiver loses it.
  virtual uint32_t BroadcastSend(uint32_t uiType, const void* pData, uint32_t uiLength) = 0;
  // 6: answers a baton, once.
  virtual uint32_t Reply(uint32_t uiStatus, long i64MsgType, const void* pData, uint32_t uiLength,
                         void* pBatonData) = 0;

 protected:
  ~IBusContext() = default;
};

// Host side, C linkage. Contexts of one process share one bus. Destroy after the component's Uninitialize; a
// context that is still initialised is uninitialised first.
extern "C" {
ZX_API IBusContext* ZxBusCreateContext();
ZX_API void ZxBusDestroyContext(IBusContext* pContext);
}
