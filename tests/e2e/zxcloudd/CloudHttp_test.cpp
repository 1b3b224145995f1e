// What the listeners refuse, and the command line tool against a real cloud.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "CloudRig.h"
#include "gmock/gmock.h"

namespace {

using testing::HasSubstr;

const std::string kMid = "0123456789abcdef0123456789abcdef";

class CCloudHttp : public CCloudRig {
 protected:
  int Status(const std::string& strPath, const std::string* pstrBody = nullptr,
             std::vector<std::string> listHeaders = {}, const std::string& strMethod = "") {
    return Https({strPath, pstrBody, std::move(listHeaders), strMethod, "", ""}).iStatus;
  }
  std::vector<std::string> UploadHeaders() {
    return {"X-Zx-Mid: " + kMid, "X-Zx-Id: i-1", "X-Zx-Priority: 2"};
  }
  int Zxctl(std::vector<std::string> listArgs, std::string& strOutput) {
    listArgs.insert(listArgs.begin(), {ZXCTL_BINARY, "--run", Path("state")});
    strOutput.clear();
    return RunCommand(listArgs, strOutput);
  }
};

TEST_F(CCloudHttp, Agents_AreAnsweredOverVerifiedTls) {
  StartCloud();
  const _HttpAnswer answer = Https(
      {"/v1/tconf?v=1&mid=" + kMid + "&m2=b&pid=h&platid=1&localip=127.0.0.1", nullptr, {}, "", "", ""});
  EXPECT_EQ(answer.iStatus, 200);
  EXPECT_THAT(answer.strBody, HasSubstr("\"pcid\":\"veltcwpp,zxsample,1001\""));
  EXPECT_EQ(Status("/v1/health"), 200);
  _Request old{"/v1/health", nullptr, {}, "", "", ""};
  old.lMaxTls = CURL_SSLVERSION_MAX_TLSv1_1;
  EXPECT_EQ(Https(old).iStatus, 0) << "older than TLS 1.2";
}

TEST_F(CCloudHttp, BadRequests_AreRefused) {
  StartCloud();
  const std::string strUpload = UploadText(kMid, "x"), strLarge(200000, 'x');
  EXPECT_EQ(Status("/"), 404);
  EXPECT_EQ(Status("/op/v1/status"), 404) << "operators have their own listener";
  EXPECT_EQ(Status("/v1/tconf?v=1&mid=..%2Fx"), 400);
  EXPECT_EQ(Status("/v1/tconf?v=1"), 400);
  EXPECT_EQ(Status("/v1/upload"), 405);
  EXPECT_EQ(Status("/v1/upload", &strUpload, UploadHeaders(), "PUT"), 405);
  EXPECT_EQ(Status("/v1/upload", &strUpload, UploadHeaders(), "PRI"), 405);
  EXPECT_EQ(Status("/v1/nothing", &strUpload), 404);
  EXPECT_EQ(Status("/v1/upload", &strUpload), 400) << "no machine id";
  EXPECT_EQ(Status("/v1/upload", &strUpload, {"X-Zx-Mid: other", "X-Zx-Id: i", "X-Zx-Priority: 2"}), 400);
  EXPECT_EQ(Status("/v1/poll", &strUpload, {"X-Zx-Mid: " + kMid}), 400);
  EXPECT_EQ(Status("/v1/upload", &strLarge, UploadHeaders()), 413);
  EXPECT_EQ(Status("/v1/upload", &strLarge, UploadHeaders(), "CHUNKED"), 413);
  auto listHeaders = UploadHeaders();
  listHeaders.push_back("Content-Encoding: gzip");
  EXPECT_EQ(Status("/v1/upload", &strUpload, listHeaders), 415);
  EXPECT_EQ(Status("/v1/upload", &strUpload,
                   {"X-Zx-Mid: " + kMid, "Content-Type: multipart/form-data; boundary=x"}),
            415);
  EXPECT_EQ(Status("/v1/upload", &strUpload, UploadHeaders(), "CHUNKED"), 200) << "and still serves";
  EXPECT_EQ(StatusNumber("uploads", "received"), 1);
}

TEST_F(CCloudHttp, Operators_NeedTheToken) {
  StartCloud();
  EXPECT_EQ(Op("/op/v1/status", "", false).iStatus, 401);
  EXPECT_EQ(Op("/op/v1/push", "{}", false).iStatus, 401);
  EXPECT_EQ(Op("/op/v1/status").iStatus, 200);
  EXPECT_EQ(Op("/op/v1/push", "{}").iStatus, 400);
  EXPECT_EQ(Op("/v1/health").iStatus, 404);
}

// A connection of our own to the operator listener, which is plain.
class CRawClient {
 public:
  explicit CRawClient(const std::string& strUrl) : m_iSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(strUrl.substr(strUrl.rfind(':') + 1))));
    EXPECT_EQ(connect(m_iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const timeval timeout{30, 0};
    setsockopt(m_iSocket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  }
  ~CRawClient() { close(m_iSocket); }
  CRawClient(const CRawClient&) = delete;
  CRawClient& operator=(const CRawClient&) = delete;

  bool Send(const std::string& str) {
    return send(m_iSocket, str.data(), str.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(str.size());
  }
  // Until the server closes; false when it does not within the time-out.
  bool ReadAll(std::string& str) {
    char buffer[4096];
    ssize_t iGot = 0;
    while ((iGot = recv(m_iSocket, buffer, sizeof(buffer), 0)) > 0)
      str.append(buffer, static_cast<size_t>(iGot));
    return iGot == 0 || errno == ECONNRESET;
  }

 private:
  int m_iSocket;
};

TEST_F(CCloudHttp, EndlessHead_IsCutOff) {
  StartCloud();
  CRawClient client(m_strOpUrl);
  const std::string strLine = "X-A: " + std::string(4000, 'x') + "\r\n";
  ASSERT_TRUE(client.Send("GET /op/v1/status HTTP/1.1\r\n"));
  int iLines = 0;
  while (iLines < 10000 && client.Send(strLine))
    ++iLines;
  EXPECT_LT(iLines, 10000) << "40 MB of header fields were taken";
  EXPECT_EQ(Op("/op/v1/status").iStatus, 200);
}

TEST_F(CCloudHttp, IdleConnection_IsClosed_AndKeptOnesServeSeveralRequests) {
  StartCloud();
  CRawClient client(m_strOpUrl);
  const std::string strRequest = "GET /op/v1/nothing HTTP/1.1\r\nHost: x\r\n\r\n";
  ASSERT_TRUE(client.Send(strRequest + strRequest));
  std::string strAnswers;
  EXPECT_TRUE(client.ReadAll(strAnswers)) << "the idle time is one second";
  const size_t uFirst = strAnswers.find("HTTP/1.1 404");
  ASSERT_NE(uFirst, std::string::npos);
  EXPECT_NE(strAnswers.find("HTTP/1.1 404", uFirst + 1), std::string::npos);
}

TEST_F(CCloudHttp, UnreadBody_IsNoRequest) {
  StartCloud();
  for (const char* psz : {"PUT /op/v1/push", "POST /op/v1/nothing", "DELETE /op/v1/status"}) {
    CRawClient client(m_strOpUrl);
    const std::string strInner = "GET /op/v1/inner HTTP/1.1\r\nHost: x\r\n\r\n";
    ASSERT_TRUE(client.Send(std::string(psz) + " HTTP/1.1\r\nHost: x\r\nContent-Length: " +
                            std::to_string(strInner.size()) + "\r\n\r\n" + strInner));
    std::string strAnswers;
    EXPECT_TRUE(client.ReadAll(strAnswers));
    const size_t uFirst = strAnswers.find("HTTP/1.1 40");
    ASSERT_NE(uFirst, std::string::npos) << strAnswers;
    EXPECT_EQ(strAnswers.find("HTTP/1.1", uFirst + 1), std::string::npos) << strAnswers;
  }
}

TEST_F(CCloudHttp, TooManyConnections_AreClosed_UntilOthersEnd) {
  m_strAgentExtra = R"(,"threads":1,"connections":1,"idle_sec":300)";
  WriteConfig();
  StartCloud();
  {
    CRawClient client(m_strAgentUrl);  // holds the only place until its handshake is due
    ASSERT_TRUE(Eventually([&] { return Status("/v1/health") == 0; }));
    CRawClient refused(m_strAgentUrl);
    std::string strAnswer;
    EXPECT_TRUE(refused.ReadAll(strAnswer));
    EXPECT_EQ(strAnswer, "");
  }
  EXPECT_TRUE(Eventually([&] { return Status("/v1/health") == 200; }));
}

TEST_F(CCloudHttp, Term_DoesNotWaitForIdleConnections) {
  m_strAgentExtra = R"(,"idle_sec":300)";
  WriteConfig();
  StartCloud();
  CRawClient client(m_strAgentUrl);
  EXPECT_EQ(Status("/v1/health"), 200);
  const int iStatus = m_cloud.Stop(SIGTERM);
  EXPECT_TRUE(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0);
}

TEST_F(CCloudHttp, ClientCertificate_IsAskedForAndNamesTheMachine) {
  m_strAgentExtra = R"(,"client_ca_file":"cert/ca.pem","cert_names_mid":true)";
  WriteConfig();
  MakeCert("machine", kMid);
  MakeCert("foreign", "another");
  StartCloud();
  const std::string strUpload = UploadText(kMid, "x");
  const auto upload = [&](const std::string& strCert) {
    _Request request{"/v1/upload", &strUpload, UploadHeaders(), "", "", ""};
    if (!strCert.empty()) {
      request.strCert = Path("cert/" + strCert + ".pem");
      request.strKey = Path("cert/" + strCert + ".key");
    }
    return Https(request).iStatus;
  };
  EXPECT_EQ(upload(""), 0);
  EXPECT_EQ(upload("foreign"), 403);
  EXPECT_EQ(upload("machine"), 200);
}

TEST_F(CCloudHttp, Start_NamesWhatIsWrong) {
  std::string strOutput;
  EXPECT_EQ(RunCommand({ZXCLOUDD_BINARY, "--config", Path("none.json")}, strOutput), 2);
  EXPECT_THAT(strOutput, HasSubstr("No such file"));
  EXPECT_EQ(RunCommand({ZXCLOUDD_BINARY}, strOutput), 2);
  EXPECT_EQ(RunCommand({ZXCLOUDD_BINARY, "--check", "--config", Path("cloud.json")}, strOutput), 0)
      << strOutput;
  strOutput.clear();
  m_home.WriteFile("cert/server.pem", "not a certificate");
  EXPECT_EQ(RunCommand({ZXCLOUDD_BINARY, "--config", Path("cloud.json")}, strOutput), 1);
  EXPECT_THAT(strOutput, HasSubstr("certificate"));
}

TEST_F(CCloudHttp, SecondDaemonOnOneState_IsRefused) {
  StartCloud();
  std::string strOutput;
  EXPECT_EQ(RunCommand({ZXCLOUDD_BINARY, "--config", Path("cloud.json")}, strOutput), 1);
  EXPECT_THAT(strOutput, HasSubstr("in use"));
  EXPECT_TRUE(m_home.Exists("state/zxcloudd.json")) << "the running daemon's file stays";
}

TEST_F(CCloudHttp, Token_ReadableByOthers_IsRefused) {
  m_home.WriteFile("state/operator.token", "0123456789012345678901234567890123456789\n", 0644);
  std::string strOutput;
  EXPECT_EQ(RunCommand({ZXCLOUDD_BINARY, "--config", Path("cloud.json")}, strOutput), 1);
  EXPECT_THAT(strOutput, HasSubstr("can be read by others"));
}

TEST_F(CCloudHttp, Zxctl_SaysByItsExitCodeWhatHappened) {
  std::string strOutput;
  EXPECT_EQ(Zxctl({"cloud"}, strOutput), 3) << "no cloud";
  StartCloud();
  EXPECT_EQ(Zxctl({"cloud"}, strOutput), 0) << strOutput;
  EXPECT_THAT(strOutput, HasSubstr("connected"));
  EXPECT_EQ(Zxctl({"push", "--pcid", "1001", "--command", "x"}, strOutput), 2)
      << "no machine yet: " << strOutput;
  EXPECT_EQ(Upload(kMid, "u-1", UploadText(kMid, "x")).iStatus, 200);
  EXPECT_EQ(Zxctl({"agents"}, strOutput), 0);
  EXPECT_THAT(strOutput, HasSubstr(kMid));
  EXPECT_EQ(Zxctl({"push", "--pcid", "1001", "--command", "x", "--id", "c-1", "--param", "{bad"}, strOutput),
            2);
  EXPECT_EQ(
      Zxctl({"push", "--pcid", "1001", "--command", "x", "--id", "c-1", "--param", "{\"a\":1}"}, strOutput),
      0)
      << strOutput;
  EXPECT_EQ(Zxctl({"push", "--pcid", "1001", "--command", "x", "--id", "c-1"}, strOutput), 1) << "same id";
  EXPECT_EQ(Zxctl({"push", "--pcid", "1001", "--command", "x", "--via", "pigeon"}, strOutput), 2);
  EXPECT_EQ(Zxctl({"push", "--pcid", "1001", "--command", "x", "--id", "c-2", "--wait", "1"}, strOutput), 1);
  EXPECT_THAT(strOutput, HasSubstr("not acknowledged"));
  EXPECT_EQ(Zxctl({"trace", "none"}, strOutput), 1);
  EXPECT_EQ(Zxctl({"--cloud", "http://127.0.0.1:1", "cloud"}, strOutput), 2) << "without a token";
  m_cloud.Stop(SIGKILL);
  EXPECT_EQ(Zxctl({"cloud"}, strOutput), 3) << "killed, its run file is still there";
}

TEST_F(CCloudHttp, Zxctl_ShowsWhatMachinesSent) {
  StartCloud();
  std::string strOutput;
  std::string strMaint = UploadText(
      kMid,
      R"({"ID":"m-1","state":"done","exit_code":7,"duration_ms":12,"stdout":"line one\nline \u001b[2J two\n"})");
  strMaint.replace(strMaint.find("zxsample"), 8, "zxpmaint");
  ASSERT_EQ(Upload(kMid, "u-1", UploadText(kMid, "{\"lines\":[\"hello\"]}")).iStatus, 200);
  ASSERT_EQ(Zxctl({"push", "--pcid", "1001", "--text", R"({"ID":"p-1","Policy":{"depth":3}})"}, strOutput),
            0);
  ASSERT_EQ(Upload(kMid, "u-2", UploadText(kMid, R"({"ID":"p-1","msg_type":"4"})")).iStatus, 200);
  ASSERT_EQ(Upload(kMid, "u-3", strMaint).iStatus, 200);

  ASSERT_EQ(Zxctl({"uploads"}, strOutput), 0) << strOutput;
  for (const char* psz : {"SEQ", "plugin", "veltcwpp/zxsample", "u-1", "https", "data"})
    EXPECT_THAT(strOutput, HasSubstr(psz));
  EXPECT_LT(strOutput.find("u-1"), strOutput.find("u-3")) << "the newest is the last line";
  EXPECT_THAT(strOutput, testing::Not(HasSubstr("hello")));
  ASSERT_EQ(Zxctl({"uploads", "--kind", "maint", "--max", "1"}, strOutput), 0);
  EXPECT_THAT(strOutput, testing::AllOf(HasSubstr("u-3"), testing::Not(HasSubstr("u-2"))));
  EXPECT_EQ(Zxctl({"uploads", "--kind", "letters"}, strOutput), 2);

  ASSERT_EQ(Zxctl({"acks"}, strOutput), 0);
  EXPECT_THAT(strOutput,
              testing::AllOf(HasSubstr("p-1"), HasSubstr("nobody takes it"), testing::Not(HasSubstr("u-1"))));
  ASSERT_EQ(Zxctl({"acks", "other"}, strOutput), 0);
  EXPECT_THAT(strOutput, testing::Not(HasSubstr("p-1")));
  ASSERT_EQ(Zxctl({"maint"}, strOutput), 0);
  EXPECT_THAT(strOutput, testing::AllOf(HasSubstr("m-1"), HasSubstr("done 7")));
  ASSERT_EQ(Zxctl({"upload", "u-3"}, strOutput), 0);
  for (const char* psz : {"exit_code    7", "--- stdout\nline one\nline ?[2J two\n", "debian 12"})
    EXPECT_THAT(strOutput, HasSubstr(psz));
  ASSERT_EQ(Zxctl({"upload", "1", "--body"}, strOutput), 0);
  EXPECT_EQ(strOutput, "{\"lines\":[\"hello\"]}");
  EXPECT_EQ(Zxctl({"upload", "nothing"}, strOutput), 1);
  EXPECT_EQ(Zxctl({"upload", "99"}, strOutput), 1);

  ASSERT_EQ(Zxctl({"show", "p-1"}, strOutput), 0);
  for (const char* psz : {R"({"ID":"p-1","Policy":{"depth":3}})", "refused", "u-2"})
    EXPECT_THAT(strOutput, HasSubstr(psz));
  ASSERT_EQ(Zxctl({"commands", "--state", "refused"}, strOutput), 0);
  EXPECT_THAT(strOutput, HasSubstr("p-1"));
  ASSERT_EQ(Zxctl({"--json", "uploads", "--about", "p-1"}, strOutput), 0);
  EXPECT_THAT(strOutput, testing::AllOf(HasSubstr("\"outcome\":\"4\""), testing::Not(HasSubstr("u-1"))));
}

TEST_F(CCloudHttp, Zxctl_TraceMergesTheAgentsLogs) {
  StartCloud();
  EXPECT_EQ(Upload(kMid, "u-1", UploadText(kMid, "x")).iStatus, 200);
  std::string strOutput;
  ASSERT_EQ(Zxctl({"push", "--pcid", "1001", "--command", "x", "--id", "c-1"}, strOutput), 0);
  EXPECT_EQ(Upload(kMid, "u-2", UploadText(kMid, "{\"ID\":\"c-1\",\"msg_type\":\"3\"}")).iStatus, 200);
  m_home.WriteFile(
      "agent/log/zxagent.log",
      "2026-11-20 21:04:39.123 +0000 [2] [7:8] zxagent ZxcloudPushmsgCallback recv iPcid[1] pszMsg[0x1][{\"ID\":\"c-1\"}]\n"
      "2026-11-20 21:04:39.124 +0000 [2] [7:8] zxagent pushmsg Begin recvnew u64DataId[5] iPcid[1]\n"
      "2026-11-20 21:04:39.125 +0000 [2] [7:8] zxagent pushmsg send taskmgr Begin u64DataId[5] strID[c-1] strGuid[{g}]\n");
  ASSERT_EQ(Zxctl({"trace", "c-1", "--home", Path("agent")}, strOutput), 0) << strOutput;
  for (const char* psz : {"created, via auto", "received over the long connection", "data id 5",
                          "component {g}", "acked, msg_type 3", "state acked"})
    EXPECT_THAT(strOutput, HasSubstr(psz));
  ASSERT_EQ(Zxctl({"--json", "trace", "c-1", "--home", Path("agent")}, strOutput), 0);
  EXPECT_THAT(strOutput, HasSubstr("\"hops\":[{"));
  EXPECT_EQ(Zxctl({"trace", "c-1", "--home", Path("nowhere")}, strOutput), 1);
}

}  // namespace
