// What the benches between processes share: their programs and the asking component.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "BusWindow.h"
#include "platform/bus/zxbus.h"

extern std::string g_strSelf, g_strAddress;  // this program, and the daemon's address

inline constexpr char kAskerGuid[] = "00000001-0000-4000-8000-000000000001";
GUID PeerGuid(int iNumber);

// A program of the bench; started when it says so, killed with the object.
class CProcess {
 public:
  explicit CProcess(const std::vector<std::string>& args);
  ~CProcess();
  CProcess(const CProcess&) = delete;
  CProcess& operator=(const CProcess&) = delete;
  void Stop() const;  // SIGSTOP; returns once it has stopped

 private:
  pid_t m_pid = -1;
  int m_iOut = -1;
};
void SayReady();

// This process on the component bus.
class CJoined {
 public:
  CJoined();
  ~CJoined();
  CJoined(const CJoined&) = delete;
  CJoined& operator=(const CJoined&) = delete;
  IBusContext* Bus() const { return m_pBus; }

 private:
  IBusContext* m_pBus = nullptr;
};

// Programs of the kind "bus": answer requests. "flood": sends to component 3 as fast as it is let.
int RunBusPeer(const char* pszAddress, int iNumber);
int RunFlood(const char* pszAddress, int iNumber);
std::unique_ptr<CProcess> MakePeer(const char* pszKind, int iNumber);
