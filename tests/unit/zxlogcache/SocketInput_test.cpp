// Records from Unix sockets: framing, who may send, answers, limits.
#include "zxlogcache/SocketInput.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

using namespace zxlogcache;

namespace {

using Texts = std::vector<std::string>;

class CSender {
 public:
  CSender(const std::string& strPath, int iType) : m_hFd(socket(AF_UNIX, iType | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    m_bConnected = connect(m_hFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  }
  ~CSender() { close(m_hFd); }
  CSender(const CSender&) = delete;
  CSender& operator=(const CSender&) = delete;

  bool Connected() const { return m_bConnected; }
  bool Send(const std::string& strData) const {
    return send(m_hFd, strData.data(), strData.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(strData.size());
  }
  void End() const { shutdown(m_hFd, SHUT_WR); }
  // Everything until the other side closes.
  std::string ReadToEnd() const {
    std::string strAll;
    char buffer[256];
    ssize_t iBytes = 0;
    while ((iBytes = recv(m_hFd, buffer, sizeof(buffer), 0)) > 0)
      strAll.append(buffer, static_cast<size_t>(iBytes));
    return strAll;
  }

 private:
  int m_hFd;
  bool m_bConnected = false;
};

class SocketInput : public testing::Test {
 protected:
  SocketInput() { m_settings.strPath = m_home.Path("run/in.sock").Str(); }

  void Open(bool bStream) {
    m_settings.bStream = bStream;
    m_pInput = std::make_unique<CSocketInput>(m_settings, 1000, m_uiMaxClients, nullptr);
    ASSERT_TRUE(m_pInput->Open()) << errno;
  }
  std::unique_ptr<CSender> Sender() {
    return std::make_unique<CSender>(m_settings.strPath, m_settings.bStream ? SOCK_STREAM : SOCK_DGRAM);
  }
  // Reads until uCount records are there (or the deadline passes), or once when uCount is 0.
  Texts Take(size_t uCount, uint64_t u64Budget = 1u << 20) {
    EventuallyTrue([&] {
      m_pInput->Ready(m_chunks, u64Budget);
      return m_chunks.Records() >= uCount;
    });
    Texts list;
    for (const auto& chunk : m_chunks.List()) {
      std::vector<std::string_view> records;
      EXPECT_TRUE(UnpackRecords(chunk.strData, records));
      list.insert(list.end(), records.begin(), records.end());
    }
    m_chunks.Clear();
    return list;
  }
  bool RefusedBecomes(uint64_t u64Count) {
    return EventuallyTrue([&] {
      m_pInput->Ready(m_chunks, 1u << 20);
      return m_pInput->Refused() >= u64Count;
    });
  }

  CTempHome m_home;
  _SocketSettings m_settings;
  uint32_t m_uiMaxClients = 64;
  std::unique_ptr<CSocketInput> m_pInput;
  CChunks m_chunks{100000, false};
};

TEST_F(SocketInput, Datagrams_AreRecords) {
  Open(false);
  const auto pSender = Sender();
  ASSERT_TRUE(pSender->Send("one\nrecord"));
  ASSERT_TRUE(pSender->Send("with an end\n"));
  ASSERT_TRUE(pSender->Send(""));
  ASSERT_TRUE(pSender->Send(std::string("nul\0inside", 10)));
  EXPECT_EQ(Take(3), (Texts{"one\nrecord", "with an end", std::string("nul\0inside", 10)}));
}

TEST_F(SocketInput, TooLongDatagram_IsRefused_AndCounted) {
  Open(false);
  const auto pSender = Sender();
  ASSERT_TRUE(pSender->Send(std::string(1000, 'x')));
  ASSERT_TRUE(pSender->Send(std::string(1001, 'x')));
  ASSERT_TRUE(pSender->Send(std::string(5000, 'x')));
  ASSERT_TRUE(pSender->Send("after"));
  EXPECT_EQ(Take(2), (Texts{std::string(1000, 'x'), "after"}));
  EXPECT_EQ(m_pInput->Refused(), 2u);
}

TEST_F(SocketInput, Streams_AreLines_OfSeveralSenders) {
  Open(true);
  const auto pOne = Sender(), pTwo = Sender();
  ASSERT_TRUE(pOne->Send("one "));
  ASSERT_TRUE(pTwo->Send("two\n"));
  EXPECT_EQ(Take(1), Texts{"two"});
  ASSERT_TRUE(pOne->Send("more\nrest"));
  pOne->End();
  EXPECT_EQ(Take(2), (Texts{"one more", "rest"}));
}

TEST_F(SocketInput, Answer_ComesOnlyWhenStored_AndCountsAll) {
  m_settings.bAck = true;
  Open(true);
  const auto pSender = Sender();
  ASSERT_TRUE(pSender->Send("1\n2\n"));
  EXPECT_EQ(Take(2).size(), 2u);
  m_pInput->Committed();
  ASSERT_TRUE(pSender->Send("3\n4"));
  pSender->End();
  EXPECT_EQ(Take(2).size(), 2u);
  m_pInput->Ready(m_chunks, 1u << 20);
  m_pInput->Committed();
  EXPECT_EQ(pSender->ReadToEnd(), "ok 2\nok 4\n");
}

TEST_F(SocketInput, Octets_WithNonsense_EndTheConnection) {
  m_settings.eFraming = EFraming::Octets;
  Open(true);
  const auto pSender = Sender();
  ASSERT_TRUE(pSender->Send("3 a\nb"));
  EXPECT_EQ(Take(1), Texts{"a\nb"});
  ASSERT_TRUE(pSender->Send("nonsense"));
  EXPECT_TRUE(RefusedBecomes(1));
  EXPECT_EQ(pSender->ReadToEnd(), "");
}

TEST_F(SocketInput, UnlistedUser_IsRefused) {
  m_settings.uids = {geteuid() + 1};
  for (const bool bStream : {true, false}) {
    Open(bStream);
    const auto pSender = Sender();
    pSender->Send("x\n");
    EXPECT_TRUE(RefusedBecomes(1)) << bStream;
    EXPECT_EQ(m_chunks.Records(), 0u);
    m_pInput.reset();
  }
  m_settings.uids = {geteuid() + 1, geteuid()};
  for (const bool bStream : {true, false}) {
    Open(bStream);
    ASSERT_TRUE(Sender()->Send("x\n"));
    EXPECT_EQ(Take(1), Texts{"x"});
    m_pInput.reset();
  }
}

TEST_F(SocketInput, AnotherUser_IsKnownByTheKernel) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can become somebody else";
  m_settings.mode = 0666;
  m_settings.uids = {0};
  ASSERT_EQ(chmod(m_home.Root().c_str(), 0755), 0);
  for (const bool bStream : {true, false}) {
    Open(bStream);
    const pid_t pid = fork();
    if (pid == 0) {
      const bool bOther = setuid(65534) == 0;
      const CSender sender(m_settings.strPath, bStream ? SOCK_STREAM : SOCK_DGRAM);
      sender.Send("x\n");
      _exit(bOther && sender.Connected() ? 0 : 1);
    }
    int iStatus = 0;
    ASSERT_EQ(waitpid(pid, &iStatus, 0), pid);
    ASSERT_EQ(iStatus, 0);
    EXPECT_TRUE(RefusedBecomes(1)) << bStream;
    EXPECT_EQ(m_chunks.Records(), 0u);
    m_pInput.reset();
  }
}

TEST_F(SocketInput, Mode_IsAsTold_WhateverTheUmask) {
  for (const mode_t mode : {0600u, 0660u, 0666u, 0622u}) {
    m_settings.mode = mode;
    Open(true);
    EXPECT_EQ(m_home.Mode("run/in.sock"), mode);
    m_pInput.reset();
    EXPECT_FALSE(m_home.Exists("run/in.sock"));
  }
}

TEST_F(SocketInput, Leftover_IsReplaced_AServedSocketAndAFileAreNot) {
  for (const bool bStream : {true, false}) {
    Open(bStream);
    CSocketInput second(m_settings, 1000, 64, nullptr);
    EXPECT_FALSE(second.Open());
    EXPECT_EQ(errno, EADDRINUSE);
    const CPString strKeep = m_home.Path("run/keep");
    ASSERT_EQ(link(m_settings.strPath.c_str(), strKeep.c_str()), 0);
    m_pInput.reset();
    ASSERT_EQ(rename(strKeep.c_str(), m_settings.strPath.c_str()), 0);  // as a killed process leaves it
    Open(bStream);
    ASSERT_TRUE(Sender()->Send("x\n"));
    EXPECT_EQ(Take(1), Texts{"x"});
    m_pInput.reset();
  }
  m_home.WriteFile("run/in.sock", "precious");
  CSocketInput other(m_settings, 1000, 64, nullptr);
  EXPECT_FALSE(other.Open());
  EXPECT_EQ(m_home.ReadFile("run/in.sock"), "precious");
}

TEST_F(SocketInput, TooManyClients_AreRefused_UntilOneGoes) {
  m_uiMaxClients = 2;
  Open(true);
  auto pOne = Sender();
  const auto pTwo = Sender(), pThree = Sender();
  EXPECT_TRUE(RefusedBecomes(1));
  EXPECT_EQ(pThree->ReadToEnd(), "");
  pOne.reset();
  const auto pFour = Sender();
  ASSERT_TRUE(EventuallyTrue([&] {
    const auto pNext = Sender();
    pNext->Send("in\n");
    m_pInput->Ready(m_chunks, 1u << 20);
    m_pInput->Ready(m_chunks, 1u << 20);
    return m_chunks.Records() > 0;
  }));
}

TEST_F(SocketInput, Budget_LeavesTheRestInTheKernel) {
  Open(false);
  const auto pSender = Sender();
  for (int i = 0; i < 5; ++i)
    ASSERT_TRUE(pSender->Send(std::string(500, static_cast<char>('0' + i))));
  m_pInput->Ready(m_chunks, 1000);
  EXPECT_EQ(m_chunks.Records(), 2u);
  EXPECT_EQ(Take(5).size(), 5u);
}

TEST_F(SocketInput, SenderThatWaits_HarmsNobody) {
  m_settings.bAck = true;
  Open(true);
  {
    const auto pRude = Sender();
    ASSERT_TRUE(pRude->Send("x\n"));
    EXPECT_EQ(Take(1), Texts{"x"});
  }  // gone without its answer
  m_pInput->Committed();
  const auto pNext = Sender();
  ASSERT_TRUE(pNext->Send("y\n"));
  EXPECT_EQ(Take(1), Texts{"y"});
}

}  // namespace
