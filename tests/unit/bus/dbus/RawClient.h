// A client of the daemon that keeps none of the bus's rules: whatever a hostile program can say to sd-bus.
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

#include "platform/bus/BusNames.h"

class CRawClient {
 public:
  explicit CRawClient(const std::string& strAddress) {
    sd_bus_new(&m_pBus);
    sd_bus_set_address(m_pBus, strAddress.c_str());
    sd_bus_set_bus_client(m_pBus, 1);
    m_iResult = sd_bus_start(m_pBus);
    if (m_iResult >= 0)
      sd_bus_get_unique_name(m_pBus, &m_pszUnique);
  }
  ~CRawClient() { sd_bus_close_unref(m_pBus); }
  CRawClient(const CRawClient&) = delete;
  CRawClient& operator=(const CRawClient&) = delete;

  bool Own(const GUID& guid) { return sd_bus_request_name(m_pBus, BusNameOf(guid).c_str(), 0) >= 0; }
  const char* Unique() const { return m_pszUnique; }
  sd_bus* Bus() const { return m_pBus; }

  // "" and the status, or the name of the error.
  std::string Send(const GUID& guidTo, uint32_t uiType, const std::string& strData,
                   int32_t* piStatus = nullptr, const char* pszSignature = "ay") {
    sd_bus_message* pCall = nullptr;
    sd_bus_message_new_method_call(m_pBus, &pCall, BusNameOf(guidTo).c_str(), BusPathOf(uiType).c_str(),
                                   kBusInterface, "Send");
    if (std::string(pszSignature) == "ay")
      sd_bus_message_append_array(pCall, 'y', strData.data(), strData.size());
    else
      sd_bus_message_append(pCall, pszSignature, strData.c_str());
    return Finish(pCall, piStatus);
  }
  std::string Finish(sd_bus_message* pCall, int32_t* piStatus = nullptr) {
    sd_bus_error error{};
    sd_bus_message* pReply = nullptr;
    const int iResult = sd_bus_call(m_pBus, pCall, 20000000, &error, &pReply);
    std::string str;
    if (iResult < 0)
      str = error.name != nullptr ? error.name : "errno " + std::to_string(-iResult);
    else if (piStatus != nullptr)
      sd_bus_message_read(pReply, "i", piStatus);
    sd_bus_error_free(&error);
    sd_bus_message_unref(pReply);
    sd_bus_message_unref(pCall);
    return str;
  }
  void Broadcast(uint32_t uiType, const std::string& strData) {
    sd_bus_message* pSignal = nullptr;
    sd_bus_message_new_signal(m_pBus, &pSignal, BusPathOf(uiType).c_str(), kBusInterface, "Broadcast");
    sd_bus_message_append_array(pSignal, 'y', strData.data(), strData.size());
    sd_bus_send(m_pBus, pSignal, nullptr);
    sd_bus_flush(m_pBus);
    sd_bus_message_unref(pSignal);
  }

 private:
  sd_bus* m_pBus = nullptr;
  const char* m_pszUnique = nullptr;
  int m_iResult = 0;
};
