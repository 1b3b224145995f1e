// A confirmation that the broker has not acknowledged is told again over the next connection, byte by byte
// against a broker of the test's own, which ends connections at the worst moment.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "CloudFixture.h"
#include "cloud/BrokerLink.h"
#include "support/Waiter.h"

namespace zxcloudd {
namespace {

constexpr int kConnect = 1, kPublish = 3, kPuback = 4, kSubscribe = 8;

// One packet of MQTT 3.1.1 (section 2 of the standard): type in the upper half of the first byte.
struct _Packet {
  int iType = 0;  // 0: the connection ended, or nothing came in time
  int iFlags = 0;
  std::string strBody;
  std::string Id() const { return strBody.substr(0, 2); }  // of SUBSCRIBE and PUBACK
};

class CRawBroker {
 public:
  CRawBroker() : m_fdListen(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t uLength = sizeof(address);
    EXPECT_EQ(bind(m_fdListen, reinterpret_cast<sockaddr*>(&address), uLength), 0);
    EXPECT_EQ(listen(m_fdListen, 4), 0);
    EXPECT_EQ(getsockname(m_fdListen, reinterpret_cast<sockaddr*>(&address), &uLength), 0);
    m_iPort = ntohs(address.sin_port);
  }
  ~CRawBroker() {
    Hangup();
    close(m_fdListen);
  }
  CRawBroker(const CRawBroker&) = delete;
  CRawBroker& operator=(const CRawBroker&) = delete;
  int Port() const { return m_iPort; }

  // Takes a connection and serves it until it is subscribed.
  bool Accept() {
    Hangup();
    if (!Await(m_fdListen))
      return false;
    m_fd = accept4(m_fdListen, nullptr, nullptr, SOCK_CLOEXEC);
    if (Read().iType != kConnect)
      return false;
    Write(0x20, std::string("\0\0", 2));
    const _Packet subscribe = Read();
    Write(0x90, subscribe.Id() + "\1\1");
    return subscribe.iType == kSubscribe;
  }
  void Hangup() {
    if (m_fd >= 0)
      close(m_fd);
    m_fd = -1;
  }
  void Publish(const std::string& strTopic, char chId, const std::string& strPayload) {
    Write(0x32,
          std::string(1, '\0') + static_cast<char>(strTopic.size()) + strTopic + '\0' + chId + strPayload);
  }
  void Acknowledge(const std::string& strId) { Write(0x40, strId); }
  _Packet Read() {
    _Packet packet;
    unsigned char uchHead = 0;
    if (!ReadExactly(&uchHead, 1))
      return packet;
    size_t uLength = 0;
    unsigned char uch = 0x80;
    for (int iShift = 0; (uch & 0x80) != 0; iShift += 7) {
      if (!ReadExactly(&uch, 1))
        return packet;
      uLength |= static_cast<size_t>(uch & 0x7F) << iShift;
    }
    packet.strBody.resize(uLength);
    if (!ReadExactly(packet.strBody.data(), uLength))
      return packet;
    packet.iType = uchHead >> 4;
    packet.iFlags = uchHead & 15;
    return packet;
  }

