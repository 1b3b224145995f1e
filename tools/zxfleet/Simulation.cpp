#include "Simulation.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include "platform/cloud/LinkMachine.h"

namespace zxfleet {

namespace {

using zxcloud::_CloudAddress;
using zxcloud::CLinkMachine;
using zxcloud::ELinkStage;

constexpr uint64_t kStableMs = 3600000;  // the fleet has been up this long when it loses the brokers
constexpr uint64_t kRoundTripMs = 20;

class CVirtualClock : public zxcloud::IClock {
 public:
  uint64_t NowMs() override { return u64Now; }
  uint64_t u64Now = 1;
};

class CSeededRandom : public zxcloud::IRandom {
 public:
  explicit CSeededRandom(uint64_t u64Seed) : m_u64State(u64Seed) {}
  uint32_t Below(uint32_t uBound) override {
    m_u64State += 0x9e3779b97f4a7c15u;  // splitmix64
    uint64_t u64 = m_u64State;
    u64 = (u64 ^ (u64 >> 30)) * 0xbf58476d1ce4e5b9u;
    u64 = (u64 ^ (u64 >> 27)) * 0x94d049bb133111ebu;
    u64 ^= u64 >> 31;
    return static_cast<uint32_t>(((u64 >> 32) * uBound) >> 32);
  }

 private:
  uint64_t m_u64State;
};

// One machine: what its state machine asks for is noted, and done by the fleet afterwards.
class CMachine : private zxcloud::ILinkActions {
 public:
  CMachine(const zxcloud::_LinkTimes& times, zxcloud::IClock& clock, zxcloud::IRandom& random)
      : machine(times, clock, random, *this) {}

  CLinkMachine machine;
  bool bDial = false;     // an attempt is to be made
  uint32_t uAttempt = 0;  // which one; an answer to an earlier one comes too late

 private:
  void Dial(const _CloudAddress&) override {
    bDial = true;
    ++uAttempt;
  }
  void Hangup() override { ++uAttempt; }
  void LinkUp(const _CloudAddress&) override {}
  void LinkDown(const std::string&) override {}
  void LinkWaits(const std::string&, uint32_t) override {}
};

enum class EWhat : uint8_t { Time, Refused, Accepted, Served };

struct _Event {
  uint64_t u64At;
  uint32_t uMachine;
  uint32_t uAttempt;
  EWhat eWhat;
  friend bool operator>(const _Event& a, const _Event& b) { return a.u64At > b.u64At; }
};

class CFleet {
 public:
  explicit CFleet(const _SimSettings& settings) : m_settings(settings), m_random(settings.u64Seed) {
    m_list.reserve(settings.uMachines);
    for (uint32_t i = 0; i < settings.uMachines; ++i)
      m_list.push_back(std::make_unique<CMachine>(m_settings.times, m_clock, m_random));
  }

  _SimResult Run() {
    Connect();
    m_u64Lost = m_clock.u64Now;
    m_u64Return = m_u64Lost + m_settings.u64AwayMs;
    m_dFree = static_cast<double>(m_u64Return);
    for (uint32_t i = 0; i < m_list.size(); ++i) {
      m_list[i]->machine.OnFailed("lost");
      Follow(i);
    }
    const uint64_t u64End = m_u64Return + m_settings.u64AfterMs;
    while (!m_queue.empty() && m_queue.top().u64At < u64End && m_result.uUp < m_settings.uMachines) {
      const _Event event = m_queue.top();
      m_queue.pop();
      m_clock.u64Now = std::max(m_clock.u64Now, event.u64At);
      Handle(event);
      Follow(event.uMachine);
    }
    return m_result;
  }

