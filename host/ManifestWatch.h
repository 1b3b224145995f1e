// Says when something below etc/coms/client may have changed (inotify on the directories down to each
// component's). It never says what: whoever is told reads everything again. One thread. Nothing here logs.
#pragma once

#include "platform/text/PString.h"

class CManifestWatch {
 public:
  // strHome ends in "/".
  explicit CManifestWatch(CPString strHome);
  ~CManifestWatch();
  CManifestWatch(const CManifestWatch&) = delete;
  CManifestWatch& operator=(const CManifestWatch&) = delete;

  // Watches what is there now; call it before each reading, so that no change falls between the two.
  void Arm();
  // Not everything could be watched (the kernel's limits): look again from time to time.
  bool IsComplete() const { return m_bComplete; }
  // Readable when there are events; -1: none can come.
  int Fd() const { return m_iFd; }
  // Takes the events; true when one of them matters.
  bool TakeEvents();

 private:
  int Add(const CPString& strDirectory);

  const CPString m_strHome;
  int m_iFd = -1;
  int m_iEtc = -1;   // watch of etc/, where only "coms" matters
  int m_iComs = -1;  // watch of etc/coms/, where only "client" does
  bool m_bComplete = false;
};
