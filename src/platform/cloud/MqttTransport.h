// One MQTT 3.1.1 session on one connection, as narrow as the link needs it, so that another engine can take
// its place. Everything is called on the I/O thread, and events come on it, from inside OnIo and OnTick;
// Open, Close and the destructor must not be called from inside an event.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zxcloud {

enum class EMqttFailure : uint8_t {
  Network,  // also time-outs and protocol errors: another address may do
  Tls,
  Refused  // by the broker: identifier, credentials, authorisation
};

class IMqttEvents {
 public:
  virtual ~IMqttEvents() = default;
  virtual void OnTcpUp() = 0;
  virtual void OnConnack() = 0;     // accepted; subscription and status are on their way
  virtual void OnSubscribed() = 0;  // the session is in full use
  // The session has ended, whatever its stage; nothing follows until the next Open.
  virtual void OnClosed(EMqttFailure eFailure, const std::string& strReason) = 0;
  virtual void OnAck(uint64_t u64Token) = 0;
  virtual void OnPush(std::string_view svTopic, std::string_view svPayload) = 0;
  virtual void OnAlive() = 0;  // the far side has sent something or taken something that waited
};

struct _MqttOpen {
  std::string strIp;    // literal
  std::string strHost;  // the name that the certificate must carry
  uint16_t wPort = 0;
  bool bPlain = false;
  std::string strClientId;
  std::string strSubscribe;      // QoS 1; empty: no subscription, and the broker keeps no session
  std::string strAlsoSubscribe;  // beside it; empty: nothing
  std::string strStatusTopic;    // retained; also the topic of the will; empty: neither
  int iKeepAliveSec = 30;        // 0: none
};

class IMqttTransport {
 public:
  virtual ~IMqttTransport() = default;
  // False with strError set: no event follows. An open session is closed first.
  virtual bool Open(const _MqttOpen& open, EMqttFailure& eFailure, std::string& strError) = 0;
  // QoS 1. The token (not 0) comes back in OnAck. False: the session has ended; the next OnIo reports it.
  virtual bool Publish(uint64_t u64Token, const std::string& strTopic, std::string_view svPayload) = 0;
  // bPolite marks the machine offline first; without it the will does. No event follows.
  virtual void Close(bool bPolite) = 0;

  virtual int Descriptor() const = 0;  // -1 while closed
  virtual bool WantWrite() const = 0;
  virtual void OnIo(bool bReadable, bool bWritable, bool bError) = 0;
  // Keep-alive; to be called at least every TickMs (0: never).
  virtual void OnTick() = 0;
  virtual uint32_t TickMs() const = 0;
  virtual std::string LocalEnd() const = 0;  // "ip:port" of the connection
  virtual std::string RemoteIp() const = 0;
  virtual uint16_t RemotePort() const = 0;
};

}  // namespace zxcloud
