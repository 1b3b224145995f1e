// One component on the bus: its receivers, its queue, the threads that work it off, the sends that it waits
// for and the batons that it holds.
//
// Every callback of the component runs on its own dispatchers: receivers for messages that others sent, and
// completions of its own sends. Messages and completions share one queue, so they arrive in order and neither
// starves the other. A call ends exactly once: whoever sets bDone under the sender's lock queues the
// completion; a reply, the deadline, the target's leaving and the sender's leaving compete for it.
//
// Threads: any, except where said. One lock, never held together with another endpoint's or the router's, nor
// over a callback. Owned by its context and, for the time of a send, by the sends under way.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/bus/BusBatons.h"
#include "platform/bus/BusDeadlines.h"
#include "platform/bus/BusItems.h"
#include "platform/bus/BusPeer.h"
#include "platform/bus/zxbus.h"
#include "platform/os/ZxCritSec.h"

struct _BusLimits {
  uint32_t uiDispatchers = 1;
  size_t uMaxRecords = 65536;    // queued messages and held batons together; sends under way
  size_t uMaxBytes = 16u << 20;  // queued messages; and the same again for replies
};

class CBusLink;
class CBusPause;

class CBusEndpoint final : public IBusPeer, public std::enable_shared_from_this<CBusEndpoint> {
 public:
  // pContext is what receivers get as their context.
  CBusEndpoint(void* pContext, const _BusLimits& limits);
  ~CBusEndpoint();
  CBusEndpoint(const CBusEndpoint&) = delete;
  CBusEndpoint& operator=(const CBusEndpoint&) = delete;

  // Joins and leaves; a second cycle is possible. Join after a Leave from inside a callback waits for the
  // threads of the first cycle, or gives kBusErrBusy inside that callback.
  uint32_t Join(const GUID& guid) TS_EXCLUDES(m_cs);
  void Leave() TS_EXCLUDES(m_cs);

  uint32_t Receive(uint32_t uiType, IMRReceiveComplete* pReceiver) TS_EXCLUDES(m_cs);
  void Unreceive(uint32_t uiType) TS_EXCLUDES(m_cs);
  // Arguments are checked by the context.
  // pLocal null: looked for in other processes.
  uint32_t Send(std::shared_ptr<CBusEndpoint> pLocal, const GUID& guidTarget, uint32_t uiType,
                const void* pData, uint32_t uiLength, IMRSendComplete* pCallback, void* pContext,
                unsigned long long* pui64ACT, uint32_t uiTimeoutMs) TS_EXCLUDES(m_cs);
  uint32_t Broadcast(const std::vector<std::shared_ptr<CBusEndpoint>>& targets, uint32_t uiType,
                     const void* pData, uint32_t uiLength) TS_EXCLUDES(m_cs);
  uint32_t Reply(uint32_t uiStatus, long i64MsgType, const void* pData, uint32_t uiLength, uint64_t u64Baton)
      TS_EXCLUDES(m_cs);

  // The connection to other processes. False: the component is not on the bus, or has one already.
  bool AttachLink(const std::shared_ptr<CBusLink>& pLink) TS_EXCLUDES(m_cs);
  std::shared_ptr<CBusLink> DetachLink() TS_EXCLUDES(m_cs);
  std::shared_ptr<CBusLink> Link() TS_EXCLUDES(m_cs);
  std::vector<uint32_t> Types() TS_EXCLUDES(m_cs);
  bool HasReceiver(uint32_t uiType) TS_EXCLUDES(m_cs);
  bool OnOwnDispatcher() const;
  // A dispatcher that waits at its connection comes out.
  void Interrupt() TS_EXCLUDES(m_cs);
  struct _Depths {
    size_t uQueued = 0, uQueuedBytes = 0, uBatons = 0, uUnderWay = 0;
  };
  _Depths Depths() TS_EXCLUDES(m_cs);

  uint32_t Push(std::unique_ptr<CBusMessage> pMessage) override TS_EXCLUDES(m_cs);
  void DropBaton(CBusCall& call) override TS_EXCLUDES(m_cs);
  bool ReserveReplyBytes(uint32_t uiLength) override;
  void ReleaseReplyBytes(uint32_t uiLength) override;
  bool Complete(CBusCall& call, uint32_t uiStatus, long i64MsgType, TBusBytes pReply,
                uint32_t uiLength) override TS_EXCLUDES(m_cs);
  void Refuse(CBusCall& call, uint32_t uiStatus) override TS_EXCLUDES(m_cs);

 private:
  enum class EState { Out, Joining, In, Leaving };
  // What a dispatcher is doing; Unreceive waits for those that run its type.
  struct _Slot {
    bool bReceiving = false;
    bool bUnreceiving = false;  // its receiver is in Unreceive itself: nobody waits for it there
    uint32_t uiType = 0;
  };
  // One step of a dispatcher, taken from the queue under the lock: a message, or completions that follow each
  // other in the queue. Those are owed to the component whatever happens, so they can be taken together.
  struct _Work {
    std::unique_ptr<CBusMessage> pMessage;
    IMRReceiveComplete* pReceiver = nullptr;  // null: refused, nobody receives this type
    uint64_t u64Baton = 0;
    CBusQueue completions;
    uint64_t u64LookUntilNs = 0;  // nothing there: let others run until then and look again
  };

