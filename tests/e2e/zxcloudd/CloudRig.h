// A real broker and a real zxcloudd with their own certificates, in one temporary directory.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Process.h"
#include "platform/doc/PJsonParse.h"
#include "support/TempHome.h"

struct _HttpAnswer {
  int iStatus = 0;  // 0: no answer
  std::string strBody;
};

class CCloudRig : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  void StartBroker();
  void StartCloud(uint64_t u64FileLimit = 0);  // waits until it is ready and connected to a running broker
  void WriteConfig();                          // from the members below

  // The agents' interface: GET without a body, POST with one.
  struct _Request {
    std::string strPath;
    const std::string* pstrBody = nullptr;
    std::vector<std::string> listHeaders;
    std::string strMethod, strCert, strKey;  // empty: the default, none
    long lMaxTls = 0;                        // CURL_SSLVERSION_MAX_..., 0: newest
  };
  _HttpAnswer Https(const _Request& request) const;
  _HttpAnswer Upload(const std::string& strMid, const std::string& strId, const std::string& strBody) const;
  // The messages in the answer of a poll, decoded; nullopt-like: bOk false when the answer is not 200.
  std::vector<std::string> Poll(const std::string& strMid, bool& bOk) const;
  _HttpAnswer Op(const std::string& strPath, const std::string& strPost = "", bool bToken = true) const;
  std::string PushCommand(const std::string& strMid, const std::string& strID,
                          const std::string& strVia = "auto") const;
  std::string State(const std::string& strID) const;  // of a command
  int64_t StatusNumber(const char* pszGroup, const char* pszName) const;
  // cert/<name>.pem, .key
  void MakeCert(const std::string& strName, const std::string& strCommonName,
                const std::string& strAltNames = "IP:127.0.0.1,DNS:localhost") const;
  std::string Path(const std::string& strRelative) const { return m_home.Path(CPString(strRelative)).Str(); }

  static std::string UploadText(const std::string& strMid, const std::string& strBody);

  CTempHome m_home;
  CProcess m_broker, m_cloud;
  int m_iBrokerPort = 0;
  std::string m_strBrokerHost = "127.0.0.1";  // as the cloud is told
  std::string m_strAgentUrl, m_strOpUrl, m_strToken;
  // What WriteConfig writes besides the fixed part.
  std::string m_strAgentExtra = ",\"idle_sec\":1", m_strPollExtra = "\"reoffer_sec\":1", m_strLimits = "{}",
              m_strTconfExtra;
};
