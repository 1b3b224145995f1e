// The connection of one component to the components of other processes. One per GUID, so that the daemon's
// word on who owns a name is the proof of who sent a message.
//
// Sends, broadcasts and replies wait here, counted in bytes, until the socket takes them. Calls to one target
// are given to the daemon up to a window; the rest waits, so that a target that never replies costs the
// sender its own calls only, and not the daemon's slots for replies of this connection.
//
// Who has more than kFloodMessages one-way messages and broadcasts waiting is paced: the daemon serves its
// connections in turn, and what one of them gets is taken from the others. Calls need none: their window does
// it.
//
// Who sends or replies writes itself when the connection is free. The component's dispatcher, when it has
// one, reads the connection while it waits for work; while it is busy, the I/O thread does.
//
// Threads: Push, Complete, Refuse, DropBaton, the budgets, TypesChanged, Close and WaitOutcome any; the rest
// belongs to whoever has the connection's turn. The lock is never held together with another nor over a call
// into sd-bus.
#pragma once

#include <pthread.h>

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

#include "platform/bus/BusItems.h"
#include "platform/bus/BusPeer.h"
#include "platform/bus/BusWire.h"

class CBusEndpoint;

// What is under way to one target.
struct CBusRemoteTarget {
  GUID guid;
  std::string strName;
  CBusQueue waiting;
  size_t uCalls = 0;  // given to the daemon and not answered, whether or not somebody still waits
  size_t uBytes = 0;
};

struct _BusLinkFigures {
  std::atomic<uint64_t> u64Sent{0}, u64SentBytes{0}, u64Received{0}, u64ReceivedBytes{0};
  std::atomic<uint64_t> u64Denied{0};   // senders that are not one component
  std::atomic<uint64_t> u64Refused{0};  // messages that the component did not take
  std::atomic<uint64_t> u64Busy{0};     // sends refused for lack of room
  std::atomic<uint64_t> u64Connects{0};
};

class CBusLink final : public CBusWire, public IBusPeer {
 public:
  CBusLink(CBusCarrier& carrier, const std::string& strAddress, const GUID& guid,
           std::shared_ptr<CBusEndpoint> pEndpoint, size_t uMaxBytes);
  ~CBusLink() override;

  // 0: the GUID is granted. kBusErrTaken, kBusErrDenied, or kBusErrGone after the time given.
  uint32_t WaitOutcome(uint32_t uiTimeoutMs) TS_EXCLUDES(m_cs);
  // The component's receivers changed. Waits until the daemon knows, so that a broadcast that anybody sends
  // afterwards arrives; not while the connection is down, and at most a second.
  void TypesChanged(bool bWait) TS_EXCLUDES(m_cs);
  // Writes what is queued, gives the name back and closes. bWait: until that is done, at most some seconds.
  void Close(bool bWait) TS_EXCLUDES(m_cs);
  bool IsClosing() const { return m_bClosing.load(); }

  uint32_t Push(std::unique_ptr<CBusMessage> pMessage) override TS_EXCLUDES(m_cs);
  void DropBaton(CBusCall& call) override TS_EXCLUDES(m_cs);
  bool ReserveReplyBytes(uint32_t uiLength) override;
  void ReleaseReplyBytes(uint32_t uiLength) override;
  bool Complete(CBusCall& call, uint32_t uiStatus, long i64MsgType, TBusBytes pReply,
                uint32_t uiLength) override TS_EXCLUDES(m_cs);
  void Refuse(CBusCall& call, uint32_t uiStatus) override TS_EXCLUDES(m_cs);

  const GUID& Guid() const { return m_guid; }
  const std::shared_ptr<CBusEndpoint>& Endpoint() const { return m_pEndpoint; }
  const _BusLinkFigures& Figures() const { return m_figures; }
  struct _State {
    bool bUp = false;
    uint32_t uiRefused = 0;
    size_t uQueuedBytes = 0;
    std::string strUniqueName;
  };
  _State State() TS_EXCLUDES(m_cs);

 private:
  // Calls to others that the daemon has, and calls of others that wait for an answer.
  class CCalls {
   public:
    void Add(CBusRef<CBusCall> call);
    CBusRef<CBusCall> Remove(CBusCall& call);
    CBusCall* First() const { return m_pHead; }
    size_t Count() const { return m_uCount; }

   private:
    CBusCall* m_pHead = nullptr;
    CBusCall* m_pTail = nullptr;
    size_t m_uCount = 0;
  };

  int OnOpened() override;
  void OnReady() override TS_EXCLUDES(m_cs);
  void OnRefused(uint32_t uiResult) override TS_EXCLUDES(m_cs);
  void OnLost(const char* pszReason) override TS_EXCLUDES(m_cs);
  void OnOwnerGone(const char* pszOwner) override;
  void OnUnserved() override;
  void Work(uint64_t u64NowNs) override;
  bool WriteSome() noexcept override TS_EXCLUDES(m_cs);
  uint64_t WorkDueNs() override;

