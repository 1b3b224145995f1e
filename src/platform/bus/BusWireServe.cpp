// A connection in the hands of the component's own threads: written by whoever sends, and read by the
// dispatcher while it has nothing else to do.
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>

#include <algorithm>

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
  pollfd fds[2] = {{m_iServedFd, POLLIN, 0}, {iWake, POLLIN, 0}};
  if (WaitReadable(fds, u64DueNs)) {
    eventfd_t count = 0;
    if (fds[1].revents != 0)
      eventfd_read(iWake, &count);
    if (fds[0].revents != 0)
      ReadTurn();
  }
  m_uiServed.fetch_add(1);
  EServe eWaiting = EServe::Waiting;
  if (m_eServe.compare_exchange_strong(eWaiting, EServe::Away))
    m_carrier.ScheduleSweep();
  return true;
}

void CBusWire::ReadTurn() {
  m_turn.Take();
  const bool bMore = WriteSome();
  Process();
  if (bMore || !m_strFailure.empty() || WriteSome())
    m_carrier.Ready(shared_from_this());  // what remains, and closing, is the I/O thread's
  if (m_pBus != nullptr) {
    Watch();
    Publish(false);
  }
  GiveTurn();
}

bool CBusWire::Sweep() {
  if (m_eServe.load() != EServe::Away)
    return false;
  const uint32_t uiServed = m_uiServed.load();
  if (uiServed != m_uiSwept) {
    m_uiSwept = uiServed;
    return true;
  }
  m_turn.Take();
  EServe eAway = EServe::Away;
  if (m_eServe.compare_exchange_strong(eAway, EServe::No) && m_pBus != nullptr)
    Watch();
  GiveTurn();
  return false;
}
