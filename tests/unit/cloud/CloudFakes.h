// Time, chance and the far side as the test decides them.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/cloud/CloudPorts.h"
#include "platform/cloud/HttpClient.h"
#include "platform/cloud/MqttTransport.h"
#include "platform/cloud/zxcloud.h"

class CFakeClock : public zxcloud::IClock {
 public:
  uint64_t NowMs() override { return m_u64Now; }
  void Advance(uint64_t u64Ms) { m_u64Now += u64Ms; }

 private:
  uint64_t m_u64Now = 1000;
};

// Answers the highest number allowed, or a share of it in percent.
class CFakeRandom : public zxcloud::IRandom {
 public:
  uint32_t Below(uint32_t uBound) override {
    return uBound == 0 ? 0 : static_cast<uint32_t>(static_cast<uint64_t>(uBound - 1) * uPercent / 100);
  }
  uint32_t uPercent = 100;
};

// A transport without a socket: the test plays the broker, between two turns of the link.
class CFakeTransport : public zxcloud::IMqttTransport {
 public:
  explicit CFakeTransport(zxcloud::IMqttEvents& owner) : events(owner) {}

  bool Open(const zxcloud::_MqttOpen& open, zxcloud::EMqttFailure& eFailure, std::string& strError) override {
    opened.push_back(open);
    bOpen = strOpenError.empty();
    eFailure = eOpenFailure;
    strError = strOpenError;
    return bOpen;
  }
  bool Publish(uint64_t u64Token, const std::string& strTopic, std::string_view svPayload) override {
    if (!bOpen || bPublishFails)
      return false;
    published.push_back({u64Token, strTopic, std::string(svPayload)});
    return true;
  }
  void Close(bool bPolite) override {
    bClosedPolitely = bPolite;
    bOpen = false;
  }
  int Descriptor() const override { return -1; }
  bool WantWrite() const override { return bFull; }
  void OnIo(bool, bool, bool) override {
    if (bPublishFails)
      events.OnClosed(zxcloud::EMqttFailure::Network, "publish failed");
  }
  void OnTick() override { ++uTicks; }
  uint32_t TickMs() const override { return 7500; }
  std::string LocalEnd() const override { return "10.0.0.1:4000"; }
  std::string RemoteIp() const override { return opened.back().strIp; }
  uint16_t RemotePort() const override { return opened.back().wPort; }

  struct _Published {
    uint64_t u64Token;
    std::string strTopic;
    std::string strPayload;
  };
  zxcloud::IMqttEvents& events;
  std::vector<zxcloud::_MqttOpen> opened;
  std::vector<_Published> published;
  std::string strOpenError;
  zxcloud::EMqttFailure eOpenFailure = zxcloud::EMqttFailure::Network;
  bool bOpen = false;
  bool bPublishFails = false;
  bool bFull = false;  // the socket takes no more
  bool bClosedPolitely = false;
  uint32_t uTicks = 0;
};

// Answers by path; what is not set is "connection refused".
class CFakeHttp : public zxcloud::IHttpClient {
 public:
  struct _Seen {
    std::string strMethod;
    std::string strAddress;
    std::string strTarget;
    std::string strBody;
    std::vector<std::string> listHeaders;
  };
  using TAnswer = std::function<zxcloud::_HttpAnswer(const _Seen&)>;

  zxcloud::_HttpAnswer Do(const zxcloud::_HttpRequest& request) override {
    _Seen one{request.pszMethod, request.address.Text(), request.strTarget, std::string(request.svBody),
              request.listHeaders};
    seen.push_back(one);
    if (fnAnswer)
      return fnAnswer(one);
    return Failure(zxcloud::ENetError::Network, "connection refused");
  }
  void Abort() override {}

  static zxcloud::_HttpAnswer Status(int iStatus, const std::string& strBody = "", uint32_t uRetryAfter = 0) {
    zxcloud::_HttpAnswer answer;
    answer.iStatus = iStatus;
    answer.strBody = strBody;
    answer.uRetryAfterSec = uRetryAfter;
    answer.strLocal = "10.0.0.1:4000";
    answer.strRemote = "10.0.0.2:443";
    return answer;
  }
  static zxcloud::_HttpAnswer Failure(zxcloud::ENetError eError, const std::string& strReason) {
    zxcloud::_HttpAnswer answer;
    answer.eError = eError;
    answer.strReason = strReason;
    return answer;
  }
  std::vector<_Seen> Seen(const std::string& strTarget) const {
    std::vector<_Seen> list;
    for (const _Seen& one : seen) {
      if (one.strTarget.compare(0, strTarget.size(), strTarget) == 0)
        list.push_back(one);
    }
    return list;
  }

  TAnswer fnAnswer;
  std::vector<_Seen> seen;
};

// What the callbacks report, as one text each. One per process, as a C callback has no object.
class CCallbackLog {
 public:
  static std::vector<std::string>& Events() {
    static std::vector<std::string> events;
    return events;
  }
  static zxcloud_record Record() {
    zxcloud_record record{};
    record.push = [](int iPcid, const char* psz) {
      Events().push_back("push " + std::to_string(iPcid) + " " + psz);
      return 0;
    };
    record.tconf = [](int iFlag, const char* psz) {
      Events().push_back("tconf " + std::to_string(iFlag) + " " + psz);
      return 0;
    };
    record.connect = [](const char* psz, unsigned short wPort) {
      Events().push_back("connect " + std::string(psz) + " " + std::to_string(wPort));
      return 0;
    };
    record.disconnect = [] {
      Events().push_back("disconnect");
      return 0;
    };
    record.log = [](int, int iLevel, const char* psz) {
      Events().push_back("log " + std::to_string(iLevel) + " " + psz);
    };
    record.poll = [](int, const char* psz, int) {
      Events().push_back("poll " + std::string(psz));
      return 0;
    };
    record.data = [](int iFlag, int, const char* psz, int) {
      Events().push_back("data " + std::to_string(iFlag) + " " + psz);
      return 0;
    };
    return record;
  }
  static size_t Count(const std::string& strPrefix) {
    size_t uCount = 0;
    for (const std::string& str : Events())
      uCount += str.compare(0, strPrefix.size(), strPrefix) == 0;
    return uCount;
  }
};
