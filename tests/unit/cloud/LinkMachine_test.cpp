#include "platform/cloud/LinkMachine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

#include "CloudFakes.h"

using namespace zxcloud;
using ::testing::ElementsAre;

namespace {

class CLinkMachineTest : public ::testing::Test, public ILinkActions {
 protected:
  void Dial(const _CloudAddress& address) override { m_seen.push_back("dial " + address.Text()); }
  void Hangup() override { m_seen.push_back("hangup"); }
  void LinkUp(const _CloudAddress& address) override { m_seen.push_back("up " + address.Text()); }
  void LinkDown(const std::string& strReason) override { m_seen.push_back("down " + strReason); }
  void LinkWaits(const std::string& strReasons, uint32_t dwDelayMs) override {
    m_seen.push_back("waits " + std::to_string(dwDelayMs) + " " + strReasons);
  }

  static std::vector<_CloudAddress> List(const std::string& strText) {
    return ParseAddressList(strText, 1, false);
  }
  // Moves time to the deadline.
  void Expire() {
    ASSERT_NE(m_machine.Deadline(), 0u);
    m_clock.Advance(m_machine.Deadline() - m_clock.NowMs());
    m_machine.OnTime();
  }
  std::vector<std::string> Seen() { return std::exchange(m_seen, {}); }

  _LinkTimes m_times;
  CFakeClock m_clock;
  CFakeRandom m_random;
  std::vector<std::string> m_seen;
  CLinkMachine m_machine{m_times, m_clock, m_random, *this};
};

}  // namespace

TEST_F(CLinkMachineTest, Off_StaysOff_WithoutAddresses) {
  m_machine.SetAddresses({}, 60);
  m_machine.OnTime();
  m_machine.OnReady();
  m_machine.OnFailed("x");
  m_machine.OnRefused("x");
  EXPECT_EQ(m_machine.State(), ELinkState::Off);
  EXPECT_EQ(m_machine.Deadline(), 0u);
  EXPECT_TRUE(Seen().empty());
}

TEST_F(CLinkMachineTest, Connecting_ComesUp_AndHasNoDeadlineThen) {
  m_machine.SetAddresses(List("a:1"), 60);
  EXPECT_EQ(m_machine.State(), ELinkState::Connecting);
  m_machine.OnReady();
  EXPECT_EQ(m_machine.State(), ELinkState::Up);
  EXPECT_EQ(m_machine.Deadline(), 0u);
  EXPECT_THAT(Seen(), ElementsAre("dial a:1", "up a:1"));
}

TEST_F(CLinkMachineTest, Connecting_TriesTheNextAddressAtOnce_ThenWaitsWithBackoff) {
  m_machine.SetAddresses(List("a:1,b:2"), 60);
  m_machine.OnFailed("refused");
  m_machine.OnFailed("unreachable");
  EXPECT_THAT(Seen(), ElementsAre("dial a:1", "dial b:2", "waits 1000 a:1: refused; b:2: unreachable"));
  Expire();
  m_machine.OnFailed("r");
  m_machine.OnFailed("r");
  EXPECT_THAT(Seen(), ElementsAre("dial a:1", "dial b:2", "waits 2000 a:1: r; b:2: r"));
}

TEST_F(CLinkMachineTest, Connecting_HasATimeOutForEachStage) {
  m_machine.SetAddresses(List("a:1,b:2,c:3,d:4"), 60);
  EXPECT_EQ(m_machine.Deadline() - m_clock.NowMs(), m_times.dwDial);
  Expire();
  m_machine.OnStage(ELinkStage::Connack);
  EXPECT_EQ(m_machine.Deadline() - m_clock.NowMs(), m_times.dwConnack);
  m_clock.Advance(m_times.dwConnack - 1);
  m_machine.OnTime();
  EXPECT_EQ(m_machine.Current().Text(), "b:2");
  Expire();
  m_machine.OnStage(ELinkStage::Connack);
  m_machine.OnStage(ELinkStage::Ready);
  Expire();
  m_machine.OnFailed("x");
  EXPECT_THAT(Seen(),
              ElementsAre("dial a:1", "hangup", "dial b:2", "hangup", "dial c:3", "hangup", "dial d:4",
                          "waits 1000 a:1: no connection within the time-out; b:2: no CONNACK within the "
                          "time-out; c:3: no answer to the subscription within the time-out; d:4: x"));
}

TEST_F(CLinkMachineTest, Refused_WaitsAtTheCap_WithoutTryingOthers) {
  m_machine.SetAddresses(List("a:1,b:2"), 60);
  m_random.uPercent = 0;
  m_machine.OnRefused("credentials");
  EXPECT_EQ(m_machine.State(), ELinkState::Waiting);
  EXPECT_THAT(Seen(), ElementsAre("dial a:1", "waits 300000 a:1: credentials"));
}

TEST_F(CLinkMachineTest, Lost_WaitsWithinTheSpread_AndGoesOnWithTheNextAddress) {
  m_machine.SetAddresses(List("a:1,b:2"), 60);
  m_machine.OnReady();
  m_clock.Advance(m_times.dwStable);
  m_machine.OnFailed("closed");
  EXPECT_THAT(Seen(), ElementsAre("dial a:1", "up a:1", "down closed", "waits 60000 a:1: closed"));
  Expire();
  EXPECT_THAT(Seen(), ElementsAre("dial b:2"));
}

