// What the cloud link is compared with: a bare libmosquitto client on a loop of its own, and a hand-written
// encoder of the few packets that a blocking publish needs. Both over TLS with verification, one connection,
// one I/O thread each. A failure ends the benchmark.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

struct mosquitto;
struct mosquitto_message;

// A blocking publish: the payload is the caller's until it returns.
struct CPublish {
  std::string_view topic;
  std::string_view payload;
  bool bDone = false;
};

// Publishes wait here for the I/O thread and their callers for the acknowledgement.
class CPublishQueue {
 public:
  CPublishQueue();
  ~CPublishQueue();
  CPublishQueue(const CPublishQueue&) = delete;
  CPublishQueue& operator=(const CPublishQueue&) = delete;

  void Send(CPublish& publish);  // returns when it is acknowledged
  // I/O thread.
  int WakeFd() const { return m_fdWake; }
  void Take(std::vector<CPublish*>& list);
  void Done(CPublish& publish);
  void Wake() const;

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond[64];
  std::vector<CPublish*> m_waiting;
  int m_fdWake = -1;
};

class CBareClient {
 public:
  using TOnMessage = std::function<void(std::string_view payload)>;
  // strSubscribe may be empty.
  CBareClient(const std::string& strId, int iPort, const std::string& strCaFile,
              const std::string& strSubscribe, TOnMessage fnOnMessage);
  ~CBareClient();
  CBareClient(const CBareClient&) = delete;
  CBareClient& operator=(const CBareClient&) = delete;
  void Send(std::string_view topic, std::string_view payload);

 private:
  void Loop();
  void Publish();

  CPublishQueue m_queue;
  TOnMessage m_fnOnMessage;
  mosquitto* m_pMosq = nullptr;
  std::unordered_map<int, CPublish*> m_open;
  std::atomic<bool> m_bStop{false};
  std::atomic<bool> m_bReady{false};
  std::thread m_thread;
};

class CFloorClient {
 public:
  CFloorClient(const std::string& strId, int iPort, const std::string& strCaFile);
  ~CFloorClient();
  CFloorClient(const CFloorClient&) = delete;
  CFloorClient& operator=(const CFloorClient&) = delete;
  void Send(std::string_view topic, std::string_view payload);

 private:
  void Loop();
  void Encode(const CPublish& publish, uint16_t wId);
  bool Write();  // false: the rest waits until the socket takes more
  void Read();

  CPublishQueue m_queue;
  SSL_CTX* m_pCtx = nullptr;
  SSL* m_pSsl = nullptr;
  int m_fd = -1;
  std::string m_strOut;
  std::string m_strIn;
  std::vector<CPublish*> m_open;  // by packet id
  uint16_t m_wLastId = 0;
  std::atomic<bool> m_bStop{false};
  std::thread m_thread;
};
