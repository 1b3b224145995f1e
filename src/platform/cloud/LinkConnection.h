// One MQTT connection at work: its transport, its window, its place in the epoll and its signs of life.
// When it is dialled and what follows its end is decided by its owner. Everything on the I/O thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/cloud/CloudPorts.h"
#include "platform/cloud/Confirms.h"
#include "platform/cloud/DrainRate.h"
#include "platform/cloud/LinkMachine.h"
#include "platform/cloud/LinkWindow.h"
#include "platform/cloud/MqttTransport.h"
#include "platform/cloud/Outbox.h"
#include "platform/cloud/Waiters.h"

namespace zxcloud {

using TTransports = std::function<std::unique_ptr<IMqttTransport>(IMqttEvents&)>;

struct _LinkFailure {
  EMqttFailure eKind = EMqttFailure::Network;
  std::string strReason;
};

class CLinkConnection : private IMqttEvents {
 public:
  struct _Ports {
    const _LinkTimes& times;
    IClock& clock;
    IOutbox& outbox;
    CWaiters& waiters;
    CConfirms& confirms;                                             // shared by the connections of a link
    CLinkMachine& machine;                                           // learns how far an attempt has come
    std::function<void(std::string_view, std::string_view)> fnPush;  // topic, payload
  };

  CLinkConnection(_Ports ports, const TTransports& fnTransport);
  ~CLinkConnection() override = default;
  CLinkConnection(const CLinkConnection&) = delete;
  CLinkConnection& operator=(const CLinkConnection&) = delete;

  void Open(const _MqttOpen& open, const std::string& strUpPrefix);  // failures come by TakeFailure
  void Close(bool bPolite);  // what is under way goes back to the outbox
  void Fail(EMqttFailure eKind, const std::string& strReason);
  bool HasFailure() const { return m_failure.has_value(); }
  std::optional<_LinkFailure> TakeFailure();
  bool IsReady() const { return m_bReady; }
  void Confirmed(uint64_t u64Seq);         // no acknowledgement of the broker has to be waited for any more
  bool TcpUp() const { return m_bTcpUp; }  // the last attempt came that far
  const IMqttTransport& Transport() const { return *m_pTransport; }

  // Sends what the window admits, a limited number of bytes per call. True: the limit has ended it.
  bool Pump(const _WindowSize& size, ELane eLane, CDrainRate& drain);
  void Tick();
  uint32_t TickMs() const { return m_pTransport->TickMs(); }
  // Notes a failure when acknowledgements or any sign of life stay out for too long.
  void CheckLife();
  uint64_t LifeDeadline() const;  // 0: none

  // The epoll watches another socket than the connection's, or one that is gone: it is to be made anew.
  bool IsStale() const { return m_bNewSocket || (m_fdWatched >= 0 && m_pTransport->Descriptor() < 0); }
  void Forget() { m_fdWatched = -1; }
  void Watch(int fdEpoll, uint32_t uTag);
  void OnIo(uint32_t uEvents);

 private:
  void OnTcpUp() override;
  void OnConnack() override;
  void OnSubscribed() override;
  void OnClosed(EMqttFailure eFailure, const std::string& strReason) override;
  void OnAck(uint64_t u64Token) override;
  void OnPush(std::string_view svTopic, std::string_view svPayload) override;
  void OnAlive() override;

  bool Publish(const _OutItem& item);

  const _Ports m_ports;
  const std::unique_ptr<IMqttTransport> m_pTransport;
  CLinkWindow m_window;
  std::optional<_LinkFailure> m_failure;
  std::string m_strUpPrefix;
  std::string m_strTopic;  // kept for its capacity
  int m_iKeepAliveSec = 0;
  bool m_bTcpUp = false;
  bool m_bReady = false;
  bool m_bNewSocket = false;
  int m_fdWatched = -1;
  uint32_t m_uInterest = 0;
  uint64_t m_u64Alive = 0;  // when the far side last gave a sign of life
};

}  // namespace zxcloud