TEST_F(CLinkMachineTest, Lost_KeepsTheSpread_UntilThereIsAConnectionAgain) {
  m_machine.SetAddresses(List("a:1"), 60);
  m_machine.OnFailed("x");  // never connected: the window is the back-off's
  EXPECT_EQ(Seen().back(), "waits 1000 a:1: x");
  Expire();
  m_machine.OnReady();
  m_clock.Advance(m_times.dwStable);
  m_machine.OnFailed("closed");
  std::vector<std::string> waits;
  for (int i = 0; i < 8; ++i) {
    Expire();
    m_machine.OnFailed("x");
    waits.push_back(Seen().back());
  }
  EXPECT_THAT(waits, ElementsAre("waits 60000 a:1: x", "waits 60000 a:1: x", "waits 60000 a:1: x",
                                 "waits 60000 a:1: x", "waits 60000 a:1: x", "waits 60000 a:1: x",
                                 "waits 64000 a:1: x", "waits 128000 a:1: x"));
}

TEST_F(CLinkMachineTest, RetryMax_BoundsEveryWaitButTheSpreadAndThatOfARefusal) {
  m_machine.SetRetryMax(5);
  m_machine.SetAddresses(List("a:1"), 0);
  std::vector<std::string> waits;
  for (int i = 0; i < 4; ++i) {
    m_machine.OnFailed("x");
    waits.push_back(Seen().back());
    Expire();
  }
  m_machine.OnReady();
  m_machine.OnFailed("kicked");
  waits.push_back(Seen().back());
  Expire();
  m_machine.OnRefused("no");
  waits.push_back(Seen().back());
  EXPECT_THAT(waits, ElementsAre("waits 1000 a:1: x", "waits 2000 a:1: x", "waits 4000 a:1: x",
                                 "waits 5000 a:1: x", "waits 5000 a:1: kicked", "waits 150000 a:1: no"));
}

TEST_F(CLinkMachineTest, Crowded_WaitsLongerWithEachRound) {
  m_machine.SetAddresses(List("a:1"), 60);
  std::vector<uint64_t> patience;
  for (int i = 0; i < 7; ++i) {
    m_machine.OnStage(ELinkStage::Connack);
    patience.push_back(m_machine.Deadline() - m_clock.NowMs());
    Expire();  // the time-out
    Expire();  // the wait
  }
  EXPECT_THAT(patience, ElementsAre(2000, 2000, 4000, 8000, 16000, 30000, 30000));
  m_machine.OnReady();
  m_machine.OnFailed("closed");
  Expire();
  m_machine.OnStage(ELinkStage::Connack);
  EXPECT_EQ(m_machine.Deadline() - m_clock.NowMs(), m_times.dwConnack);
}

TEST_F(CLinkMachineTest, Lost_AtOnceAgainAndAgain_BacksOffAllTheSame) {
  m_machine.SetAddresses(List("a:1"), 0);
  std::vector<std::string> waits;
  for (int i = 0; i < 4; ++i) {
    m_machine.OnReady();
    m_machine.OnFailed("kicked");
    waits.push_back(Seen().back());
    Expire();
  }
  EXPECT_THAT(waits, ElementsAre("waits 1000 a:1: kicked", "waits 2000 a:1: kicked", "waits 4000 a:1: kicked",
                                 "waits 8000 a:1: kicked"));
  // A link that has lived long enough starts anew.
  m_machine.OnReady();
  m_clock.Advance(m_times.dwStable);
  m_machine.OnFailed("kicked");
  EXPECT_EQ(Seen().back(), "waits 1000 a:1: kicked");
}

TEST_F(CLinkMachineTest, Waiting_KeepsItsTime_WhenTheSameAddressesComeAgain) {
  m_machine.SetAddresses(List("a:1"), 60);
  m_machine.OnFailed("x");
  Seen();
  m_machine.SetAddresses(List("a:1"), 60);
  m_machine.SetAddresses(List("a:1,b:2"), 60);
  EXPECT_TRUE(Seen().empty());
  m_machine.SetAddresses(List("b:2"), 60);
  EXPECT_THAT(Seen(), ElementsAre("dial b:2"));
}

TEST_F(CLinkMachineTest, NewAddresses_EndAnAttemptOrALink_ThatIsNotListedAnyMore) {
  m_machine.SetAddresses(List("a:1"), 60);
  m_machine.SetAddresses(List("b:2,a:1"), 60);
  EXPECT_THAT(Seen(), ElementsAre("dial a:1"));
  m_machine.SetAddresses(List("c:3"), 60);
  EXPECT_THAT(Seen(), ElementsAre("hangup", "dial c:3"));
  m_machine.OnReady();
  m_machine.SetAddresses(List("d:4,c:3"), 60);
  EXPECT_THAT(Seen(), ElementsAre("up c:3"));
  m_machine.SetAddresses(List("e:5"), 60);
  EXPECT_THAT(Seen(), ElementsAre("hangup", "down the address is not listed any more", "dial e:5"));
}

TEST_F(CLinkMachineTest, NoAddresses_TurnTheLinkOff_FromEveryState) {
  m_machine.SetAddresses(List("a:1"), 60);
  m_machine.SetAddresses({}, 60);
  EXPECT_EQ(m_machine.State(), ELinkState::Off);
  m_machine.SetAddresses(List("a:1"), 60);
  m_machine.OnFailed("x");
  m_machine.SetAddresses({}, 60);
  EXPECT_EQ(m_machine.State(), ELinkState::Off);
  m_machine.SetAddresses(List("a:1"), 60);
  m_machine.OnReady();
  Seen();
  m_machine.SetAddresses({}, 60);
  EXPECT_THAT(Seen(), ElementsAre("hangup", "down the address is not listed any more"));
  EXPECT_EQ(m_machine.State(), ELinkState::Off);
  EXPECT_EQ(m_machine.Deadline(), 0u);
}
