// The assembled cloud: store, service, broker link and listeners, started and stopped in order.
#pragma once

#include <string>

#include "BrokerLink.h"
#include "CloudConfig.h"
#include "CloudService.h"
#include "HttpServer.h"
#include "Store.h"

namespace zxcloudd {

class CDaemon {
 public:
  explicit CDaemon(const _CloudConfig& config);
  ~CDaemon();
  CDaemon(const CDaemon&) = delete;
  CDaemon& operator=(const CDaemon&) = delete;

  // Opens the store, writes the operator token (0600, once; kept over restarts), listens, and writes
  // <state_dir>/zxcloudd.json, from which zxctl learns where the operator interface is.
  bool Start(std::string& strError);
  void Stop();  // idempotent; removes zxcloudd.json
  std::string AgentUrl() const;
  std::string OperatorUrl() const;

 private:
  bool LoadToken(std::string& strError);
  bool WriteRunFile(std::string& strError);

  const _CloudConfig m_config;
  std::string m_strToken;
  CStore m_store;
  CCloudService m_service;
  CBrokerLink m_link;
  CHttpServer m_agentServer;
  CHttpServer m_operatorServer;
  bool m_bRunFile = false;
};

}  // namespace zxcloudd
