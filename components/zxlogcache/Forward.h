// Decides what is sent to the agent and when: forms log caches from the store, sends them up to a window,
// follows each to its upload result (bus type 20003), repeats what was refused or got no result, and lets go
// of records only when the cloud has them.
//
// Pacing is per source: after a refusal one log cache at a time is tried, with a growing pause, until one
// gets through. Each log cache has a pause of its own too, so that one that is never taken does not hold up
// others.
//
// One thread; times are milliseconds of a monotonic clock, given by the caller. Nothing here blocks but the
// store.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Settings.h"
#include "Store.h"
#include "platform/log/Log.h"

namespace zxlogcache {

struct _ForwardCounts {
  uint64_t u64Sent = 0;       // log caches handed to the agent, repeats included
  uint64_t u64Refused = 0;    // not accepted by the agent
  uint64_t u64Failed = 0;     // accepted, not uploaded or without a result in time
  uint64_t u64Forwarded = 0;  // records that the cloud has
  uint64_t u64Expired = 0;    // records too old
};

class CForward {
 public:
  // 0: on its way; the answer comes by OnReply. Anything else: the bus's refusal.
  using PFNSend =
      std::function<uint32_t(const _SourceSettings& source, uint64_t u64DataId, const std::string& strBody)>;

  CForward(const _Settings& settings, PFNSend pfnSend, HLog hLog, uint32_t uiSeed);

  // What an earlier life left unfinished. False: the store's error.
  bool Load(CStore& store);
  // A source that was registered after Load.
  void Know(int64_t i64Source, const _SourceSettings& settings) { m_sources[i64Source].settings = settings; }
  void OnReply(uint64_t u64DataId, uint32_t uiStatus, uint64_t u64NowMs);
  void OnResult(uint64_t u64DataId, int32_t iResult, uint64_t u64NowMs);

  // Inside a transaction: let go of what was delivered or is too old; form what may be sent. Both take effect
  // with Committed and are forgotten with RolledBack. False: the store's error.
  bool LetGo(CStore& store);
  bool Form(CStore& store, uint64_t u64NowMs);
  void Committed();
  void RolledBack();
  // Outside a transaction: sends what is due.
  void Send(CStore& store, uint64_t u64NowMs);
  // When LetGo, Form or Send should run again; UINT64_MAX: not before something happens.
  uint64_t NextMs(uint64_t u64NowMs) const;

  size_t InFlight() const { return m_flights.size(); }
  const _ForwardCounts& Counts() const { return m_counts; }

 private:
  enum class EState { Waiting, Sent, Accepted };
  struct _Flight {
    _Cache cache;
    EState eState = EState::Waiting;
    uint32_t uiAttempts = 0;
    uint64_t u64DueMs = 0;  // Waiting: not before; Accepted: result is overdue
  };
  struct _Source {
    _SourceSettings settings;
    uint32_t uiFails = 0;  // since the last success
    uint64_t u64DueMs = 0;
    uint32_t uiLastStatus = 0;
  };

  bool FormOf(CStore& store, int64_t i64Source, _Source& source, uint64_t u64NowMs);
  void Try(CStore& store, _Flight& flight, _Source& source, uint64_t u64NowMs);
  void Fail(_Flight& flight, uint32_t uiStatus, const char* pszWhat, uint64_t u64NowMs);
  void AgentGone(uint64_t u64NowMs);
  uint64_t Pause(uint32_t uiFails);
  bool HasRoom(int64_t i64Source, const _Source& source) const;
  bool UnderWay(int64_t i64Source) const;
  size_t Busy() const;

  const _Settings& m_settings;
  const PFNSend m_pfnSend;
  const HLog m_hLog;
  std::minstd_rand m_random;
  std::map<int64_t, _Source> m_sources;
  std::map<uint64_t, _Flight> m_flights;
  std::map<uint64_t, _Cache> m_finished;  // delivered, not yet let go of in the store
  std::vector<_Flight> m_formed;          // in the transaction under way
  std::vector<uint64_t> m_gone;           // from m_finished, in the transaction under way
  std::vector<uint64_t> m_expired;
  uint64_t m_u64FormMs = UINT64_MAX;  // something waits for its linger time
  _ForwardCounts m_counts;
};

}  // namespace zxlogcache
