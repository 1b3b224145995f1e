// Many links in one process, each the whole of what libzxcloud.so runs for one machine: its threads, its
// sockets, its spool. Threads: one thread calls the methods.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/cloud/CloudLink.h"

namespace zxfleet {

struct _FleetLinkSettings {
  uint32_t uLinks = 500;
  std::string strDir;    // ends in "/", exists; configurations and spools
  std::string strTconf;  // "host:port"
  std::string strCaFile;
  std::string strMidPrefix = "fleet-";
  zxcloud::_LinkTimes times;
};

class CFleetLinks {
 public:
  explicit CFleetLinks(_FleetLinkSettings settings);
  ~CFleetLinks();
  CFleetLinks(const CFleetLinks&) = delete;
  CFleetLinks& operator=(const CFleetLinks&) = delete;

  // Starts them evenly over dwOverMs. False with strError set: what was started is left for Stop.
  bool Start(uint32_t dwOverMs, std::string& strError);
  void Stop();
  // One upload of that many bytes through each link, without waiting for its delivery; how many were
  // accepted.
  uint32_t SendEach(size_t uBytes);
  static uint32_t Connected();     // links whose long connection stands, of all fleets in the process
  static uint64_t WarningLines();  // log lines of warnings and errors so far

 private:
  bool WriteConfig(uint32_t uLink, std::string& strFile) const;

  const _FleetLinkSettings m_settings;
  std::vector<std::unique_ptr<zxcloud::CCloudLink>> m_list;
};

}  // namespace zxfleet
