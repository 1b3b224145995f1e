// The private bus daemon as a child process: its socket, its start with the host's death signal, its output,
// its end. The socket is made and kept here and handed over, so that the daemon may run without rights and
// clients meet the same socket after a restart.
//
// One thread makes all calls and must live as long as the daemon: the kernel ties the death signal to it.
// Nothing here logs. Blocking: Stop only.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "platform/text/PString.h"

struct _BusDaemonSettings {
  CPString strProgram;  // absolute
  CPString strConfig;   // its configuration file, absolute
  CPString strSocket;   // absolute, at most kMaxSocketPath bytes
  CPString strUser;     // run as; empty: as the host. Only root can change it
};

class CBusDaemon {
 public:
  static constexpr size_t kMaxSocketPath = 107;

  explicit CBusDaemon(_BusDaemonSettings settings);
  ~CBusDaemon();  // stops at once what still runs
  CBusDaemon(const CBusDaemon&) = delete;
  CBusDaemon& operator=(const CBusDaemon&) = delete;

  // Makes the socket (0666: the daemon's policy decides who gets on, not the file's mode); one that is left
  // over from a crash is replaced. Nothing to do when it is there. False with strError.
  bool Listen(CPString& strError);
  // Starts the program on the socket. False with strError; then nothing runs.
  bool Start(CPString& strError);
  bool IsRunning() const { return m_iPid > 0; }
  pid_t Pid() const { return m_iPid; }
  // Readable when it has ended; -1 when it does not run.
  int ExitFd() const { return m_iPidFd; }
  // Takes its end when it has come. strHow: "exit 1", "signal 9".
  bool Reap(CPString& strHow);
  // Readable while it has written something; stays open until its end was read. -1: none.
  int OutputFd() const { return m_iOutputFd; }
  // One read of the output; empty when nothing more has come yet. Closes at the end of the output.
  std::string ReadOutput();
  // SIGTERM, after uiGraceMs SIGKILL; reaped when it returns.
  void Stop(uint32_t uiGraceMs);
  // Closes and removes the socket.
  void Unlisten();

 private:
  const _BusDaemonSettings m_settings;
  int m_iListenFd = -1;
  pid_t m_iPid = -1;
  int m_iPidFd = -1;
  int m_iOutputFd = -1;
};
