#include "AgentFixture.h"

#include <dlfcn.h>

#include <filesystem>

#include "platform/doc/Base64.h"
#include "support/PrivateRoot.h"

namespace fs = std::filesystem;

namespace {

constexpr char kConfig[] =
    R"({"tconf":{"tconf_url":"127.0.0.1:9"},"scanconf":{"scanconf_url":"127.0.0.1:9"},)"
    R"("zxagent":{"channel":"test-channel","pin":"test-pin"},"zxcloudconf":{}})";
constexpr char kRoutes[] =
    R"({"commandroute":[{"id":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D","command":"disk_usage",)"
    R"("product":"veltcwpp","combo":"zxsample","desc":"sample"}]})";
constexpr char kComponent[] = R"({"plugins":[{"id":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D","uuid":"u1",)"
                              R"("product":"veltcwpp","combo":"zxsample","version":"1","name":"sample"}]})";

}  // namespace

CAgentFixture::CAgentFixture() {
  ClearPrivateMid();
  CFakeCloud::Get().Reset();
  CFakeMid::Instance().Reset();
  const fs::path home(m_home.Root().c_str());
  fs::copy_file(fs::path(ZX_TEST_HOME) / "libzxagent.so", home / "libzxagent.so");
  fs::create_directories(home / "lib/modules");
  fs::copy_file(fs::path(ZX_TEST_HOME) / "lib/modules/libconfigproxy.so",
                home / "lib/modules/libconfigproxy.so");
  m_home.WriteFile("etc/zxagent/zxagent.json", kConfig);
  m_home.WriteFile("etc/zxagent/commandroute.json", kRoutes);
  m_home.WriteFile("etc/coms/client/zxsample/config.json", kComponent);
  LogSetHome(m_home.Root());
  // The agent opens its channels itself; this keeps them verbose for the capture.
  for (const char* pszChannel : {"zxagent", "zxagentflow", "zxlogcache"})
    m_log.Open(pszChannel);
}

CAgentFixture::~CAgentFixture() {
  for (const _BusCall& call : HandOffs()) {
    if (m_hLib != nullptr && m_completed.count(call.ui64ACT) == 0)
      Complete(call, kBusErrAborted);
  }
  if (m_pObj != nullptr && (m_pObj->pfnGetStatus() == 2 || m_pObj->pfnGetStatus() == 1))
    StopAgent();
  if (m_hLib != nullptr)
    Unload();
}

