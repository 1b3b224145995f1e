// A connection in the hands of the component's own threads: written by whoever sends, and read by the
// dispatcher while it has nothing else to do.
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>

#include <utility>

#include "platform/bus/BusCarrier.h"
#include "platform/bus/BusClock.h"
#include "platform/bus/BusWire.h"

namespace {

// Senders may be threads that get cancelled; not while a connection is in their hands.
class CNoCancel {
 public:
  CNoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iState); }
  ~CNoCancel() { pthread_setcancelstate(m_iState, nullptr); }
  CNoCancel(const CNoCancel&) = delete;
  CNoCancel& operator=(const CNoCancel&) = delete;

 private:
  int m_iState = 0;
};

// False: time is up.
bool WaitReadable(pollfd (&fds)[2], uint64_t u64DueNs) {
  if (u64DueNs == CBusWire::kNever)
    return ppoll(fds, 2, nullptr, nullptr) > 0;
  const uint64_t u64NowNs = BusNowNs();
  const uint64_t u64RestNs = u64DueNs > u64NowNs ? u64DueNs - u64NowNs : 0;
  const timespec ts{static_cast<time_t>(u64RestNs / kBusNsPerSecond),
                    static_cast<long>(u64RestNs % kBusNsPerSecond)};
  return ppoll(fds, 2, &ts, nullptr) > 0;
}

}  // namespace

void CBusWire::Write() {
  const CNoCancel noCancel;
  if (!m_turn.TryTake())
    return;
  WriteHeld();
  GiveTurn();
}

void CBusWire::WriteHeld() {
  const bool bMore = WriteSome();
  if (m_pBus == nullptr)
    return;
  Watch();
  if (bMore)
    m_carrier.Ready(shared_from_this());
}

void CBusWire::GiveTurn() {
  while (m_turn.Give() && m_turn.TryTake())
    WriteHeld();
}

bool CBusWire::BeginServe() {
  EServe eAway = EServe::Away;
  if (m_eServe.compare_exchange_strong(eAway, EServe::Waiting))
    return true;
  if (!m_bMayServe.load())
    return false;
  m_turn.Take();
  const bool bMay = m_bMayServe.load() && m_pBus != nullptr && m_strFailure.empty();
  if (bMay) {
    m_iServedFd = m_iFd;
    m_eServe.store(EServe::Waiting);
    Watch();
  }
  GiveTurn();
  return bMay;
}

bool CBusWire::Serve(int iWake, uint64_t u64DueNs) {
  if (!BeginServe())
    return false;
  // One message at a time: while it is worked on, the daemon carries the next one. Behind it there may be
  // more.
  m_bReadLast = m_bReadLast && ReadTurn();
  if (!m_bReadLast) {
    pollfd fds[2] = {{m_iServedFd, POLLIN, 0}, {iWake, POLLIN, 0}};
    if (Linger(fds) || WaitReadable(fds, u64DueNs)) {
      eventfd_t count = 0;
      if (fds[1].revents != 0)
        eventfd_read(iWake, &count);
      m_bReadLast = fds[0].revents != 0 && ReadTurn();
    }
  }
  if (m_bReadLast)
    m_linger.CountMessage();
  m_uiServed.fetch_add(1);
  EServe eWaiting = EServe::Waiting;
  if (m_eServe.compare_exchange_strong(eWaiting, EServe::Away))
    m_carrier.ScheduleSweep();
  return true;
}

bool CBusWire::Linger(pollfd (&fds)[2]) {
  if (m_linger.May()) {
    const timespec none{};
    const uint64_t u64BeganNs = BusNowNs();
    uint64_t u64TookNs = 0;
    bool bFound = false;
    do {
      sched_yield();
      bFound = ppoll(fds, 2, &none, nullptr) > 0;
      u64TookNs = BusNowNs() - u64BeganNs;
    } while (!bFound && u64TookNs < CBusLinger::kLongestNs);
    m_linger.Lingered(bFound, u64TookNs);
    if (bFound)
      return true;
  }
  m_linger.Sleeps();
  return false;
}

// True: something came.
bool CBusWire::ReadTurn() {
  m_turn.Take();
  const bool bMore = WriteSome();
  const bool bRead = Process(1);
  if (bMore || !m_strFailure.empty() || WriteSome())
    m_carrier.Ready(shared_from_this());  // what remains, and closing, is the I/O thread's
  if (m_pBus != nullptr) {
    Watch();
    Publish(false);
  }
  GiveTurn();
  return bRead;
}

CBusWire::ESweep CBusWire::Sweep() {
  const bool bAway = m_eServe.load() == EServe::Away;
  const uint32_t uiServed = m_uiServed.load();
  if (std::exchange(m_uiSwept, uiServed) != uiServed)
    return bAway ? ESweep::Again : ESweep::Lively;
  if (!bAway)
    return ESweep::Quiet;
  m_turn.Take();
  EServe eAway = EServe::Away;
  if (m_eServe.compare_exchange_strong(eAway, EServe::No) && m_pBus != nullptr)
    Watch();
  GiveTurn();
  return ESweep::Quiet;
}
