// Ids from sources: salted, one-way, and the same for the same machine, key and library generation. The
// derivation is documented in docs/machine-id.md and never changes; a new one gets a new label.
// Threads: any; pure apart from the reads of CMidSources.
#pragma once

#include <string>

#include "platform/mid/MidSources.h"

class CMidDerive {
 public:
  // strKey: the caller's salt, may be empty and hold any bytes.
  CMidDerive(const CMidSources& sources, std::string strKey);

  // 32 lower-case hex characters; empty when the source (for Mid and Mid2: every source) is missing, or when
  // the hash failed.
  std::string Mid() const;   // serial and disk, else the first of MAC, machine id, any adapter
  std::string Mid2() const;  // serial, disk and MAC, else the first of machine id, any adapter
  std::string Sn() const;
  std::string Disk() const;
  std::string Mac() const;

 private:
  std::string Hash(const std::string& strName, const std::string& strFacts) const;
  std::string Single(const std::string& strName, const std::string& strValue) const;
  std::string Fallback(const std::string& strName) const;

  const CMidSources& m_sources;
  std::string m_strKey;
};