void CAgentFixture::Load() {
  m_hLib = dlopen(m_home.Path("libzxagent.so").c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(m_hLib, nullptr) << dlerror();
  m_pfnInitializePlugin = reinterpret_cast<PFNInitializePlugin>(dlsym(m_hLib, "InitializePlugin"));
  m_pfnUninitializePlugin = reinterpret_cast<PFNUninitializePlugin>(dlsym(m_hLib, "UninitializePlugin"));
  m_pfnCreateObject = reinterpret_cast<PFNCreateObject>(dlsym(m_hLib, "CreateObject"));
  m_pfnDestroyObject = reinterpret_cast<PFNDestroyObject>(dlsym(m_hLib, "DestroyObject"));
  ASSERT_TRUE(m_pfnInitializePlugin && m_pfnUninitializePlugin && m_pfnCreateObject && m_pfnDestroyObject);
  ASSERT_EQ(m_pfnInitializePlugin(), 0);
  m_pObj = static_cast<CPluginObj*>(m_pfnCreateObject(kAgentId));
  ASSERT_NE(m_pObj, nullptr);
}

void CAgentFixture::Unload() {
  m_pfnDestroyObject(kAgentId, m_pObj);
  m_pObj = nullptr;
  m_pfnUninitializePlugin();
  ASSERT_EQ(dlclose(m_hLib), 0);
  m_hLib = nullptr;
}

bool CAgentFixture::IsMapped() const {
  void* hLib = dlopen(m_home.Path("libzxagent.so").c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (hLib != nullptr)
    dlclose(hLib);
  return hLib != nullptr;
}

void CAgentFixture::StartAgent() {
  ASSERT_NO_FATAL_FAILURE(Load());
  int iParam = 1;
  ASSERT_EQ(m_pObj->pfnInitialize(&iParam), 0);
  m_pObj->pfnSetCtx(static_cast<IBusContext*>(&m_bus));
  ASSERT_EQ(m_pObj->pfnStart(), 0);
  Online();
}

void CAgentFixture::Online(const char* pszTable) {
  CFakeCloud::Get().FireTconf(2, pszTable);
  Settle();
}

void CAgentFixture::StopAgent() {
  EXPECT_EQ(m_pObj->pfnStop(), 0);
  m_pObj->pfnUninitialize();
}

void CAgentFixture::Push(int iPcid, const std::string& strText) {
  CFakeCloud::Get().FirePush(iPcid, strText.c_str());
  Settle();
}

void CAgentFixture::Poll(const std::string& strEnvelope) {
  CFakeCloud::Get().FirePoll(0, strEnvelope.c_str(), static_cast<int>(strEnvelope.size()));
  Settle();
}

// Events are handled in arrival order, so an event with a trace of its own, queued last, marks the end of the
// others.
void CAgentFixture::Settle() {
  const std::string strMark = "settle-" + std::to_string(++m_iSettle);
  CFakeCloud::Get().FireData(99, 0, strMark.c_str(), static_cast<int>(strMark.size()));
  EXPECT_TRUE(m_log.WaitFor("*zxagent CAgentMgr::ZxcloudData Error iFlag[99] lpszMsg[" + strMark + "]"));
}

void CAgentFixture::Complete(const _BusCall& call, uint32_t uiStatus, const std::string& strResponse) {
  m_completed.insert(call.ui64ACT);
  m_bus.Complete(call, uiStatus, strResponse);
}

std::vector<_BusCall> CAgentFixture::HandOffs() const {
  std::vector<_BusCall> calls;
  for (const _BusCall& call : m_bus.Calls(EBusCall::AsynSendEx)) {
    if (call.uiType == 20001)
      calls.push_back(call);
  }
  return calls;
}

std::vector<std::string> CAgentFixture::Sent() const {
  return CFakeCloud::Get().Texts(ECloudCall::Send);
}

bool CAgentFixture::Acknowledged(const std::string& strId, int iMsgType) const {
  const std::string strAck = R"({"ID":")" + strId + R"(","msg_type":")" + std::to_string(iMsgType) + "\"}";
  for (const std::string& strText : Sent()) {
    if (strText.find("<PCPluginJasonData=" + strAck + ">") != std::string::npos)
      return true;
  }
  return false;
}

void CAgentFixture::ExpectNextCommandWorks(const std::string& strId) {
  const size_t uBefore = HandOffs().size();
  Push(kPcidSample, PushText(strId, "disk_usage"));
  ASSERT_EQ(HandOffs().size(), uBefore + 1);
  Complete(HandOffs().back(), 0);
  EXPECT_TRUE(Acknowledged(strId, 3));
}

std::string PushText(const std::string& strId, const std::string& strCommand) {
  return R"({"ID":")" + strId + R"(","Command":")" + strCommand + R"(","Param":{"path":"/"}})";
}

std::string Envelope(const std::string& strItems) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<message><error_code>0</error_code><push_msg_result>"
         "<push_timestamp>1763660000</push_timestamp><poll_period_sec>60</poll_period_sec><push_msg_set>" +
         strItems + "</push_msg_set></push_msg_result></message>";
}

std::string EnvelopeItem(int iPcid, const std::string& strMsgId, const std::string& strText) {
  return "<msg_info><business_id>" + std::to_string(iPcid) + "</business_id><msg_id>" + strMsgId +
         "</msg_id><content>" + Base64Encode(strText.data(), strText.size()).Str() + "</content></msg_info>";
}
