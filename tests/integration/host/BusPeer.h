// Clients of the private bus as other processes and other users: forked children that speak D-Bus by
// themselves, so that what the daemon grants is seen without any code of ours in between.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

struct sd_bus;

// What a child says to its parent: one line.
using FnSay = std::function<void(const std::string&)>;

inline constexpr uid_t kSelf = static_cast<uid_t>(-1);  // stay who we are

// What a D-Bus call ended with: "ok", or the name of the error.
class CPeerBus {
 public:
  explicit CPeerBus(const std::string& strAddress);
  ~CPeerBus();
  CPeerBus(const CPeerBus&) = delete;
  CPeerBus& operator=(const CPeerBus&) = delete;

  const std::string& Connected() const { return m_strConnected; }  // "ok" or an errno's name
  std::string Own(const std::string& strName);
  // An empty Send of the type; "status <n>" when it was answered.
  std::string Send(const std::string& strName, uint32_t uiType);
  std::string Broadcast(uint32_t uiType);
  std::string CallDaemon(const char* pszInterface, const char* pszMember, const char* pszSignature = "",
                         const char* pszArgument = nullptr);
  // Says "listening", then the type of every broadcast; until killed.
  [[noreturn]] void Listen(const FnSay& say);
  // Answers every Send with the status; until killed.
  [[noreturn]] void Serve(int iStatus);

 private:
  sd_bus* m_pBus = nullptr;
  std::string m_strConnected;
};

// Runs the function in a child under that uid (and a gid of the same number) and returns its text.
std::string RunAs(uid_t uid, const std::function<std::string()>& fn);

// A child under that uid that runs the function until the end of the scope.
class CPeerProcess {
 public:
  // Returns when the child has said its first line.
  CPeerProcess(uid_t uid, const std::function<void(const FnSay&)>& fn);
  ~CPeerProcess();
  CPeerProcess(const CPeerProcess&) = delete;
  CPeerProcess& operator=(const CPeerProcess&) = delete;

  const std::string& Ready() const { return m_strReady; }
  std::string Next() const;  // waits for the next line; empty when the child has ended
  pid_t Pid() const { return m_iPid; }

 private:
  pid_t m_iPid = -1;
  int m_iFd = -1;
  std::string m_strReady;
};

// A component under that uid: owns the name (Ready() is "ok") and answers with the status.
std::function<void(const FnSay&)> Component(const std::string& strAddress, const std::string& strName,
                                            int iStatus);
// com.zxagent.bus1.c.g<32 hex> of a GUID's text.
std::string ComponentName(const std::string& strGuid);
