#include "CloudRig.h"

#include <curl/curl.h>
#include <signal.h>

#include <cstdlib>

#include "platform/doc/Base64.h"
#include "platform/doc/PXmlParse.h"
#include "support/Waiter.h"

namespace {

size_t Append(char* pData, size_t uSize, size_t uCount, void* pAnswer) {
  static_cast<std::string*>(pAnswer)->append(pData, uSize * uCount);
  return uSize * uCount;
}

// Feeds a body of unknown length, so that it goes out in chunks.
struct _Feed {
  const std::string* pstr;
  size_t uAt = 0;
};

size_t Feed(char* pBuffer, size_t uSize, size_t uCount, void* pFeed) {
  auto* feed = static_cast<_Feed*>(pFeed);
  const size_t uTake = std::min(uSize * uCount, feed->pstr->size() - feed->uAt);
  feed->pstr->copy(pBuffer, uTake, feed->uAt);
  feed->uAt += uTake;
  return uTake;
}

void Openssl(std::vector<std::string> listArgs) {
  std::string strOutput;
  listArgs.insert(listArgs.begin(), "openssl");
  ASSERT_EQ(RunCommand(listArgs, strOutput), 0) << strOutput;
}

std::string JsonText(const std::string& strJson, const char* pszName, const char* pszInner = nullptr) {
  zxtools::CPJsonParse json;
  CPString str;
  if (!json.LoadBuffer(strJson.data(), strJson.size()))
    return {};
  const auto hNode = json.GetNode(pszName);
  const auto hInner = pszInner != nullptr && hNode != nullptr ? json.GetNode(hNode, pszInner) : hNode;
  if (hInner != nullptr)
    zxtools::CPJsonParse::GetValue(hInner, str);
  return str.Str();
}

}  // namespace

void CCloudRig::SetUp() {
  signal(SIGPIPE, SIG_IGN);
  m_home.MakeDir("cert");
  m_home.MakeDir("broker");
  Openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
           Path("cert/ca.key"), "-out", Path("cert/ca.pem"), "-subj", "/CN=test ca", "-days", "2"});
  MakeCert("server", "127.0.0.1");
  StartBroker();
  WriteConfig();
}

void CCloudRig::TearDown() {
  // Built with a sanitizer, the daemon reports into its log.
  const std::string strLog = m_home.Exists("cloud.log") ? m_home.ReadFile("cloud.log").Str() : "";
  for (const char* psz : {"Sanitizer", "runtime error"})
    EXPECT_EQ(strLog.find(psz), std::string::npos);
  if (!HasFailure())
    return;
  for (const char* psz : {"cloud.log", "broker.log"}) {
    if (m_home.Exists(psz))
      std::fprintf(stderr, "--- %s\n%s\n", psz, m_home.ReadFile(psz).c_str());
  }
}

void CCloudRig::MakeCert(const std::string& strName, const std::string& strCommonName,
                         const std::string& strAltNames) const {
  const std::string strBase = Path("cert/" + strName);
  m_home.WriteFile(CPString("cert/" + strName + ".ext"), CPString("subjectAltName=" + strAltNames + "\n"));
  Openssl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
           strBase + ".key", "-out", strBase + ".csr", "-subj", "/CN=" + strCommonName});
  Openssl({"x509", "-req", "-in", strBase + ".csr", "-CA", Path("cert/ca.pem"), "-CAkey", Path("cert/ca.key"),
           "-CAcreateserial", "-days", "2", "-extfile", strBase + ".ext", "-out", strBase + ".pem"});
}

void CCloudRig::StartBroker() {
  for (int iTry = 0; iTry < 5; ++iTry) {
    if (m_iBrokerPort == 0)
      m_iBrokerPort = FreePort();
    m_home.WriteFile("broker/mosquitto.conf",
                     CPString("user root\nlistener " + std::to_string(m_iBrokerPort) + " 127.0.0.1\ncafile " +
                              Path("cert/ca.pem") + "\ncertfile " + Path("cert/server.pem") + "\nkeyfile " +
                              Path("cert/server.key") +
                              "\nallow_anonymous true\nset_tcp_nodelay true\nmax_queued_messages 100000\n"
                              "max_inflight_messages 100\npersistence true\npersistence_location " +
                              Path("broker/") + "\n"));
    ASSERT_TRUE(
        m_broker.Start({"/usr/sbin/mosquitto", "-c", Path("broker/mosquitto.conf")}, Path("broker.log")));
    if (Eventually([this] { return !m_broker.Running() || PortAnswers(m_iBrokerPort); }) &&
        m_broker.Running())
      return;
    m_iBrokerPort = 0;
  }
  FAIL() << "the broker does not start";
}

