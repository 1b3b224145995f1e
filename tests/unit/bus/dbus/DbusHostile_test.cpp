// Messages that no component would send.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <random>

#include "DbusFixture.h"
#include "RawClient.h"

namespace {

class DbusHostileTest : public DbusTest {
 protected:
  void SetUp() override {
    Begin();
    m_own = std::make_unique<CComponent>();
    ASSERT_EQ((*m_own)->Receive(9, &m_receiver), 0u);
    m_client = std::make_unique<CRawClient>(m_daemon.Address());
    ASSERT_TRUE(m_client->Own(m_guidClient));
  }
  // Nothing got through, and the component still serves.
  void ExpectUntouched() {
    EXPECT_EQ(m_receiver.Count(), 0u);
    CRawClient client(m_daemon.Address());
    ASSERT_TRUE(client.Own(NewGuid()));
    int32_t iStatus = 0;
    EXPECT_EQ(client.Send(m_own->Guid(), 9, "fine", &iStatus), "");
    EXPECT_EQ(iStatus, 7);
  }
  std::string CallAt(const char* pszPath, const char* pszInterface, const char* pszMember,
                     const char* pszSignature, const char* pszText = "x") {
    sd_bus_message* pCall = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(m_client->Bus(), &pCall, BusNameOf(m_own->Guid()).c_str(),
                                             pszPath, pszInterface, pszMember),
              0);
    if (std::string(pszSignature) == "ay")
      sd_bus_message_append_array(pCall, 'y', pszText, 1);
    else if (std::string(pszSignature) == "s")
      sd_bus_message_append(pCall, "s", pszText);
    return m_client->Finish(pCall);
  }

  const GUID m_guidClient = NewGuid();
  CReceiver m_receiver{AnswerReversed};
  std::unique_ptr<CComponent> m_own;
  std::unique_ptr<CRawClient> m_client;
};

TEST_F(DbusHostileTest, AWrongSignatureIsAnError) {
  EXPECT_EQ(m_client->Send(m_own->Guid(), 9, "text", nullptr, "s"), "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(CallAt("/com/zxagent/bus1/type/9", kBusInterface, "Send", ""),
            "org.freedesktop.DBus.Error.InvalidArgs");
  ExpectUntouched();
}

TEST_F(DbusHostileTest, PathsThatAreNoTypeAreNoObject) {
  for (const char* pszPath :
       {"/com/zxagent/bus1/type/09", "/com/zxagent/bus1/type/9/9", "/com/zxagent/bus1/type/4294967305",
        "/com/zxagent/bus1/type/99999999999999999999", "/com/zxagent/bus1/type/x9",
        "/com/zxagent/bus1/type/10", "/"})
    EXPECT_EQ(CallAt(pszPath, kBusInterface, "Send", "ay"), "org.freedesktop.DBus.Error.UnknownObject")
        << pszPath;
  ExpectUntouched();
}

TEST_F(DbusHostileTest, OtherMethodsAndInterfacesAreUnknown) {
  EXPECT_EQ(CallAt("/com/zxagent/bus1/type/9", kBusInterface, "Broadcast", "ay"),
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(CallAt("/com/zxagent/bus1/type/9", "org.example.Other", "Send", "ay"),
            "org.freedesktop.DBus.Error.UnknownMethod");
  ExpectUntouched();
}

TEST_F(DbusHostileTest, AMessageThatIsTooLongEndsItsSenderOnly) {
  const std::string strTooLong(9u << 20, 'l');
  EXPECT_NE(m_client->Send(m_own->Guid(), 9, strTooLong), "");
  ExpectUntouched();
}

TEST_F(DbusHostileTest, CancelsOfNothingAreIgnored) {
  sd_bus_message* pCancel = nullptr;
  std::mt19937 random(7);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_GE(sd_bus_message_new_method_call(m_client->Bus(), &pCancel, BusNameOf(m_own->Guid()).c_str(),
                                             "/com/zxagent/bus1/type/9", kBusInterface, "Cancel"),
              0);
    sd_bus_message_append(pCancel, "u", static_cast<uint32_t>(random()) % 100);
    sd_bus_message_set_expect_reply(pCancel, 0);
    ASSERT_GE(sd_bus_send(m_client->Bus(), pCancel, nullptr), 0);
    sd_bus_message_unref(pCancel);
  }
  ExpectUntouched();
}

TEST_F(DbusHostileTest, NobodyCancelsTheCallOfAnother) {
  CReceiver keeps;
  ASSERT_EQ((*m_own)->Receive(10, &keeps), 0u);
  const auto peer = MakePeer(NewGuid());
  peer->Tell("send " + TextOf(m_own->Guid()) + " 10 3 60000 1");
  ASSERT_TRUE(keeps.Wait());
  for (uint32_t uiSerial = 0; uiSerial < 200; ++uiSerial) {
    sd_bus_message* pCancel = nullptr;
    ASSERT_GE(sd_bus_message_new_method_call(m_client->Bus(), &pCancel, BusNameOf(m_own->Guid()).c_str(),
                                             "/com/zxagent/bus1/type/10", kBusInterface, "Cancel"),
              0);
    sd_bus_message_append(pCancel, "u", uiSerial);
    sd_bus_message_set_expect_reply(pCancel, 0);
    ASSERT_GE(sd_bus_send(m_client->Bus(), pCancel, nullptr), 0);
    sd_bus_message_unref(pCancel);
  }
  EXPECT_EQ(m_client->Send(m_own->Guid(), 9, "after them"), "");
  EXPECT_EQ((*m_own)->Reply(3, 10, "", 0, keeps.At(0).pBaton), 0u);
  EXPECT_TRUE(peer->WaitFor("done 3"));
}

TEST_F(DbusHostileTest, AnAnswerOfTheWrongFormEndsTheCall) {
  ASSERT_GE(sd_bus_request_name(m_client->Bus(), "com.example.other", 0), 0);
  CCompletion done;
  ASSERT_EQ(SendWhenKnown(*m_own, m_guidClient, 1, "x", &done), 0u);
  sd_bus_message* pCall = nullptr;
  for (;;) {
    const int iResult = sd_bus_process(m_client->Bus(), &pCall);
    ASSERT_GE(iResult, 0);
    if (pCall != nullptr && sd_bus_message_is_method_call(pCall, kBusInterface, "Send") > 0)
      break;
    pCall = sd_bus_message_unref(pCall);
    if (iResult == 0) {
      ASSERT_GT(sd_bus_wait(m_client->Bus(), 10000000), 0);
    }
  }
  ASSERT_GE(sd_bus_reply_method_return(pCall, "s", "surprise"), 0);
  sd_bus_flush(m_client->Bus());
  sd_bus_message_unref(pCall);
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(done.At(0).uiStatus, uint32_t{kBusErrInvalid});
}

TEST_F(DbusHostileTest, RandomBytesOnTheSocket) {
  std::mt19937 random(42);
  const std::string strSocket = m_daemon.Address().substr(std::string("unix:path=").size());
  for (int iRound = 0; iRound < 20; ++iRound) {
    const int iFd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strSocket.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(connect(iFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    std::string strBytes(1, '\0');
    if (iRound % 2 == 0)
      strBytes += "AUTH EXTERNAL " + std::string(getuid() == 0 ? "30" : "31") + "\r\nBEGIN\r\nl\1\0\1";
    while (strBytes.size() < 5000)
      strBytes += static_cast<char>(random());
    send(iFd, strBytes.data(), strBytes.size(), MSG_NOSIGNAL);
    close(iFd);
  }
  ExpectUntouched();
}

}  // namespace
