// The cloud's connection to the MQTT broker: one thread that receives uploads and states, hands them to the
// service, and publishes commands.
//
// At least once, both ways: a message is acknowledged to the broker only after the service has it on disk
// (the library's packets are queued while we read and written after the commit, so that one commit serves
// everything that arrived together); a command leaves the state "publishing" only with the broker's
// acknowledgement. The session is durable: what arrives while the cloud is away waits in the broker.
// The library object lives as long as one connection, so it carries nothing over to the next: what was not
// acknowledged is in the database, in the broker, or among the confirmations to be told again.
//
// Nothing waits for the network without also waiting for Stop: names are looked up on a thread of their own,
// and the connection is made without blocking. Each address of a name is tried in turn.
//
// Threads: Check, Start and Stop from main; Wake and IsUp from any. Only the link's thread touches the
// library.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "BrokerTls.h"
#include "CloudConfig.h"
#include "CloudService.h"
#include "ToldConfirms.h"

struct mosquitto;
struct mosquitto_message;

namespace zxcloudd {

inline constexpr int kBrokerWindow = 64;  // commands the broker has not acknowledged

class CBrokerLink {
 public:
  CBrokerLink(CCloudService& service, const _BrokerConfig& config);
  ~CBrokerLink();
  CBrokerLink(const CBrokerLink&) = delete;
  CBrokerLink& operator=(const CBrokerLink&) = delete;

  // False: the configuration cannot work (strError says why). Start checks too. An unreachable broker is no
  // failure.
  bool Check(std::string& strError);
  bool Start(std::string& strError);
  void Stop();  // waits for the thread, which never blocks on the network
  void Wake();  // a command may be waiting
  bool IsUp() const { return m_bUp.load(std::memory_order_relaxed); }

 private:
  // Making a connection (BrokerDial.cpp).
  bool Setup(std::string& strError);
  bool SetupTls(const std::string& strHost, std::string& strError);
  bool Connect();
  std::vector<std::string> LookUp(const std::string& strHost, std::string& strError);
  bool Dial(const std::string& strIp, int iPort, std::string& strError);
  bool AwaitTcp(std::string& strError);
  // Waits for one event of a descriptor; false on time-out and on stop.
  bool Await(int iFd, short nEvents, uint64_t u64Until);
  bool Handshaking() const;
  bool EndedInHandshake() const;
  std::string FailureText(int iCode) const;

  void Discard();
  void Loop();
  void ServeConnection();
  bool TurnConnection();
  bool Subscribe();
  bool WaitForWork(int iMs, bool& bReadable);
  bool ReceiveBatch();
  bool CommitBatch();
  bool PublishConfirms(std::vector<_Confirm> listConfirms);
  bool PublishConfirm(_Confirm confirm);
  bool PublishWaiting();
  bool OnUp();
  void Lost(const std::string& strWhy);
  bool Pause(int iMs);  // false: stopping
  void DrainWake();

  static int OnVerify(int iAccepted, X509_STORE_CTX* pStore);
  static void OnConnect(mosquitto*, void* pThis, int iCode);
  static void OnSubscribe(mosquitto*, void* pThis, int iMid, int iCount, const int* pGranted);
  static void OnMessage(mosquitto*, void* pThis, const mosquitto_message* pMessage);
  static void OnPublish(mosquitto*, void* pThis, int iMid);

  CCloudService& m_service;
  const _BrokerConfig m_config;
  std::thread m_thread;
  int m_iWakeFd = -1;
  std::atomic<bool> m_bStop{false};
  std::atomic<bool> m_bUp{false};

  // The link's thread only.
  mosquitto* m_pMosq = nullptr;
  TSslCtx m_pCtx;            // of this connection; null: plain text
  long m_lVerdict = 0;       // X509_V_ERR_... that it met; 0: none
  size_t m_uAddress = 0;     // the next one to try
  unsigned m_uFailures = 0;  // in a row
  std::minstd_rand m_random;
  int m_iConnack = -1;  // -1: not yet
  bool m_bSubscribed = false;
  bool m_bSubscribeRefused = false;
  bool m_bMayWait = false;  // commands may wait in the store
  uint64_t m_u64UpSince = 0;
  std::vector<_BrokerMessage> m_listBatch;  // received, not yet committed
  size_t m_uBatchBytes = 0;
  std::vector<int64_t> m_listPushed;               // acknowledged by the broker, not yet noted
  std::unordered_map<int, int64_t> m_mapInFlight;  // library's message id to command
  CToldConfirms m_confirms;
  std::vector<std::string> m_listReasons;  // logged since the connection was lost
};

}  // namespace zxcloudd
