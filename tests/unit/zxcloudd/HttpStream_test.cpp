#include "cloud/HttpStream.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

namespace zxcloudd {
namespace {

class CHttpStream_ : public testing::Test {
 protected:
  CHttpStream_() {
    m_iStop = eventfd(0, EFD_NONBLOCK);
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_fds), 0);
    m_limits.uHeadBytes = 64;
    m_limits.uBodyBytes = 32;
  }
  ~CHttpStream_() override {
    m_pStream.reset();
    close(m_iStop);
    close(m_fds[0]);
    if (m_fds[1] >= 0)
      close(m_fds[1]);
  }
  CHttpStream& Stream() {
    if (m_pStream == nullptr)
      m_pStream = std::make_unique<CHttpStream>(m_fds[0], nullptr, m_iStop, m_limits);
    return *m_pStream;
  }
  void Send(const std::string& str) {
    ASSERT_EQ(write(m_fds[1], str.data(), str.size()), static_cast<ssize_t>(str.size()));
  }
  void SetStop() {
    const uint64_t u64One = 1;
    ASSERT_EQ(write(m_iStop, &u64One, sizeof(u64One)), static_cast<ssize_t>(sizeof(u64One)));
  }
  // Byte by byte, as the library reads a head.
  std::string ReadBytes(size_t uCount) {
    std::string str;
    for (char ch = 0; str.size() < uCount && Stream().read(&ch, 1) == 1;)
      str += ch;
    return str;
  }

  int m_iStop = -1, m_fds[2] = {-1, -1};
  _StreamLimits m_limits;
  std::unique_ptr<CHttpStream> m_pStream;
};

TEST_F(CHttpStream_, Head_EndsTheRequest_WhenItIsTooLong) {
  Send(std::string(100, 'h'));
  ASSERT_TRUE(Stream().WaitRequest(1000));
  EXPECT_EQ(ReadBytes(1000).size(), 64u);
  EXPECT_FALSE(Stream().WaitRequest(1000)) << "the rest is no request";
}

TEST_F(CHttpStream_, Body_HasItsOwnBudget) {
  const std::string strHead = "GET / HTTP/1.1\r\nA: b\r\n\r\n";
  Send(strHead + std::string(100, 'b'));
  ASSERT_TRUE(Stream().WaitRequest(1000));
  EXPECT_EQ(ReadBytes(1000), strHead + std::string(32, 'b'));
}

TEST_F(CHttpStream_, Body_BeginsAfterTheEmptyLine_AlsoWithoutCarriageReturns) {
  const std::string strHead = "GET / HTTP/1.1\nA: b\n\n";
  Send(strHead + std::string(100, 'b'));
  ASSERT_TRUE(Stream().WaitRequest(1000));
  EXPECT_EQ(ReadBytes(1000), strHead + std::string(32, 'b'));
}

TEST_F(CHttpStream_, Linger_TakesWhatStillArrives_UntilThePeerCloses) {
  m_limits.u64LingerMs = 40000;
  Send(std::string(20000, 'x'));
  std::thread peer([this] {
    char ch = 0;
    EXPECT_EQ(read(m_fds[1], &ch, 1), 0) << "the peer is told first";
    Send(std::string(20000, 'y'));
    close(m_fds[1]);
    m_fds[1] = -1;
  });
  Stream().Linger();
  peer.join();
  char ch = 0;
  EXPECT_EQ(recv(m_fds[0], &ch, 1, MSG_DONTWAIT), 0) << "nothing is left unread";
}

TEST_F(CHttpStream_, Linger_EndsAtItsTime_AndOnStop) {
  m_limits.u64LingerMs = 1;
  Stream().Linger();
  m_pStream.reset();
  m_limits.u64LingerMs = 3600000;
  SetStop();
  Stream().Linger();
}

TEST_F(CHttpStream_, NextRequest_StartsWithAFullBudget) {
  const std::string strHead = "GET /" + std::string(40, 'x') + "\r\n\r\n";
  Send(strHead + strHead);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(Stream().WaitRequest(1000));
    EXPECT_EQ(ReadBytes(strHead.size()), strHead);
  }
}

TEST_F(CHttpStream_, Head_MustBeThereInTime) {
  m_limits.u64HeadMs = 50;
  Send("GET");
  ASSERT_TRUE(Stream().WaitRequest(1000));
  EXPECT_EQ(ReadBytes(1000), "GET");
}

TEST_F(CHttpStream_, Stall_EndsABodyThatDoesNotCome) {
  m_limits.u64StallMs = 50;
  Send("\r\nP\r\n\r\nb");
  ASSERT_TRUE(Stream().WaitRequest(1000));
  EXPECT_EQ(ReadBytes(1000), "\r\nP\r\n\r\nb");
}

TEST_F(CHttpStream_, WaitRequest_EndsWhenIdleTooLong) {
  EXPECT_FALSE(Stream().WaitRequest(20));
}

TEST_F(CHttpStream_, Stop_EndsWaitingAndReading) {
  SetStop();
  EXPECT_FALSE(Stream().WaitRequest(600000));
  char ch = 0;
  EXPECT_EQ(Stream().read(&ch, 1), -1);
}

TEST_F(CHttpStream_, Stop_LetsAnAnswerOut) {
  SetStop();
  EXPECT_EQ(Stream().write("answer", 6), 6);
  char buffer[16];
  EXPECT_EQ(read(m_fds[1], buffer, sizeof(buffer)), 6);
}

TEST_F(CHttpStream_, Write_EndsWhenThePeerDoesNotRead) {
  m_limits.u64StallMs = 50;
  const std::string str(8 << 20, 'x');
  EXPECT_EQ(Stream().write(str.data(), str.size()), -1);
}

TEST_F(CHttpStream_, Read_EndsWhenThePeerIsGone) {
  Send("G");
  close(m_fds[1]);
  m_fds[1] = -1;
  ASSERT_TRUE(Stream().WaitRequest(1000));
  EXPECT_EQ(ReadBytes(10), "G");
  EXPECT_EQ(Stream().write("x", 1), -1) << "and no signal";
}

}  // namespace
}  // namespace zxcloudd