 private:
  // All up, long enough ago that nothing of it is left.
  void Connect() {
    std::vector<_CloudAddress> listAddresses;
    for (uint32_t i = 0; i < m_settings.uAddresses; ++i)
      listAddresses.push_back({"n" + std::to_string(i), 1, false});
    for (const auto& pMachine : m_list) {
      pMachine->machine.SetRetryMax(m_settings.uRetryMaxSec);
      pMachine->machine.SetAddresses(listAddresses, m_settings.uSpreadSec);
      pMachine->machine.OnReady();
      pMachine->bDial = false;
    }
    m_clock.u64Now += kStableMs;
  }

  void Handle(const _Event& event) {
    CMachine& one = *m_list[event.uMachine];
    if (event.eWhat == EWhat::Time) {
      one.machine.OnTime();
      return;
    }
    const bool bStale = one.uAttempt != event.uAttempt;
    if (event.eWhat == EWhat::Served && bStale)
      ++m_result.u64Wasted;
    if (bStale)
      return;
    switch (event.eWhat) {
      case EWhat::Refused:
        one.machine.OnFailed("refused");
        break;
      case EWhat::Accepted:
        one.machine.OnStage(ELinkStage::Connack);
        break;
      case EWhat::Served:
        one.machine.OnReady();
        CountUp();
        break;
      case EWhat::Time:
        break;
    }
  }

  // What the machine wants next: an attempt, or to be called at its deadline.
  void Follow(uint32_t uMachine) {
    CMachine& one = *m_list[uMachine];
    if (one.bDial) {
      one.bDial = false;
      Attempt(uMachine, one.uAttempt);
    }
    if (one.machine.Deadline() != 0)
      m_queue.push({one.machine.Deadline(), uMachine, 0, EWhat::Time});
  }

  void Attempt(uint32_t uMachine, uint32_t uAttempt) {
    const uint64_t u64Now = m_clock.u64Now;
    m_result.attempts.Add(u64Now - m_u64Lost);
    const uint64_t u64Answer = u64Now + kRoundTripMs;
    if (u64Now < m_u64Return) {
      if (!m_settings.bSilent)
        m_queue.push({u64Answer, uMachine, uAttempt, EWhat::Refused});
      return;
    }
    if (m_settings.uCapacity == 0) {
      m_queue.push({u64Answer, uMachine, uAttempt, EWhat::Served});
      return;
    }
    // First come, first served; a client that has given up is noticed only when its turn is over.
    const double dEach = 1000.0 / m_settings.uCapacity;
    const double dStart = std::max(m_dFree, static_cast<double>(u64Now));
    if ((dStart - static_cast<double>(u64Now)) / dEach >= m_settings.uBacklog)
      return;
    m_dFree = dStart + dEach;
    m_queue.push({u64Answer, uMachine, uAttempt, EWhat::Accepted});
    m_queue.push({static_cast<uint64_t>(m_dFree) + kRoundTripMs, uMachine, uAttempt, EWhat::Served});
  }

  void CountUp() {
    const uint64_t u64Since = m_clock.u64Now - m_u64Return;
    m_result.ups.Add(m_clock.u64Now - m_u64Lost);
    const uint64_t u64Up = ++m_result.uUp;
    const uint64_t u64All = m_settings.uMachines;
    if (u64Up * 2 >= u64All && m_result.u64HalfUpMs == 0)
      m_result.u64HalfUpMs = u64Since;
    if (u64Up * 100 >= u64All * 99 && m_result.u64MostUpMs == 0)
      m_result.u64MostUpMs = u64Since;
    if (u64Up == u64All)
      m_result.u64AllUpMs = u64Since;
  }

  const _SimSettings& m_settings;
  CVirtualClock m_clock;
  CSeededRandom m_random;
  std::vector<std::unique_ptr<CMachine>> m_list;
  std::priority_queue<_Event, std::vector<_Event>, std::greater<>> m_queue;
  uint64_t m_u64Lost = 0;
  uint64_t m_u64Return = 0;
  double m_dFree = 0;  // when the brokers have made all connections that wait
  _SimResult m_result;
};

}  // namespace

_SimResult Simulate(const _SimSettings& settings) {
  return CFleet(settings).Run();
}

}  // namespace zxfleet
