// What the cloud does, independent of how it is reached: answers agents, takes uploads, hands out commands,
// answers operators. HTTP and MQTT only translate to and from it.
//
// Threads: any; every operation blocks on the store. Owned by main; the store and the broker link outlive it
// in the other order (the link calls the service, the service only wakes the link).
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "CloudConfig.h"
#include "Store.h"
#include "Tables.h"

namespace zxcloudd {

struct _Reply {
  int iStatus = 200;
  std::string strBody;
  const char* pszType = "application/json";
  int iRetryAfterSec = 0;  // not 0: sent as Retry-After
};

// One message as the broker delivered it.
struct _BrokerMessage {
  std::string strTopic, strPayload;
};

// What a machine is told about its uploads: "zx1" LF, then a line for each, "+<message id>" when it is on
// disk (now or since an earlier delivery), "-<message id>" when it is refused for good. One that the cloud
// cannot take now has none.
struct _Confirm {
  std::string strMid, strText;
};

class CCloudService {
 public:
  CCloudService(CStore& store, const _CloudConfig& config);

  // Called whenever a command may be waiting for the long connection. Set before any other thread starts.
  void SetPushWaker(std::function<void()> fnWake) { m_fnWake = std::move(fnWake); }
  // How the long connection stands, for status; set before any other thread starts.
  void SetBrokerState(std::function<bool()> fnUp) { m_fnBrokerUp = std::move(fnUp); }

  // For agents over HTTPS. Ids come from the query, the header fields, or both.
  _Reply Tconf(const _TconfIds& ids);
  _Reply Poll(const std::string& strMid, const std::string& strXml);
  _Reply Upload(const std::string& strMid, const std::string& strMessageId, const std::string& strPriority,
                const std::string& strUpload);
  _Reply Health();

  // For the broker link. True: everything that must survive is on disk, so the messages may be acknowledged,
  // and the machines told (listConfirms; empty unless the configuration asks for it).
  bool OnMessages(const std::vector<_BrokerMessage>& listMessages, std::vector<_Confirm>& listConfirms);
  // After (re)connecting nobody is known to be online until the broker repeats its retained states, and
  // commands that the broker did not acknowledge are sent again.
  bool OnBrokerConnected();
  bool TakePushes(int iMax, size_t uMaxBytes, std::vector<_PushItem>& listItems);
  bool OnPushed(const std::vector<int64_t>& listSeq);

  // For operators: JSON in, JSON out (docs/zxcloudd.md).
  _Reply OpPush(const std::string& strJson);
  _Reply OpAgents();
  _Reply OpTrace(const std::string& strID);
  _Reply OpCommands(const std::string& strMid, const std::string& strState, int iMax);
  _Reply OpUploads(const _UploadFilter& filter);
  _Reply OpUpload(int64_t i64Seq);
  _Reply OpStatus();

 private:
  // What became of one upload.
  enum class EUpload { Stored, Repeat, Bad, Full };
  bool StoreUpload(CSqlite& db, const _NewUpload& upload, EUpload& eResult);
  bool Housekeep(CSqlite& db, size_t uBytes, int64_t i64Now);
  bool OnMessage(CSqlite& db, const _BrokerMessage& message, bool& bWake,
                 std::vector<_Confirm>& listConfirms);

  CStore& m_store;
  const _CloudConfig m_config;
  const std::string m_strTconf;  // the answer of /v1/tconf
  const int64_t m_i64Started;
  std::function<void()> m_fnWake;
  std::function<bool()> m_fnBrokerUp;
  // The store's thread only: until the next housekeeping.
  int m_iUploadsToTidy = 1;
  int64_t m_i64BytesToTidy = 0;
  std::atomic<uint64_t> m_u64Refused{0};  // malformed or foreign uploads and requests since start
};

// The operator's push request: {"mid","pcid","id"?,"command"?,"param"?,"text"?,"via"?}. The command's text is
// "text" as it stands, or is made of id, command and param. False: strError says what is wrong.
bool ParsePushRequest(const std::string& strJson, _NewCommand& command, std::string& strError);

}  // namespace zxcloudd
