// The life of the long connection as a table: which address is dialled when, and what follows a failure.
//
//   Off --addresses--> Connecting --ready--> Up
//   Connecting --failed--> Connecting (next address) or, after the last, Waiting (back-off, full jitter)
//   Connecting --refused--> Waiting (cap of the back-off: time alone does not heal it)
//   Up --lost--> Waiting (anywhere within the spread that the cloud names) --due--> Connecting
//
// Until a lost connection is made again, no delay comes from a window narrower than the spread: a fleet whose
// first attempts fail would gather in the small windows and return in one moment. From the third round on the
// time-outs double: a crowded server that works for a client which has left helps nobody.
//
// Pure: no thread, no socket; the owner performs the actions and brings events and time. One thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/cloud/Backoff.h"
#include "platform/cloud/CloudAddress.h"
#include "platform/cloud/CloudPorts.h"

namespace zxcloud {

enum class ELinkState : uint8_t { Off, Waiting, Connecting, Up };
enum class ELinkEvent : uint8_t { Addresses, Due, Ready, Failed, Refused };

// How far a connection attempt has come; each stage has its own time-out.
enum class ELinkStage : uint8_t { Dial, Connack, Ready };

class ILinkActions {
 public:
  virtual ~ILinkActions() = default;
  virtual void Dial(const _CloudAddress& address) = 0;
  virtual void Hangup() = 0;  // the attempt or the connection, without an event
  virtual void LinkUp(const _CloudAddress& address) = 0;
  virtual void LinkDown(const std::string& strReason) = 0;  // only after LinkUp
  // strReasons: "address: reason" of each address of the round, joined by "; ".
  virtual void LinkWaits(const std::string& strReasons, uint32_t dwDelayMs) = 0;
};

class CLinkMachine {
 public:
  CLinkMachine(const _LinkTimes& times, IClock& clock, IRandom& random, ILinkActions& actions);

  // An empty list ends the long connection. A connection to an address that is still listed stays.
  void SetAddresses(std::vector<_CloudAddress> list, uint32_t uSpreadSec);
  // The widest window of the back-off between rounds; refusals keep the cap. Counts from the next wait on.
  void SetRetryMax(uint32_t uRetryMaxSec);
  void OnStage(ELinkStage eStage);
  void OnReady();
  // An attempt that failed or a connection that was lost; strReason goes into the log.
  void OnFailed(const std::string& strReason);
  void OnRefused(const std::string& strReason);
  // Acts on what has become due.
  void OnTime();

  ELinkState State() const { return m_eState; }
  uint64_t Deadline() const { return m_u64Deadline; }  // 0: nothing is due at any time
  const _CloudAddress& Current() const { return m_current; }

 private:
  using THandler = void (CLinkMachine::*)();
  void Fire(ELinkEvent eEvent);

  void Ignore();
  void Begin();
  void BeginIfNew();
  void Restart();
  void Readdress();
  void NextAddress();
  void EndRound();
  void TimedOut();
  void RefusedNow();
  void ComeUp();
  void Lose();

  uint32_t Patience(uint32_t dwMs) const;
  void DialCurrent();
  void NoteReason();
  void Wait(uint32_t dwDelayMs);
  bool CurrentIsListed() const;

  const _LinkTimes& m_times;
  IClock& m_clock;
  IRandom& m_random;
  ILinkActions& m_actions;
  CBackoff m_backoff;
  ELinkState m_eState = ELinkState::Off;
  ELinkStage m_eStage = ELinkStage::Dial;
  uint64_t m_u64Deadline = 0;
  uint64_t m_u64UpSince = 0;
  uint32_t m_dwSpreadMs = 0;
  std::vector<_CloudAddress> m_list;
  size_t m_uNext = 0;  // index of the address to dial next
  size_t m_uLeftInRound = 0;
  uint32_t m_uRounds = 0;  // that failed since the last connection
  bool m_bLost = false;    // there was a connection, and none since
  _CloudAddress m_current;
  std::string m_strReason;
  std::string m_strRound;
};

}  // namespace zxcloud
