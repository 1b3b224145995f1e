// A bus context for tests: records every operation, answers what the test set, and delivers completions and
// received messages from a thread of its own, as the real bus does. Any thread may call anything here; no
// lock of the fake is held while it calls out.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/bus/zxbus.h"

enum class EBusCall { Initialize, Uninitialize, Receive, Unreceive, AsynSendEx, BroadcastSend, Reply };

struct _BusCall {
  EBusCall eCall = EBusCall::Initialize;
  GUID guid;            // own GUID of Initialize, target of AsynSendEx
  uint32_t uiType = 0;  // message type; the status of Reply
  std::string strData;  // byte for byte
  IMRSendComplete* pCallback = nullptr;
  void* pContext = nullptr;  // of AsynSendEx
  unsigned long long ui64ACT = 0;
  uint32_t uiTimeoutMs = 0;
  void* pBatonData = nullptr;  // of Reply
  long i64MsgType = 0;         // of Reply
};

class CFakeBus final : public IBusContext {
 public:
  CFakeBus() = default;
  ~CFakeBus() = default;

  // What an operation answers: the result for its type, else the one for the operation, else 0.
  void SetResult(EBusCall eCall, uint32_t uiResult);
  void SetResult(EBusCall eCall, uint32_t uiType, uint32_t uiResult);
  // Every accepted AsynSendEx is answered with this before it returns to the sender (from the fake's thread).
  void CompleteAtOnce(uint32_t uiStatus, const std::string& strResponse);
  // Called in each operation, before its result is given.
  void SetHook(std::function<void(const _BusCall&)> hook);

  std::vector<_BusCall> Calls() const;
  std::vector<_BusCall> Calls(EBusCall eCall) const;
  size_t Count(EBusCall eCall) const;
  bool WaitCount(EBusCall eCall, size_t uCount,
                 std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;
  IMRReceiveComplete* Receiver(uint32_t uiType) const;  // null when none is registered

  // Runs the completion of an accepted AsynSendEx call on the fake's thread and waits until it returned.
  void Complete(const _BusCall& call, uint32_t uiStatus, const std::string& strResponse = std::string());
  // Hands a message to the receiver of its type, on the fake's thread, and waits until it returned. With
  // bWantReply it carries a baton; the answer is the last Reply given for it. Nothing when no receiver is
  // registered, or no reply was given.
  struct _Reply {
    uint32_t uiStatus = 0;
    long i64MsgType = 0;
    std::string strData;
  };
  std::optional<_Reply> Deliver(const GUID& guidSender, uint32_t uiType, const std::string& strData,
                                bool bWantReply = true);

  // IBusContext.
  uint32_t Initialize(const GUID* pOwn) override;
  void Uninitialize() override;
  uint32_t Receive(uint32_t uiType, IMRReceiveComplete* pReceiver) override;
  void Unreceive(uint32_t uiType) override;
  uint32_t AsynSendEx(const GUID* pTarget, uint32_t uiType, const void* pData, uint32_t uiLength,
                      IMRSendComplete* pCallback, void* pContext, unsigned long long* pui64ACT,
                      uint32_t uiTimeoutMs) override;
  uint32_t BroadcastSend(uint32_t uiType, const void* pData, uint32_t uiLength) override;
  uint32_t Reply(uint32_t uiStatus, long i64MsgType, const void* pData, uint32_t uiLength,
                 void* pBatonData) override;

 private:
  uint32_t Record(const _BusCall& call);

  mutable std::mutex m_mutex;
  mutable std::condition_variable m_cond;
  std::vector<_BusCall> m_calls;
  std::map<EBusCall, uint32_t> m_results;
  std::map<std::pair<EBusCall, uint32_t>, uint32_t> m_typeResults;
  std::map<uint32_t, IMRReceiveComplete*> m_receivers;
  std::map<void*, _Reply> m_replies;
  std::function<void(const _BusCall&)> m_hook;
  std::optional<std::pair<uint32_t, std::string>> m_complete;
  unsigned long long m_ui64LastACT = 0;
};