void CCloudRig::WriteConfig() {
  m_home.WriteFile(
      "cloud.json",
      CPString(
          R"({"state_dir":"state","agent":{"cert_file":"cert/server.pem","key_file":"cert/server.key",
"max_body_bytes":100000)" +
          m_strAgentExtra + R"(},"broker":{"addresses":")" + m_strBrokerHost + ":" +
          std::to_string(m_iBrokerPort) +
          R"(","ca_file":"cert/ca.pem"},"tconf":{"pcid":[{"product":"veltcwpp","combo":"zxsample","id":1001}],
"long":"127.0.0.1:)" +
          std::to_string(m_iBrokerPort) + "\"" + m_strTconfExtra + R"(},"poll":{)" + m_strPollExtra +
          R"(},"limits":)" + m_strLimits + "}"));
}

void CCloudRig::StartCloud(uint64_t u64FileLimit) {
  m_home.Remove("state/zxcloudd.json");  // a killed daemon leaves it
  ASSERT_TRUE(
      m_cloud.Start({ZXCLOUDD_BINARY, "--config", Path("cloud.json")}, Path("cloud.log"), u64FileLimit));
  ASSERT_TRUE(Eventually([this] { return !m_cloud.Running() || m_home.Exists("state/zxcloudd.json"); }));
  ASSERT_TRUE(m_cloud.Running());
  const std::string strRun = m_home.ReadFile("state/zxcloudd.json").Str();
  m_strAgentUrl = JsonText(strRun, "agent_url");
  m_strOpUrl = JsonText(strRun, "operator_url");
  m_strToken = m_home.ReadFile("state/operator.token").Str();
  m_strToken.erase(m_strToken.find('\n'));
  ASSERT_TRUE(Eventually([this] {
    return !m_broker.Running() || JsonText(Op("/op/v1/status").strBody, "broker_connected") == "true";
  }));
}

_HttpAnswer CCloudRig::Https(const _Request& request) const {
  _HttpAnswer answer;
  CURL* pCurl = curl_easy_init();
  curl_slist* pHeaders = curl_slist_append(nullptr, "Expect:");
  for (const std::string& str : request.listHeaders)
    pHeaders = curl_slist_append(pHeaders, str.c_str());
  _Feed feed{request.pstrBody};
  curl_easy_setopt(pCurl, CURLOPT_URL, (m_strAgentUrl + request.strPath).c_str());
  curl_easy_setopt(pCurl, CURLOPT_CAINFO, Path("cert/ca.pem").c_str());
  curl_easy_setopt(pCurl, CURLOPT_TIMEOUT_MS, 30000L);
  curl_easy_setopt(pCurl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(pCurl, CURLOPT_WRITEFUNCTION, &Append);
  curl_easy_setopt(pCurl, CURLOPT_WRITEDATA, &answer.strBody);
  if (request.pstrBody != nullptr && request.strMethod == "CHUNKED") {
    curl_easy_setopt(pCurl, CURLOPT_POST, 1L);
    curl_easy_setopt(pCurl, CURLOPT_READFUNCTION, &Feed);
    curl_easy_setopt(pCurl, CURLOPT_READDATA, &feed);
    pHeaders = curl_slist_append(pHeaders, "Transfer-Encoding: chunked");
  } else if (request.pstrBody != nullptr) {
    curl_easy_setopt(pCurl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.pstrBody->size()));
    curl_easy_setopt(pCurl, CURLOPT_POSTFIELDS, request.pstrBody->data());
  }
  if (!request.strMethod.empty() && request.strMethod != "CHUNKED")
    curl_easy_setopt(pCurl, CURLOPT_CUSTOMREQUEST, request.strMethod.c_str());
  if (!request.strCert.empty()) {
    curl_easy_setopt(pCurl, CURLOPT_SSLCERT, request.strCert.c_str());
    curl_easy_setopt(pCurl, CURLOPT_SSLKEY, request.strKey.c_str());
  }
  if (request.lMaxTls != 0)
    curl_easy_setopt(pCurl, CURLOPT_SSLVERSION, request.lMaxTls);
  curl_easy_setopt(pCurl, CURLOPT_HTTPHEADER, pHeaders);
  long lStatus = 0;
  curl_easy_perform(pCurl);
  curl_easy_getinfo(pCurl, CURLINFO_RESPONSE_CODE, &lStatus);
  answer.iStatus = static_cast<int>(lStatus);
  curl_slist_free_all(pHeaders);
  curl_easy_cleanup(pCurl);
  return answer;
}

