// IMqttTransport on libmosquitto. Each session is a fresh library object: what is unacknowledged is sent
// again by the owner, so nothing of the library's own lists outlives a connection.
// Note: libmosquitto sets SIGPIPE to ignored in the process.
#pragma once

#include <mosquitto.h>

#include <memory>
#include <string>
#include <string_view>

#include "platform/cloud/AckTable.h"
#include "platform/cloud/MqttTransport.h"
#include "platform/cloud/TlsPolicy.h"

namespace zxcloud {

class CMosquittoTransport : public IMqttTransport {
 public:
  CMosquittoTransport(const _TlsSettings& tls, IMqttEvents& events);
  ~CMosquittoTransport() override;
  CMosquittoTransport(const CMosquittoTransport&) = delete;
  CMosquittoTransport& operator=(const CMosquittoTransport&) = delete;

  bool Open(const _MqttOpen& open, EMqttFailure& eFailure, std::string& strError) override;
  bool Publish(uint64_t u64Token, const std::string& strTopic, std::string_view svPayload) override;
  void Close(bool bPolite) override;
  int Descriptor() const override;
  bool WantWrite() const override;
  void OnIo(bool bReadable, bool bWritable, bool bError) override;
  void OnTick() override;
  uint32_t TickMs() const override;
  std::string LocalEnd() const override;
  std::string RemoteIp() const override { return m_open.strIp; }
  uint16_t RemotePort() const override { return m_open.wPort; }

 private:
  struct _Free {
    void operator()(mosquitto* p) const { mosquitto_destroy(p); }
  };

  bool Configure(std::string& strError);
  void TuneSocket() const;
  bool Handshaking() const;
  int Read();
  int SocketError() const;
  bool EndedInHandshake(bool bError) const;
  void EnterUse();
  void Subscribe();
  void Ended(int iResult, int iErrno);
  bool Deliver();

  static void OnConnect(mosquitto* p, void* pThis, int iCode);
  static void OnSubscribe(mosquitto* p, void* pThis, int iId, int iCount, const int* pGranted);
  static void OnPublish(mosquitto* p, void* pThis, int iId);
  static void OnMessage(mosquitto* p, void* pThis, const mosquitto_message* pMessage);
  static void OnLog(mosquitto* p, void* pThis, int iLevel, const char* pszText);

  const _TlsSettings& m_tls;
  IMqttEvents& m_events;
  _MqttOpen m_open;
  _TlsVerdict m_verdict;
  TSslCtx m_pCtx;
  std::unique_ptr<mosquitto, _Free> m_pMosq;
  CAckTable m_acks;
  int m_iOpenErrno = 0;  // what Open met and the socket will not say again
  bool m_bTcpUp = false;
  bool m_bSubscribed = false;
  int m_iConnack = -1;  // -1: not yet
  bool m_bConnackNews = false;
  int m_iSubscribeId = -1;
  bool m_bSubscribedNews = false;
  bool m_bClosed = true;
  bool m_bClosedNews = false;
  EMqttFailure m_eFailure = EMqttFailure::Network;
  std::string m_strReason;
  std::string m_strTlsText;  // the library's last TLS error line
};

}  // namespace zxcloud