  bool Withdraw(CBusCall& call) TS_EXCLUDES(m_cs);
  static void RefuseIfAny(const CBusRef<CBusCall>& call, uint32_t uiStatus);

  // Dispatchers.
  static void* DispatcherEntry(void* pStart);
  bool StartDispatchers() TS_EXCLUDES(m_cs);
  bool StartDispatcher(size_t uSlot, const GUID& guid);
  void Dispatch(size_t uSlot) TS_EXCLUDES(m_cs);
  bool NextWork(size_t uSlot, CBusPause& pause, _Work& work) TS_EXCLUDES(m_cs);
  enum class ENext { Work, Leave, Look, Serve, Again };
  ENext TryNextWork(size_t uSlot, CBusPause& pause, bool bMayServe, _Work& work) TS_REQUIRES(m_cs);
  bool TakeWork(size_t uSlot, CBusPause& pause, _Work& work) TS_REQUIRES(m_cs);
  void TakeMessage(CBusMessage* pMessage, size_t uSlot, _Work& work) TS_REQUIRES(m_cs);
  void Look(uint64_t u64UntilNs) const;
  void NoLongerIdle() TS_REQUIRES(m_cs);
  void QueueDue() TS_REQUIRES(m_cs);
  void End(CBusRef<CBusCall> call, uint32_t uiStatus) TS_REQUIRES(m_cs);
  void Run(_Work& work) TS_EXCLUDES(m_cs);
  void RunReceiver(const _Work& work) TS_EXCLUDES(m_cs);
  void RunCompletion(CBusCall& call) TS_EXCLUDES(m_cs);
  void Wait(pthread_cond_t& cond, uint64_t u64DeadlineNs) TS_REQUIRES(m_cs);
  bool IsRunning(uint32_t uiType) TS_REQUIRES(m_cs);
  // How an idle dispatcher is to be told of one more item, by Wake: after the lock, which it wants first.
  enum class EWake { No, Signal, Event };
  EWake TakeWaker() TS_REQUIRES(m_cs);
  void Queue(CBusItem& item) TS_REQUIRES(m_cs);
  void Wake(EWake eWake);
  void SetUnreceiving(bool bUnreceiving) TS_REQUIRES(m_cs);
  static size_t Cost(uint32_t uiLength) { return uiLength + kRecordBytes; }

  static constexpr size_t kRecordBytes = 128;  // what a record costs beside its data

  void* const m_pContext;
  const _BusLimits m_limits;

  // In the order of use: what a message touches on its way from one processor to the other lies together.
  alignas(64) CCritSec m_cs;
  std::atomic<size_t> m_uReplyBytes{0};
  CBusQueue m_queue TS_GUARDED_BY(m_cs);
  std::atomic<bool> m_bQueued{false};  // for a dispatcher that looks for work without the lock
  size_t m_uQueuedMessages TS_GUARDED_BY(m_cs) = 0;
  size_t m_uQueuedBytes TS_GUARDED_BY(m_cs) = 0;
  EState m_eState TS_GUARDED_BY(m_cs) = EState::Out;
  uint32_t m_uiSinceClock TS_GUARDED_BY(m_cs) = 0;
  size_t m_uIdle TS_GUARDED_BY(m_cs) = 0;       // dispatchers that wait for work
  size_t m_uWaking TS_GUARDED_BY(m_cs) = 0;     // of these, on their way: signalled and not yet awake
  bool m_bServing TS_GUARDED_BY(m_cs) = false;  // the dispatcher waits at the connection
  // Wakes a dispatcher that waits at the connection. Made with the first connection, then constant; -1: the
  // I/O thread reads it, as for every component with several dispatchers.
  int m_iWake = -1;
  CBusDeadlines m_deadlines TS_GUARDED_BY(m_cs);
  CBusBatons m_batons TS_GUARDED_BY(m_cs);
  alignas(64) std::unordered_map<uint32_t, IMRReceiveComplete*> m_receivers TS_GUARDED_BY(m_cs);
  GUID m_guid TS_GUARDED_BY(m_cs);
  std::shared_ptr<CBusLink> m_pLink TS_GUARDED_BY(m_cs);  // null: this process only
  alignas(64) std::vector<_Slot> m_slots TS_GUARDED_BY(m_cs);
  size_t m_uDispatchers TS_GUARDED_BY(m_cs) = 0;
  size_t m_uStateWaiters TS_GUARDED_BY(m_cs) = 0;  // threads in Unreceive, Leave and Join
  pthread_cond_t m_condWork;   // something is in the queue, an earlier deadline, or the end
  pthread_cond_t m_condState;  // a receiver returned, or the last dispatcher ended
};
