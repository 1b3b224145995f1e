// Listens to a bus as its daemon shows it to root and to the user it runs as. One thread.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace zxctl {

struct _BusEvent {
  std::string strFrom, strTo;  // GUIDs of components, else the daemon's own names
  std::string strWhat;
};

class CBusMonitor {
 public:
  CBusMonitor() = default;
  ~CBusMonitor();
  CBusMonitor(const CBusMonitor&) = delete;
  CBusMonitor& operator=(const CBusMonitor&) = delete;

  // 0, or a negative errno with strError set. Blocks for the first questions only.
  int Open(const std::string& strAddress, std::string& strError);
  int Descriptor() const { return sd_bus_get_fd(m_pBus); }
  // Handles all that has come. Negative: the bus is gone.
  int Read(const std::function<void(const _BusEvent&)>& fnEvent);

 private:
  int LearnNames(sd_bus* pBus);
  bool Take(sd_bus_message* pMessage, _BusEvent& event);
  bool TakeOwner(sd_bus_message* pMessage, _BusEvent& event);
  bool TakeReply(sd_bus_message* pMessage, _BusEvent& event);
  std::string WhoIs(const char* pszName) const;

  sd_bus* m_pBus = nullptr;
  std::map<std::string, std::string> m_mapOwners;  // unique name -> GUID
  std::map<std::string, std::string> m_mapCalls;   // "unique name/serial" of an open call -> what it was
};

}  // namespace zxctl