  // Outgoing (BusLinkSend.cpp).
  bool Queue(CBusItem& item) TS_EXCLUDES(m_cs);
  static size_t Cost(uint32_t uiLength) { return uiLength + kRecordBytes; }
  void Kick();
  void TakeQueued() TS_EXCLUDES(m_cs);
  void WriteOut(size_t uMost);
  size_t Allowance(uint64_t u64NowNs, bool bClosing);
  void WriteMessage(std::unique_ptr<CBusMessage> pMessage);
  void SendNow(CBusMessage& message, CBusRemoteTarget& target);
  static bool WindowIsFull(const CBusRemoteTarget& target, uint32_t uiLength);
  void DropDead(CBusQueue& queue);
  void WriteError(sd_bus_message* pCall, uint32_t uiResult);
  int SendBroadcast(const CBusMessage& message);
  int SendCall(CBusMessage& message, CBusRemoteTarget& target);
  void WriteReply(CBusRef<CBusCall> call);
  void WriteCancel(CBusCall& call);
  void DrainTarget(CBusRemoteTarget& target);
  bool Reserve(size_t uBytes);
  void Released(size_t uBytes) { m_uQueuedBytes.fetch_sub(uBytes, std::memory_order_relaxed); }
  CBusRemoteTarget& TargetOf(const GUID& guid);
  const std::string& PathOf(uint32_t uiType);
  void EndCall(CBusCall& call, uint32_t uiResult);
  static int OnReply(sd_bus_message* pMessage, void* pCall, sd_bus_error* pError);
  void Answered(CBusCall& call, sd_bus_message* pMessage);
  bool MayAnswer(sd_bus_message* pMessage, const GUID& guidTarget) TS_EXCLUDES(m_cs);

  // Incoming (BusLinkReceive.cpp).
  static int FindObject(sd_bus* pBus, const char* pszPath, const char* pszInterface, void* pSelf,
                        void** ppFound, sd_bus_error* pError);
  static int ListObjects(sd_bus* pBus, const char* pszPrefix, void* pSelf, char*** pppszNodes,
                         sd_bus_error* pError);
  static int OnMessage(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static int OnSend(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static int OnCancel(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static int OnBroadcast(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static const sd_bus_vtable* Vtable();
  bool SenderOf(sd_bus_message* pMessage, GUID& guid) TS_EXCLUDES(m_cs);
  uint32_t Deliver(sd_bus_message* pMessage, const GUID& guidFrom, bool bWithReply);
  void SyncTypes() TS_EXCLUDES(m_cs);
  void TypesKnown() TS_EXCLUDES(m_cs);
  static int OnTypeMatchAdded(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  void GiveUp(CBusCall& call, uint32_t uiResult);  // ends a held call without the component
  void ExpireHeld(uint64_t u64NowNs);
  void DropHeldOf(const char* pszOwner);
  void Unhold(CBusCall& call);

  static int OnReleased(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  void Closed() TS_EXCLUDES(m_cs);

  static constexpr size_t kRecordBytes = 128;  // what a record costs beside its data

  const GUID m_guid;
  const std::shared_ptr<CBusEndpoint> m_pEndpoint;
  const size_t m_uMaxBytes;
  _BusLinkFigures m_figures;
  std::atomic<size_t> m_uQueuedBytes{0};  // no lock: a component reserves under its own
  std::atomic<bool> m_bClosing{false};

  pthread_cond_t m_condState;
  bool m_bUp TS_GUARDED_BY(m_cs) = false;
  bool m_bClosed TS_GUARDED_BY(m_cs) = false;
  uint32_t m_uiRefused TS_GUARDED_BY(m_cs) = 0;
  CBusQueue m_queued TS_GUARDED_BY(m_cs);
  size_t m_uOneWayQueued TS_GUARDED_BY(m_cs) = 0;  // of m_queued
  std::string m_strUniqueName TS_GUARDED_BY(m_cs);
  // Changes of the receivers are numbered: asked for, and told to the daemon.
  uint64_t m_u64TypesAsked TS_GUARDED_BY(m_cs) = 0;
  uint64_t m_u64TypesKnown TS_GUARDED_BY(m_cs) = 0;

  // The turn's.
  CBusQueue m_ready;
  size_t m_uOneWay = 0;           // of m_ready
  bool m_bPaced = false;          // only the I/O thread writes
  uint64_t m_u64PaceNs = kNever;  // when it may again
  CCalls m_flights;
  CCalls m_held;
  std::unordered_multimap<uint64_t, CBusCall*> m_heldBySerial;
  std::map<GUID, CBusRemoteTarget> m_targets;
  std::map<uint32_t, std::string> m_paths;
  std::map<uint32_t, sd_bus_slot*> m_matches;
  size_t m_uMatchesUnderWay = 0;
  uint64_t m_u64TypesSent = 0;
  bool m_bTypesStale = false;  // a new connection knows none
  uint64_t m_u64CloseDueNs = kNever;
  uint64_t m_u64HeldDueNs = kNever;  // at or before the first held call's; up to date once it is reached
  bool m_bReleasing = false;
  bool m_bReleased = false;
};