_HttpAnswer CCloudRig::Upload(const std::string& strMid, const std::string& strId,
                              const std::string& strBody) const {
  return Https(
      {"/v1/upload", &strBody, {"X-Zx-Mid: " + strMid, "X-Zx-Id: " + strId, "X-Zx-Priority: 2"}, "", "", ""});
}

std::vector<std::string> CCloudRig::Poll(const std::string& strMid, bool& bOk) const {
  const std::string strQuery = "<message><mid>" + strMid + "</mid><push_msg_query/></message>";
  const _HttpAnswer answer = Https({"/v1/poll", &strQuery, {"X-Zx-Mid: " + strMid}, "", "", ""});
  std::vector<std::string> listTexts;
  zxtools::CPXmlParse xml;
  bOk = answer.iStatus == 200 && xml.LoadBuffer(answer.strBody.c_str());
  if (!bOk)
    return listTexts;
  const auto hResult = xml.GetNode(xml.GetNode(nullptr, "message"), "push_msg_result");
  std::vector<zxtools::HXmlNode> listInfos;
  xml.GetNode(xml.GetNode(hResult, "push_msg_set"), "msg_info", listInfos);
  for (const auto hInfo : listInfos) {
    CPString strContent;
    zxtools::CPXmlParse::GetValue(xml.GetNode(hInfo, "content"), strContent);
    char* psz = base64Decode(strContent.c_str(), static_cast<int>(strContent.GetLength()), 0);
    listTexts.emplace_back(psz != nullptr ? psz : "");
    free(psz);
  }
  return listTexts;
}

_HttpAnswer CCloudRig::Op(const std::string& strPath, const std::string& strPost, bool bToken) const {
  _HttpAnswer answer;
  CURL* pCurl = curl_easy_init();
  curl_slist* pHeaders =
      bToken ? curl_slist_append(nullptr, ("Authorization: Bearer " + m_strToken).c_str()) : nullptr;
  curl_easy_setopt(pCurl, CURLOPT_URL, (m_strOpUrl + strPath).c_str());
  curl_easy_setopt(pCurl, CURLOPT_TIMEOUT_MS, 30000L);
  curl_easy_setopt(pCurl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(pCurl, CURLOPT_WRITEFUNCTION, &Append);
  curl_easy_setopt(pCurl, CURLOPT_WRITEDATA, &answer.strBody);
  curl_easy_setopt(pCurl, CURLOPT_HTTPHEADER, pHeaders);
  if (!strPost.empty())
    curl_easy_setopt(pCurl, CURLOPT_POSTFIELDS, strPost.c_str());
  long lStatus = 0;
  curl_easy_perform(pCurl);
  curl_easy_getinfo(pCurl, CURLINFO_RESPONSE_CODE, &lStatus);
  answer.iStatus = static_cast<int>(lStatus);
  curl_slist_free_all(pHeaders);
  curl_easy_cleanup(pCurl);
  return answer;
}

std::string CCloudRig::PushCommand(const std::string& strMid, const std::string& strID,
                                   const std::string& strVia) const {
  const _HttpAnswer answer =
      Op("/op/v1/push", "{\"mid\":\"" + strMid + "\",\"pcid\":1001,\"id\":\"" + strID +
                            "\",\"command\":\"disk_usage\",\"via\":\"" + strVia + "\"}");
  EXPECT_EQ(answer.iStatus, 200) << answer.strBody;
  return "{\"ID\":\"" + strID + "\",\"Command\":\"disk_usage\"}";
}

std::string CCloudRig::State(const std::string& strID) const {
  zxtools::CPJsonParse json;
  const std::string strBody = Op("/op/v1/trace/" + strID).strBody;
  std::vector<zxtools::HJsonNode> listCommands;
  CPString strState;
  if (json.LoadBuffer(strBody.data(), strBody.size()) &&
      json.GetAllNode(json.GetNode("commands"), listCommands) && !listCommands.empty())
    zxtools::CPJsonParse::GetValue(json.GetNode(listCommands.front(), "state"), strState);
  return strState.Str();
}

int64_t CCloudRig::StatusNumber(const char* pszGroup, const char* pszName) const {
  const std::string str = JsonText(Op("/op/v1/status").strBody, pszGroup, pszName);
  return str.empty() ? -1 : std::atoll(str.c_str());
}

std::string CCloudRig::UploadText(const std::string& strMid, const std::string& strBody) {
  return "<mid=" + strMid +
         "><m2=second><v=2><product=veltcwpp><combo=zxsample><ipartner=demo><pa=linux><pid=h_home>"
         "<sysver=debian 12><version=1.2.3><PCPluginJasonData=" +
         strBody + "><PCPluginVersion=1.0.0.2005>";
}
