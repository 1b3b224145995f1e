// One connection to the D-Bus daemon: opens it, keeps it open with a growing pause between attempts, knows
// who owns which component name, and asks for a name of its own.
//
// Threads: whoever has the turn (BusTurn.h), which is what all members and hooks without another word belong
// to. Opening, closing and deadlines are the I/O thread's; a component's threads may write to a connection
// that is ready, and one may watch it instead of the I/O thread (Serve). Owned by the carrier.
#pragma once

#include <poll.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/bus/BusLinger.h"
#include "platform/bus/BusOwners.h"
#include "platform/bus/BusTurn.h"
#include "platform/os/ZxCritSec.h"

class CBusCarrier;

struct CBusMessageUnref {
  void operator()(sd_bus_message* p) const { sd_bus_message_unref(p); }
};
using TBusMessage = std::unique_ptr<sd_bus_message, CBusMessageUnref>;

class CBusWire : public std::enable_shared_from_this<CBusWire> {
 public:
  static constexpr uint64_t kNever = UINT64_MAX;

  // strOwnName may be empty: then none is asked for.
  CBusWire(CBusCarrier& carrier, std::string strAddress, std::string strOwnName);
  virtual ~CBusWire();
  CBusWire(const CBusWire&) = delete;
  CBusWire& operator=(const CBusWire&) = delete;

  // The I/O thread: reads, writes and dispatches what is due, without blocking.
  void Turn(uint64_t u64NowNs) TS_EXCLUDES(m_cs, m_turn);
  // Any thread: when Turn wants to be called at the latest. May lag behind, towards too early.
  uint64_t NextNs() const { return m_u64DueNs.load(); }
  // The I/O thread: over for good; the carrier lets go of it.
  bool HasEnded() const { return m_bEnded; }
  // Any thread: ends the connection at its next turn.
  void Stop();
  // The I/O thread, some time after ScheduleSweep: a server that has been away since the last sweep loses the
  // watch. Lively: it has been there meanwhile. Again: the same, and it is away now.
  enum class ESweep { Quiet, Lively, Again };
  ESweep Sweep() TS_EXCLUDES(m_turn);

  // One thread other than the I/O thread: watches the connection instead of it, reads what comes until
  // something came, u64DueNs is reached or iWake becomes readable, then returns. The watch stays with this
  // thread, which comes back soon; if it does not, the I/O thread takes over. False: not possible now.
  bool Serve(int iWake, uint64_t u64DueNs) TS_EXCLUDES(m_cs, m_turn);

  // Any thread: whether the far side is known to own the GUID.
  bool HasPeer(const GUID& guid) TS_EXCLUDES(m_cs);
  std::vector<std::pair<GUID, std::string>> Peers() TS_EXCLUDES(m_cs);

 protected:
  // Hooks of the kind of connection. OnReady: the names are known and the own one is granted.
  virtual int OnOpened() { return 0; }
  virtual void OnReady() {}
  virtual void OnRefused(uint32_t /*uiResult*/) {}
  virtual void OnLost(const char* /*pszReason*/) {}
  virtual void OnOwnerNew(const char* /*pszOwner*/) {}
  virtual void OnOwnerGone(const char* /*pszOwner*/) {}
  virtual void OnUnserved() {}  // a thread that waits in Serve is to come out
  virtual void Work(uint64_t /*u64NowNs*/) {}
  virtual uint64_t WorkDueNs() { return kNever; }
  // Writes what is queued; on any thread, so a bounded number. True: the rest is for the I/O thread.
  virtual bool WriteSome() noexcept { return false; }

  // Any thread: what was queued is written by this thread, or by the one that has the turn.
  void Write() TS_EXCLUDES(m_cs, m_turn);
  // The watch goes back to the I/O thread until the server asks for it again.
  void Unserve() { m_eServe.store(EServe::No); }
  void MayServe(bool bMay) { m_bMayServe.store(bMay); }

  sd_bus* Bus() const { return m_pBus; }
  bool IsReady() const { return m_bReady; }
  // Whether a further message would go straight to the socket.
  bool CanWrite() const;
  // The message is complete: sends it. Takes its reply slot with pfnReply, if given.
  int Call(const char* pszDestination, const char* pszPath, const char* pszInterface, const char* pszMember,
           sd_bus_message_handler_t pfnReply, uint64_t* pu64Serial, const char* pszText);
  static int OnMatchAdded(sd_bus_message* pMessage, void* pSelf,
                          sd_bus_error* pError);       // userdata: CBusWire*
  void Shut(const char* pszReason) TS_EXCLUDES(m_cs);  // closes; another attempt follows
  void End(const char* pszReason);                     // closes for good
  void ReleaseName(sd_bus_message_handler_t pfnReleased);

  CBusCarrier& m_carrier;
  CCritSec m_cs;
  CBusOwners m_owners TS_GUARDED_BY(m_cs);

 private:
  enum class EServe : uint32_t { No, Waiting, Away };

  void TurnHeld(uint64_t u64NowNs) TS_REQUIRES(m_turn) TS_EXCLUDES(m_cs);
  bool Process(int iMost);
  void Publish(bool bExact);
  void GiveTurn() TS_RELEASE(m_turn);
  void WriteHeld() TS_REQUIRES(m_turn);
  bool BeginServe() TS_EXCLUDES(m_turn);
  bool Linger(pollfd (&fds)[2]);
  bool ReadTurn() TS_EXCLUDES(m_turn);
  void Open(uint64_t u64NowNs);
  int Begin();
  void Watch();
  void Fail(const char* pszReason);
  void AskName();
  void SetOwner(const GUID& guid, const char* pszOwner) TS_EXCLUDES(m_cs);
  static int OnOwnerChanged(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static int OnNames(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static int OnOwner(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);
  static int OnNameAnswer(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError);

  const std::string m_strAddress;
  const std::string m_strOwnName;
  sd_bus* m_pBus = nullptr;
  int m_iFd = -1;
  uint32_t m_uiEvents = 0;
  bool m_bReady = false;
  bool m_bEnded = false;
  std::atomic<bool> m_bStop{false};
  std::atomic<uint64_t> m_u64DueNs{0};
  CBusTurn m_turn;

  std::atomic<bool> m_bMayServe{false};
  std::atomic<EServe> m_eServe{EServe::No};  // to and from No with the turn only
  std::atomic<uint32_t> m_uiServed{0};       // times that the server went away
  uint32_t m_uiSwept = 0;                    // the same, at the last sweep; the I/O thread's
  int m_iServedFd = -1;                      // the server's
  CBusLinger m_linger;                       // the server's
  bool m_bReadLast = false;                  // the server's: its last look found something
  std::string m_strFailure;  // a handler's reason to close; acted upon when sd-bus has returned
  std::map<uint64_t, GUID> m_asked;
  uint64_t m_u64RetryNs = 0;
  uint64_t m_u64PauseNs = 0;
  uint64_t m_u64SetupDueNs = kNever;
};
