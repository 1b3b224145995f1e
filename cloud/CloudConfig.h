// The configuration of one cloud: a JSON file, described in docs/zxcloudd.md. Read once at start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zxcloudd {

struct _Address {
  std::string strHost;
  int iPort = 0;  // 0 (listeners only): any free port
};
// "host:port", "[v6]:port"; false when the port is missing or not a number.
bool ParseAddress(const std::string& strText, _Address& address);
bool IsLoopback(const std::string& strHost);  // by its text: 127.0.0.0/8, ::1, localhost
std::string AddressText(const _Address& address);

struct _AgentServerConfig {
  _Address listen{"127.0.0.1", 0};
  std::string strCertFile, strKeyFile;
  std::string strClientCaFile;      // not empty: every agent must show a certificate of this CA
  bool bCertNamesMid = false;       // its common name must be the mid it speaks for
  int iThreads = 32;                // a kept connection occupies one of them
  int iConnections = 1024;          // served and waiting; further ones are closed at once
  int iIdleSec = 5;                 // a kept connection is closed after this long without a request
  size_t uMaxBodyBytes = 9u << 20;  // one upload
};

struct _OperatorConfig {
  _Address listen{"127.0.0.1", 0};  // loopback only
  std::string strTokenFile;         // default <state_dir>/operator.token
};

struct _BrokerConfig {
  std::vector<_Address> listAddresses;  // empty: no long connections
  std::string strCaFile, strCertFile, strKeyFile;
  std::string strUser, strPasswordFile;
  std::string strClientId = "zxcloudd";
  int iKeepaliveSec = 30;
  bool bPlaintextLoopback = false;
};

// What agents are told by /v1/tconf.
struct _TconfConfig {
  std::string strPcid;  // "product,combo,number" joined by "|"
  std::string strShort, strLong, strLb;
  int iKeepaliveSec = 30, iSpreadSec = 60, iRetryMaxSec = 300, iRefreshSec = 3600, iMaxMessageBytes = 8 << 20;
  bool bConfirm = false;  // uploads over the broker are confirmed to the machine when they are on disk
  int iDrainPerSec = 100, iConnections = 2;
};

struct _PollConfig {
  int iPeriodSec = 60;
  int iMaxCommands = 16;  // in one answer
  int iReofferSec = 120;  // an unacknowledged command is offered again after this long
  int iMaxOffers = 5;     // then it counts as expired
};

inline constexpr int kUploadIdsAlways = 1000;

// Bounds of what agents and operators can make the cloud keep.
struct _LimitConfig {
  int iAgents = 10000;
  int iPendingPerAgent = 1000;   // commands not yet acknowledged
  int iFinishedPerAgent = 1000;  // older finished commands are forgotten
  int iUploadsPerAgent = 1000;   // bodies kept; older ones are dropped, their ids stay
  int64_t i64UploadBytesPerAgent = 64ll << 20;
  // How far back a repeat is recognised: so many uploads, and so long; the newest kUploadIdsAlways are
  // remembered however old they are, so that a jump of the clock forgets nothing that can still be repeated.
  int iUploadIdsPerAgent = 20000;
  int iUploadIdDays = 30;
  // The database: before it grows beyond, the machines with the most in it lose their oldest bodies, then the
  // oldest ids go.
  int64_t i64StoreBytes = 8ll << 30;
};

struct _CloudConfig {
  std::string strStateDir;
  std::string strLogHome;  // empty: lines go to stderr
  _AgentServerConfig agent;
  _OperatorConfig op;
  _BrokerConfig broker;
  _TconfConfig tconf;
  _PollConfig poll;
  _LimitConfig limits;
};

// Reads and checks everything. Relative paths are relative to the file's directory. On failure strError
// names the member and what is wrong with it. A member nobody knows is an error, so that a typing mistake
// is not a silent default.
bool LoadCloudConfig(const std::string& strFile, _CloudConfig& config, std::string& strError);
// The same from a text; strBaseDir (ends in "/") takes the place of the file's directory.
bool ParseCloudConfig(const std::string& strJson, const std::string& strBaseDir, _CloudConfig& config,
                      std::string& strError);

}  // namespace zxcloudd
