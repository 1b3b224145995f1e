// A private dbus-daemon in a temporary directory, with the limits of a real one.
#pragma once

#include <memory>
#include <string>

#include "Child.h"
#include "support/TempHome.h"

class CDaemon {
 public:
  // strPolicy: further <policy> elements. Without bOpen the default policy refuses everything but the daemon
  // itself; with it everybody may connect, own and send.
  explicit CDaemon(bool bOpen = true, const std::string& strPolicy = "");

  bool Start();  // also again after Kill
  void Kill();
  void Stop() { m_child->Stop(); }
  void Continue() { m_child->Signal(SIGCONT); }
  std::string Address() const { return "unix:path=" + m_strSocket; }
  pid_t Pid() const { return m_child->Pid(); }

 private:
  CTempHome m_home;
  std::string m_strSocket;
  std::string m_strConfig;
  std::unique_ptr<CChild> m_child;
};
