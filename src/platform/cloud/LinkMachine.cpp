#include "platform/cloud/LinkMachine.h"

#include <algorithm>
#include <utility>

namespace zxcloud {

namespace {

constexpr uint32_t kPatientMs = 30000;  // no time-out grows beyond this
constexpr uint32_t kMostDoublings = 8;
constexpr uint32_t kQuickRetries = 1;  // rounds after the first that keep its time-outs

}  // namespace

CLinkMachine::CLinkMachine(const _LinkTimes& times, IClock& clock, IRandom& random, ILinkActions& actions)
    : m_times(times),
      m_clock(clock),
      m_random(random),
      m_actions(actions),
      m_backoff(times.dwBackoffBase, times.dwBackoffCap, random) {}

void CLinkMachine::Fire(ELinkEvent eEvent) {
  using C = CLinkMachine;
  static constexpr THandler kTable[4][5] = {
      //                  Addresses       Due           Ready        Failed           Refused
      /* Off        */ {&C::Begin, &C::Ignore, &C::Ignore, &C::Ignore, &C::Ignore},
      /* Waiting    */ {&C::BeginIfNew, &C::Begin, &C::Ignore, &C::Ignore, &C::Ignore},
      /* Connecting */ {&C::Restart, &C::TimedOut, &C::ComeUp, &C::NextAddress, &C::RefusedNow},
      /* Up         */ {&C::Readdress, &C::Ignore, &C::Ignore, &C::Lose, &C::Lose},
  };
  // Taken out first: g++ 12 checks the index of a called table entry with a value that it never computed.
  const THandler pfnHandler = kTable[static_cast<size_t>(m_eState)][static_cast<size_t>(eEvent)];
  (this->*pfnHandler)();
}

void CLinkMachine::SetAddresses(std::vector<_CloudAddress> list, uint32_t uSpreadSec) {
  m_dwSpreadMs = uSpreadSec * 1000;
  if (list == m_list)
    return;
  m_list = std::move(list);
  m_uNext = 0;
  Fire(ELinkEvent::Addresses);
}

void CLinkMachine::SetRetryMax(uint32_t uRetryMaxSec) {
  m_backoff.SetWidest(uRetryMaxSec * 1000);
}

void CLinkMachine::OnStage(ELinkStage eStage) {
  if (m_eState != ELinkState::Connecting)
    return;
  m_eStage = eStage;
  const uint32_t dwMs = eStage == ELinkStage::Dial      ? m_times.dwDial
                        : eStage == ELinkStage::Connack ? m_times.dwConnack
                                                        : m_times.dwReady;
  m_u64Deadline = m_clock.NowMs() + Patience(dwMs);
}

uint32_t CLinkMachine::Patience(uint32_t dwMs) const {
  const uint32_t uDoublings =
      m_uRounds <= kQuickRetries ? 0 : std::min(m_uRounds - kQuickRetries, kMostDoublings);
  return std::max(dwMs, std::min(dwMs << uDoublings, kPatientMs));
}

void CLinkMachine::OnReady() {
  Fire(ELinkEvent::Ready);
}

void CLinkMachine::OnFailed(const std::string& strReason) {
  m_strReason = strReason;
  Fire(ELinkEvent::Failed);
}

void CLinkMachine::OnRefused(const std::string& strReason) {
  m_strReason = strReason;
  Fire(ELinkEvent::Refused);
}

void CLinkMachine::OnTime() {
  if (m_u64Deadline == 0 || m_clock.NowMs() < m_u64Deadline)
    return;
  m_u64Deadline = 0;
  Fire(ELinkEvent::Due);
}

void CLinkMachine::Ignore() {}

// Starts a round through all addresses.
void CLinkMachine::Begin() {
  m_uLeftInRound = m_list.size();
  m_strRound.clear();
  if (m_list.empty()) {
    m_eState = ELinkState::Off;
    m_u64Deadline = 0;
    m_uRounds = 0;
    m_bLost = false;
    return;
  }
  DialCurrent();
}

void CLinkMachine::BeginIfNew() {
  if (!CurrentIsListed())
    Begin();
}

void CLinkMachine::Restart() {
  if (CurrentIsListed())
    return;
  m_actions.Hangup();
  Begin();
}

void CLinkMachine::Readdress() {
  if (CurrentIsListed())
    return;
  m_actions.Hangup();
  m_actions.LinkDown("the address is not listed any more");
  Begin();
}

void CLinkMachine::DialCurrent() {
  m_current = m_list[m_uNext];
  m_uNext = (m_uNext + 1) % m_list.size();
  --m_uLeftInRound;
  m_eState = ELinkState::Connecting;
  OnStage(ELinkStage::Dial);
  m_actions.Dial(m_current);
}

void CLinkMachine::NoteReason() {
  if (!m_strRound.empty())
    m_strRound += "; ";
  m_strRound += m_current.Text() + ": " + m_strReason;
}

void CLinkMachine::NextAddress() {
  NoteReason();
  if (m_uLeftInRound > 0)
    DialCurrent();
  else
    EndRound();
}

void CLinkMachine::EndRound() {
  ++m_uRounds;
  Wait(m_backoff.Next(m_bLost ? m_dwSpreadMs : 0));
}

void CLinkMachine::TimedOut() {
  static constexpr const char* kWhat[] = {"no connection within the time-out",
                                          "no CONNACK within the time-out",
                                          "no answer to the subscription within the time-out"};
  m_strReason = kWhat[static_cast<size_t>(m_eStage)];
  m_actions.Hangup();
  NextAddress();
}

void CLinkMachine::RefusedNow() {
  NoteReason();
  Wait(m_backoff.NextAtCap());
}

void CLinkMachine::ComeUp() {
  m_eState = ELinkState::Up;
  m_u64Deadline = 0;
  m_u64UpSince = m_clock.NowMs();
  m_uRounds = 0;
  m_bLost = false;
  m_actions.LinkUp(m_current);
}

void CLinkMachine::Lose() {
  m_bLost = true;
  const bool bStable = m_clock.NowMs() - m_u64UpSince >= m_times.dwStable;
  if (bStable)
    m_backoff.Reset();
  // The whole fleet loses a broker in one moment and must not come back in one.
  uint32_t dwDelay = m_random.Below(m_dwSpreadMs + 1);
  if (!bStable || m_dwSpreadMs == 0)
    dwDelay = std::max(dwDelay, m_backoff.Next());
  m_actions.LinkDown(m_strReason);
  m_strRound.clear();
  NoteReason();
  Wait(dwDelay);
}

void CLinkMachine::Wait(uint32_t dwDelayMs) {
  m_eState = ELinkState::Waiting;
  m_u64Deadline = m_clock.NowMs() + std::max(dwDelayMs, 1u);
  m_actions.LinkWaits(m_strRound, dwDelayMs);
}

bool CLinkMachine::CurrentIsListed() const {
  return std::find(m_list.begin(), m_list.end(), m_current) != m_list.end();
}

}  // namespace zxcloud
