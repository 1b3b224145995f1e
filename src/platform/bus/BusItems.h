// What moves through the bus: messages on their way to a receiver, and calls, which are sends whose sender
// waits for a completion. Both are linked into queues by a hook of their own, so that nothing is allocated
// once a send was accepted, and no completion can be lost to a failed allocation.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "platform/bus/zxbus.h"

class IBusPeer;
struct sd_bus_message;

// Counted reference to an object with AddRef and Release.
template <class T>
class CBusRef {
 public:
  CBusRef() = default;
  explicit CBusRef(T* pAdopted) : m_p(pAdopted) {}  // takes over one reference
  CBusRef(const CBusRef& other) : m_p(other.m_p) {
    if (m_p != nullptr)
      m_p->AddRef();
  }
  CBusRef(CBusRef&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
  CBusRef& operator=(CBusRef other) noexcept {
    std::swap(m_p, other.m_p);
    return *this;
  }
  ~CBusRef() {
    if (m_p != nullptr)
      m_p->Release();
  }
  T* Get() const { return m_p; }
  T* operator->() const { return m_p; }
  T& operator*() const { return *m_p; }
  explicit operator bool() const { return m_p != nullptr; }
  T* Detach() { return std::exchange(m_p, nullptr); }

 private:
  T* m_p = nullptr;
};

struct CFreeDelete {
  void operator()(void* p) const { std::free(p); }
};
using TBusBytes = std::unique_ptr<unsigned char, CFreeDelete>;

// Heap copy of a caller's data; null for no data. Throws std::bad_alloc.
TBusBytes CopyBytes(const void* pData, uint32_t uiLength);

// A token for a send: never 0, never given out twice in a process.
unsigned long long NextBusToken();

// One entry of an endpoint's queue.
struct CBusItem {
  enum class EKind : uint8_t { Message, Completion };
  explicit CBusItem(EKind kind) : eKind(kind) {}

  CBusItem* pNextItem = nullptr;
  const EKind eKind;
};

// A send whose sender waits. References are held by the sender's deadline list or queue, by the message, and
// by the baton made of it.
struct CBusCall : CBusItem {
  CBusCall() : CBusItem(EKind::Completion) {}

  void AddRef() { m_uRefs.fetch_add(1, std::memory_order_relaxed); }
  void Release() {
    if (m_uRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
      Destroy();
  }

  // Set before the call is shared.
  std::shared_ptr<IBusPeer> pSender;
  std::shared_ptr<IBusPeer> pTarget;
  IMRSendComplete* pCallback = nullptr;
  void* pContext = nullptr;
  unsigned long long ui64ACT = 0;
  uint32_t uiType = 0;
  uint32_t uiTimeoutMs = 0;

  // Guarded by the sender's lock until bDone; then owned by the thread that delivers the completion.
  CBusCall* pPrevDeadline = nullptr;
  CBusCall* pNextDeadline = nullptr;
  struct CBusDeadlineList* pDeadlineList = nullptr;
  uint64_t u64DeadlineNs = 0;
  uint32_t uiStatus = 0;
  long i64ReplyType = 0;
  uint32_t uiReplyLength = 0;
  TBusBytes pReply;            // null: none, or in aReply
  bool bBatonMayLive = false;  // ended without the target's help, which may still hold the baton

  // Set under the sender's lock; the target reads it to see that nobody waits any more.
  std::atomic<bool> bDone{false};

  uint64_t u64Baton = 0;  // guarded by the target's lock; 0: none

  // Calls to or from another process, belonging to the connection's turn: the list of its connection, the
  // serial under which a call was sent or arrived, and the message to answer.
  CBusCall* pPrevRemote = nullptr;
  CBusCall* pNextRemote = nullptr;
  struct CBusRemoteTarget* pRemoteTarget = nullptr;
  uint64_t u64Serial = 0;
  uint32_t uiRemoteBytes = 0;
  bool bInFlight = false;
  sd_bus_message* pRemoteMessage = nullptr;
  bool bRefused = false;  // uiStatus is an error of the bus; set before the call is queued

  // An answer that is short enough lies here, written by whoever took the baton.
  static constexpr uint32_t kInlineReplyBytes = 256;
  const unsigned char* Reply() const {
    return pReply != nullptr || uiReplyLength == 0 ? pReply.get() : aReply;
  }
  unsigned char aReply[kInlineReplyBytes];

 private:
  friend struct CBusRequest;
  ~CBusCall() = default;
  void Destroy();

  std::atomic<uint32_t> m_uRefs{1};
  struct CBusRequest* m_pRequest = nullptr;  // the block that it lies in; null: its own
};

// Data of a broadcast, shared by the messages to its receivers.
struct CBusPayload {
  void AddRef() { m_uRefs.fetch_add(1, std::memory_order_relaxed); }
  void Release() {
    if (m_uRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
      delete this;
  }
  TBusBytes pData;

 private:
  ~CBusPayload() = default;
  std::atomic<uint32_t> m_uRefs{1};
};

// One delivery to one receiver. Owned by whoever holds it: the sender, then the target's queue, then the
// dispatcher. Deleting one that lies in a CBusRequest gives up its data and its reference to the call there.
struct CBusMessage : CBusItem {
  CBusMessage() noexcept : CBusItem(EKind::Message) {}
  static void operator delete(CBusMessage* pMessage, std::destroying_delete_t);

  const unsigned char* Data() const {
    return pInline != nullptr ? pInline : payload ? payload->pData.get() : pOwn.get();
  }

  GUID guidFrom;
  GUID guidTo;  // zero: a broadcast
  uint32_t uiType = 0;
  uint32_t uiLength = 0;
  const unsigned char* pInline = nullptr;  // data in the request's own block
  TBusBytes pOwn;
  CBusRef<CBusPayload> payload;
  CBusRef<CBusCall> call;
  bool bInRequest = false;  // then it refers to the call there until it is deleted
};

// A call and its message, in one block of memory that lives as long as the call. Data that are short enough
// lie in it, too; longer ones go with the message, so that a baton that is held does not keep them.
struct CBusRequest {
  static constexpr uint32_t kInlineBytes = 256;

  // The message, which holds the only reference to the call. Throws std::bad_alloc.
  static std::unique_ptr<CBusMessage> New(const void* pData, uint32_t uiLength);

 private:
  friend struct CBusCall;
  CBusRequest() = default;
  ~CBusRequest() = default;

  CBusCall call;
  CBusMessage message;
};

// First-in first-out list through the items' hooks; owns nothing.
class CBusQueue {
 public:
  bool IsEmpty() const { return m_pHead == nullptr; }
  CBusItem* Head() const { return m_pHead; }
  void Push(CBusItem& item) {
    item.pNextItem = nullptr;
    (m_pTail != nullptr ? m_pTail->pNextItem : m_pHead) = &item;
    m_pTail = &item;
  }
  CBusItem* Pop() {
    CBusItem* pItem = m_pHead;
    if (pItem != nullptr && (m_pHead = pItem->pNextItem) == nullptr)
      m_pTail = nullptr;
    return pItem;
  }
  void Append(CBusQueue& other) {
    if (other.m_pHead == nullptr)
      return;
    (m_pTail != nullptr ? m_pTail->pNextItem : m_pHead) = other.m_pHead;
    m_pTail = other.m_pTail;
    other.m_pHead = other.m_pTail = nullptr;
  }

 private:
  CBusItem* m_pHead = nullptr;
  CBusItem* m_pTail = nullptr;
};
