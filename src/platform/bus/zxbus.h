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

// What became of the connection to the other processes.
enum : uint32_t {
  kBusStateConnected = 1,  // also after every reconnection
  kBusStateLost = 2,       // everything outstanding completed with kBusErrGone; the bus tries again by itself
  kBusStateRefused = 3,    // one component's GUID was not granted; it is asked for again every 2 s
};
typedef void (*PfnZxBusState)(uint32_t uiState, const char* pszText, void* pContext);

// How a process joins the bus that spans processes; 0 means the default.
struct ZxBusConnectSettings {
  uint32_t uiSize = sizeof(ZxBusConnectSettings);
  const char* pszAddress = nullptr;  // of the D-Bus daemon: "unix:path=/..."
  uint32_t uiTimeoutMs = 0;          // 5000: longest wait of ZxBusConnect and of each Initialize
  uint32_t uiMaxSendBytes = 0;       // 16 MiB per component: sends, broadcasts and replies not yet written
  PfnZxBusState pfnState = nullptr;  // may be null; runs on the thread of host calls and must not block long
  void* pContext = nullptr;
};

// One call of the host object. Texts are valid during the call.
struct ZxBusHostCall {
  uint32_t uiSize = sizeof(ZxBusHostCall);
  const char* pszMethod = nullptr;
  const char* pszJson = nullptr;
  uint32_t uiUid = 0;  // of the caller, as the kernel told the daemon: root's or this process's own
  uint32_t uiPid = 0;
  void* pAnswer = nullptr;  // for ZxBusHostAnswer
};
// 0: answered. kBusErrNoReceiver: no such method. kBusErrInvalid, kBusErrDenied, others: an error whose text
// is what ZxBusHostAnswer was given.
typedef uint32_t (*PfnZxBusHost)(const ZxBusHostCall* pCall, void* pContext);

// Host side, C linkage. Contexts of one process share one bus. Destroy after the component's Uninitialize; a
// context that is still initialised is uninitialised first.
extern "C" {
ZX_API IBusContext* ZxBusCreateContext();                                    // null when out of memory
ZX_API IBusContext* ZxBusCreateContextWith(const ZxBusSettings* pSettings);  // null: defaults
ZX_API void ZxBusDestroyContext(IBusContext* pContext);

// Joins the contexts of this process, those that are initialised and those that will be, to the bus at the
// address. From then on a GUID that is not in this process is looked for in others; operations are the same.
// 0: connected. kBusErrGone: not yet, the bus goes on trying. kBusErrInvalid: no address, or joined already.
// While connected, Initialize waits until the GUID is granted: kBusErrTaken, kBusErrDenied. While the daemon
// is away it waits uiTimeoutMs, then joins in memory only and claims the GUID as soon as the daemon is back.
ZX_API uint32_t ZxBusConnect(const ZxBusConnectSettings* pSettings);
// Leaves it again: names are given back, what is outstanding completes with kBusErrGone. Not from a callback.
ZX_API void ZxBusDisconnect();
// State and figures as a JSON text with its NUL. *puiNeeded is the size it needs; kBusErrTooLong when the
// buffer is smaller (it may be null with capacity 0).
ZX_API uint32_t ZxBusStats(char* pszJson, uint32_t uiCapacity, uint32_t* puiNeeded);

// Serves the host object (docs/bus.md) once connected. Calls run one at a time on a thread of their own, for
// root and for this process's own user only. Null ends it; a running call is waited for, unless it is the one
// that calls this.
ZX_API uint32_t ZxBusServeHost(PfnZxBusHost pfnHost, void* pContext);
ZX_API void ZxBusHostAnswer(const ZxBusHostCall* pCall, const char* pszJson);  // copies; the last one counts
// Client side, with a connection of its own; needs no ZxBusConnect. *ppszAnswer is the answer, or the reason
// of a non-zero result (kBusErrGone: no bus there; kBusErrNoTarget: no host on it); give it back with
// ZxBusFree.
ZX_API uint32_t ZxBusCallHost(const char* pszAddress, const char* pszMethod, const char* pszJson,
                              char** ppszAnswer, uint32_t uiTimeoutMs);
ZX_API void ZxBusFree(char* psz);
}
