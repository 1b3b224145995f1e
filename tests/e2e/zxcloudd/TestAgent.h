// The long connection of one machine, as docs/cloud-link.md describes it.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>

struct mosquitto;
struct mosquitto_message;

class CTestAgent {
 public:
  CTestAgent(std::string strMid, int iPort, const std::string& strCaFile);
  ~CTestAgent();
  CTestAgent(const CTestAgent&) = delete;
  CTestAgent& operator=(const CTestAgent&) = delete;

  // Connects, subscribes and says that it is online; false when the broker does not answer in time.
  bool Connect();
  void Disconnect(bool bSayOffline);
  // Waits for the push with this text; the topic it came on, empty when it does not come.
  std::string WaitPush(const std::string& strText);
  size_t Pushes(const std::string& strText);
  // Publishes and waits for the broker's acknowledgement.
  bool Publish(const std::string& strTopicTail, const std::string& strPayload, bool bRetain = false);
  bool Upload(const std::string& strId, const std::string& strUpload) {
    return Publish("up/2", "zx1 " + strId + "\n" + strUpload);
  }

 private:
  static void OnConnect(mosquitto*, void* pThis, int iCode);
  static void OnSubscribe(mosquitto*, void* pThis, int, int, const int*);
  static void OnPublish(mosquitto*, void* pThis, int iMid);
  static void OnMessage(mosquitto*, void* pThis, const mosquitto_message* pMessage);
  template <class F>
  bool Wait(F fnDone);

  const std::string m_strMid;
  const int m_iPort;
  mosquitto* m_pMosq = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_cond;
  bool m_bConnected = false, m_bSubscribed = false;
  std::set<int> m_setAcked;
  std::multimap<std::string, std::string> m_mapPushes;  // text to topic
};