 private:
  static bool Await(int fd) {
    pollfd one{fd, POLLIN, 0};
    return poll(&one, 1, 30000) == 1;
  }
  bool ReadExactly(void* pTo, size_t uLength) {
    for (size_t uDone = 0; uDone < uLength;) {
      const ssize_t iRead = Await(m_fd) ? read(m_fd, static_cast<char*>(pTo) + uDone, uLength - uDone) : 0;
      if (iRead <= 0)
        return false;
      uDone += static_cast<size_t>(iRead);
    }
    return true;
  }
  void Write(int iHead, const std::string& strBody) {
    std::string strPacket(1, static_cast<char>(iHead));
    size_t uLength = strBody.size();
    do {
      strPacket += static_cast<char>((uLength & 0x7F) | (uLength > 0x7F ? 0x80 : 0));
    } while ((uLength >>= 7) != 0);
    strPacket += strBody;
    EXPECT_EQ(send(m_fd, strPacket.data(), strPacket.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(strPacket.size()));
  }

  int m_fdListen = -1, m_fd = -1;
  int m_iPort = 0;
};

class CBrokerConfirm : public CStoreTest {
 protected:
  void SetUp() override {
    CStoreTest::SetUp();
    m_config.tconf.bConfirm = true;
    m_pService = std::make_unique<CCloudService>(*m_pStore, m_config);
    _BrokerConfig broker;
    broker.listAddresses = {{"127.0.0.1", m_broker.Port()}};
    broker.bPlaintextLoopback = true;
    m_pLink = std::make_unique<CBrokerLink>(*m_pService, broker);
    std::string strError;
    ASSERT_TRUE(m_pLink->Start(strError)) << strError;
  }
  void TearDown() override {
    m_broker.Hangup();
    m_pLink->Stop();
  }
  void Upload(char chId, const std::string& strMessageId) {
    m_broker.Publish(std::string("zx/v1/") + kMid + "/up/2", chId,
                     "zx1 " + strMessageId + "\n" + UploadText("x"));
  }
  // Reads the confirmation; strPacketId is what its acknowledgement must carry.
  void ExpectConfirm(const std::string& strMessageId, std::string& strPacketId) {
    const _Packet confirm = m_broker.Read();
    ASSERT_EQ(confirm.iType, kPublish);
    EXPECT_EQ(confirm.iFlags >> 1, 1) << "QoS 1";
    const size_t uTopic = static_cast<unsigned char>(confirm.strBody.at(1));
    EXPECT_EQ(confirm.strBody.substr(2, uTopic), std::string("zx/v1/") + kMid + "/ack");
    EXPECT_EQ(confirm.strBody.substr(4 + uTopic), "zx1\n+" + strMessageId + "\n");
    strPacketId = confirm.strBody.substr(2 + uTopic, 2);
  }

  CRawBroker m_broker;
  _CloudConfig m_config;
  std::unique_ptr<CCloudService> m_pService;
  std::unique_ptr<CBrokerLink> m_pLink;
};

TEST_F(CBrokerConfirm, IsToldAgain_UntilTheBrokerHasIt_AndNotAfter) {
  std::string strPacketId;
  ASSERT_TRUE(m_broker.Accept());
  Upload(1, "u-1");
  EXPECT_EQ(m_broker.Read().iType, kPuback);
  ExpectConfirm("u-1", strPacketId);
  // The broker has the upload's acknowledgement, and loses the connection with the confirmation in it.
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(m_broker.Accept());
    ExpectConfirm("u-1", strPacketId);
  }
  m_broker.Acknowledge(strPacketId);
  Upload(2, "u-2");
  EXPECT_EQ(m_broker.Read().iType, kPuback);
  ExpectConfirm("u-2", strPacketId);
  // Only what it has not acknowledged comes a third time.
  ASSERT_TRUE(m_broker.Accept());
  ExpectConfirm("u-2", strPacketId);
  m_broker.Acknowledge(strPacketId);
  Upload(3, "u-3");
  EXPECT_EQ(m_broker.Read().iType, kPuback);
}

TEST(ToldConfirms, AreBounded) {
  CToldConfirms confirms;
  for (int iRound = 0; iRound < 2; ++iRound) {
    for (size_t i = 0; i < CToldConfirms::kMost; ++i) {
      EXPECT_TRUE(confirms.HasRoom());
      confirms.Told(static_cast<int>(i), {std::to_string(iRound), "zx1\n"});
    }
    EXPECT_FALSE(confirms.HasRoom());
    confirms.Told(1000000, {"beyond", "zx1\n"});
    confirms.ConnectionEnded();
  }
  _Confirm confirm;
  for (size_t i = 0; i < CToldConfirms::kMost; ++i) {
    ASSERT_TRUE(confirms.TakeAgain(confirm));
    EXPECT_EQ(confirm.strMid, "1") << "the newest stay";
  }
  EXPECT_FALSE(confirms.TakeAgain(confirm));
}

}  // namespace
}  // namespace zxcloudd
