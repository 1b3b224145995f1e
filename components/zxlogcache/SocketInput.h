// One Unix socket that takes records: datagrams, or connections with a stream of lines or counted frames. Who
// sends is known from the kernel (SO_PEERCRED, SCM_CREDENTIALS) and checked before anything is kept.
//
// One thread. Nothing blocks: Ready is called when Fd() is readable, and reads what is there up to a budget.
// What was read belongs to the caller's chunks; a client that asked for it is told "ok <records>" once
// Committed says that they are stored. While the caller does not read, senders wait in the kernel.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "Records.h"
#include "Settings.h"
#include "platform/log/Log.h"

namespace zxlogcache {

class CSocketInput {
 public:
  CSocketInput(const _SocketSettings& settings, uint32_t uiMaxRecord, uint32_t uiMaxClients, HLog hLog);
  ~CSocketInput();  // closes everything and removes the socket
  CSocketInput(const CSocketInput&) = delete;
  CSocketInput& operator=(const CSocketInput&) = delete;

  // Makes the socket; a leftover of an earlier life is replaced, one that somebody listens on is not. False:
  // errno says why; try again later.
  bool Open();
  bool Told() { return std::exchange(m_bTold, true); }  // whether a failed Open was logged already
  bool IsOpen() const { return m_hListen >= 0; }
  int Fd() const { return m_hEpoll; }
  void Ready(CChunks& chunks, uint64_t u64Budget);
  void Committed();
  uint64_t Refused() const { return m_u64Refused; }  // senders and records that were not let in

 private:
  struct _Client {
    explicit _Client(CFramer f) : framer(std::move(f)) {}
    CFramer framer;
    uint64_t u64Taken = 0;   // records
    uint64_t u64Stored = 0;  // of them told to the client
    bool bEnd = false;       // nothing more comes; closed once the last answer is out
  };

  void Accept();
  void ReadDatagrams(CChunks& chunks, uint64_t u64Budget);
  bool ReadDatagram(std::string& strBuffer, CChunks& chunks);
  bool ReadClient(int hClient, _Client& client, CChunks& chunks);  // false: close it now
  bool Answer(int hClient, _Client& client) const;                 // false: it has gone
  void CloseClient(int hClient);
  bool Allowed(uid_t uid) const;
  void Refuse(const char* pszWhy, uint64_t u64Value);
  bool Watch(int hFd) const;

  const _SocketSettings m_settings;
  const uint32_t m_uiMaxRecord;
  const uint32_t m_uiMaxClients;
  const HLog m_hLog;
  bool m_bTold = false;
  int m_hListen = -1;
  int m_hEpoll = -1;
  std::map<int, _Client> m_clients;
  uint64_t m_u64Refused = 0;
};

}  // namespace zxlogcache
