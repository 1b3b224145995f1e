// The cloud of a fleet under test: an HTTPS and an MQTT door in one thread, enough of both protocols for the
// link, able to go away and to return, and the count of everything that knocks. On free ports of 127.0.0.1.
// Threads: its own ("zxfleetsrv"); the methods from any thread. Never blocks on a client.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "FleetCert.h"
#include "platform/cloud/CloudPorts.h"

namespace zxfleet {

class CFleetServer {
 public:
  enum class EDoor : uint8_t { Short, Long };

  CFleetServer();
  ~CFleetServer();
  CFleetServer(const CFleetServer&) = delete;
  CFleetServer& operator=(const CFleetServer&) = delete;

  // False with strError set: no port, no memory, or the certificate is not usable.
  bool Start(const _FleetCert& cert, std::string& strError);
  void Stop();
  // What GET /v1/tconf answers; to be set before the first client.
  void SetTconf(const std::string& strText) { m_strTconf = strText; }
  uint16_t Port(EDoor eDoor) const { return m_doors[static_cast<size_t>(eDoor)].wPort; }
  void SetAway(bool bAway);  // returns when it is done

  // When clients came to a door, by NowMs of the link's clock; each connection once.
  std::vector<uint64_t> Knocks(EDoor eDoor);
  uint32_t Sessions() const { return m_uSessions.load(); }  // MQTT sessions that stand
  uint64_t Uploads();                                       // different ones that came

 private:
  class CPeer;
  struct _Door {
    int fd = -1;
    uint16_t wPort = 0;
    std::vector<uint64_t> listKnocks;
  };
  struct CCtxFree {
    void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
  };

  bool OpenDoor(_Door& door);
  void CloseDoor(_Door& door);
  void Run();
  void TurnAway(bool bAway);
  void Accept(_Door& door);
  void Handle(int fd, uint32_t uEvents);
  void Watch(int fd, bool bWrite, bool bNew);
  bool Understand(CPeer& peer);
  bool UnderstandHttp(CPeer& peer);
  bool UnderstandMqtt(CPeer& peer);
  void NoteUpload(const std::string& strId);

  zxcloud::CSystemClock m_clock;
  std::unique_ptr<SSL_CTX, CCtxFree> m_pCtx;
  std::string m_strTconf;
  _Door m_doors[2];
  int m_fdEpoll = -1;
  std::map<int, std::unique_ptr<CPeer>> m_peers;
  std::atomic<bool> m_bStop{false};
  std::atomic<bool> m_bWantAway{false};
  std::atomic<bool> m_bAway{false};
  std::atomic<uint32_t> m_uSessions{0};
  std::mutex m_mutex;  // the knocks and the uploads
  std::unordered_set<std::string> m_setUploads;
  std::thread m_thread;
};

}  // namespace zxfleet
