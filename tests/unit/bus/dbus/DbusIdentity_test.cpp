// Who may be who: the daemon's word, its policy by user, and what is refused before any callback.
#include <pwd.h>
#include <unistd.h>

#include "DbusFixture.h"
#include "RawClient.h"

namespace {

constexpr char kDenied[] = "org.freedesktop.DBus.Error.AccessDenied";

class DbusIdentityTest : public DbusTest {
 protected:
  void BeginWithReceiver() {
    Begin();
    m_own = std::make_unique<CComponent>();
    ASSERT_EQ((*m_own)->Receive(9, &m_receiver), 0u);
  }
  // Once this is answered, everything that came before it was handled.
  void Settle() {
    CRawClient client(m_daemon.Address());
    const GUID guid = NewGuid();
    ASSERT_TRUE(client.Own(guid));
    const size_t uBefore = m_receiver.Count();
    ASSERT_EQ(client.Send(m_own->Guid(), 9, "settle"), "");
    ASSERT_EQ(m_receiver.Count(), uBefore + 1);
    EXPECT_EQ(TextOf(m_receiver.At(uBefore).guidFrom), TextOf(guid));
  }

  CReceiver m_receiver{AnswerReversed};
  std::unique_ptr<CComponent> m_own;
};

TEST_F(DbusIdentityTest, ASenderWithoutAGuidIsRefused) {
  BeginWithReceiver();
  CRawClient client(m_daemon.Address());
  EXPECT_EQ(client.Send(m_own->Guid(), 9, "hello"), kDenied);
  EXPECT_EQ(m_receiver.Count(), 0u);
}

TEST_F(DbusIdentityTest, ASenderWithTwoGuidsIsRefusedUntilItGivesOneBack) {
  BeginWithReceiver();
  CRawClient client(m_daemon.Address());
  const GUID guidFirst = NewGuid(), guidSecond = NewGuid();
  ASSERT_TRUE(client.Own(guidFirst));
  ASSERT_TRUE(client.Own(guidSecond));
  EXPECT_EQ(client.Send(m_own->Guid(), 9, "hello"), kDenied);
  EXPECT_EQ(m_receiver.Count(), 0u);
  sd_bus_release_name(client.Bus(), BusNameOf(guidFirst).c_str());
  int32_t iStatus = 0;
  EXPECT_EQ(client.Send(m_own->Guid(), 9, "hello", &iStatus), "");
  EXPECT_EQ(iStatus, 7);
  EXPECT_EQ(TextOf(m_receiver.At(0).guidFrom), TextOf(guidSecond));
}

TEST_F(DbusIdentityTest, BroadcastsOfUnknownSendersAreDropped) {
  BeginWithReceiver();
  CRawClient client(m_daemon.Address());
  client.Broadcast(9, "rumour");
  Settle();
  EXPECT_EQ(m_receiver.Count(), 1u);
}

TEST_F(DbusIdentityTest, AForgedAnnouncementOfAnOwnerIsNotBelieved) {
  BeginWithReceiver();
  CRawClient client(m_daemon.Address());
  const GUID guidWanted = NewGuid();
  sd_bus_message* pForged = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(client.Bus(), &pForged, "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                      "NameOwnerChanged"),
            0);
  // Addressed to the component itself, so that it arrives whatever it subscribed to. sd-bus lets a client set
  // any sender; the daemon writes its own over it.
  sd_bus_message_set_destination(pForged, BusNameOf(m_own->Guid()).c_str());
  sd_bus_message_set_sender(pForged, "org.freedesktop.DBus");
  sd_bus_message_append(pForged, "sss", BusNameOf(guidWanted).c_str(), "", client.Unique());
  ASSERT_GE(sd_bus_send(client.Bus(), pForged, nullptr), 0);
  sd_bus_message_unref(pForged);
  EXPECT_EQ(client.Send(m_own->Guid(), 9, "hello"), kDenied);
  EXPECT_EQ(m_receiver.Count(), 0u);
}

TEST_F(DbusIdentityTest, AForgedSenderIsOverwritten) {
  BeginWithReceiver();
  const GUID guidVictim = NewGuid();
  const auto victim = MakePeer(guidVictim);
  CRawClient client(m_daemon.Address());
  sd_bus_message* pCall = nullptr;
  ASSERT_GE(sd_bus_message_new_method_call(client.Bus(), &pCall, BusNameOf(m_own->Guid()).c_str(),
                                           BusPathOf(9).c_str(), kBusInterface, "Send"),
            0);
  sd_bus_message_set_sender(pCall, BusNameOf(guidVictim).c_str());
  sd_bus_message_append_array(pCall, 'y', "x", 1);
  EXPECT_EQ(client.Finish(pCall), kDenied);
  EXPECT_EQ(m_receiver.Count(), 0u);
}

TEST_F(DbusIdentityTest, AGuidOfThisProcessCannotBeUsedFromOutside) {
  ASSERT_TRUE(m_daemon.Start());
  // Taken before this process claims it.
  CRawClient thief(m_daemon.Address());
  CComponent own;
  ASSERT_TRUE(thief.Own(own.Guid()));
  ASSERT_EQ(Connect(m_daemon.Address()), 0u);
  EXPECT_TRUE(m_states.Wait(kBusStateRefused));
  CComponent target;
  CReceiver receiver(AnswerReversed);
  ASSERT_EQ(target->Receive(9, &receiver), 0u);
  EXPECT_EQ(thief.Send(target.Guid(), 9, "as own"), kDenied);
  EXPECT_EQ(receiver.Count(), 0u);
  // In the process itself nothing changed.
  CCompletion done;
  ASSERT_EQ(own.Send(target, 9, "abc", &done), 0u);
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(done.At(0).strData, "cba");
}

TEST_F(DbusIdentityTest, ATakenGuidIsRefusedAtInitialize) {
  Begin();
  const GUID guid = NewGuid();
  CRawClient other(m_daemon.Address());
  ASSERT_TRUE(other.Own(guid));
  IBusContext* pContext = ZxBusCreateContext();
  EXPECT_EQ(pContext->Initialize(&guid), uint32_t{kBusErrTaken});
  // Nothing of the attempt stays.
  sd_bus_release_name(other.Bus(), BusNameOf(guid).c_str());
  EXPECT_EQ(pContext->Initialize(&guid), 0u);
  ZxBusDestroyContext(pContext);
}

TEST_F(DbusIdentityTest, ANameIsFreeOnceItsComponentLeft) {
  Begin();
  const GUID guid = NewGuid();
  for (int i = 0; i < 20; ++i) {
    IBusContext* pContext = ZxBusCreateContext();
    ASSERT_EQ(pContext->Initialize(&guid), 0u) << i;
    ZxBusDestroyContext(pContext);
    CRawClient other(m_daemon.Address());
    ASSERT_TRUE(other.Own(guid)) << i;
    ASSERT_GE(sd_bus_release_name(other.Bus(), BusNameOf(guid).c_str()), 0);
  }
}

// Users that every Debian has.
constexpr uid_t kUserDaemon = 1, kUserGames = 5;
constexpr char kGuidDaemon[] = "11111111-0000-4000-8000-000000000001";
constexpr char kGuidGames[] = "22222222-0000-4000-8000-000000000002";

std::string PolicyFor(const char* pszUser, const char* pszGuid, uint32_t uiType) {
  return std::string("  <policy user=\"") + pszUser + "\">\n    <allow own=\"" + BusNameOf(GUID(pszGuid)) +
         "\"/>\n    <allow send_destination_prefix=\"" + kBusNameSpace + "\" send_interface=\"" +
         kBusInterface + "\" send_path=\"" + BusPathOf(uiType) + "\"/>\n  </policy>\n";
}

std::string RootPolicy() {
  return std::string("  <policy user=\"root\">\n    <allow own_prefix=\"") + kBusNameSpace +
         "\"/>\n    <allow send_destination_prefix=\"" + kBusNameSpace + "\" send_interface=\"" +
         kBusInterface + "\"/>\n    <allow send_type=\"signal\" send_interface=\"" + kBusInterface +
         "\"/>\n  </policy>\n";
}

class DbusPolicyTest : public DbusTest {
 protected:
  DbusPolicyTest()
      : DbusTest(false,
                 RootPolicy() + PolicyFor("daemon", kGuidDaemon, 9) + PolicyFor("games", kGuidGames, 10)) {}
  void SetUp() override {
    if (getuid() != 0)
      GTEST_SKIP() << "needs root to become other users";
    Begin();
  }
  std::unique_ptr<CChild> Peer(const char* pszGuid, uid_t uid) {
    return std::make_unique<CChild>(std::vector<std::string>{ZX_BUS_PEER, m_daemon.Address(), pszGuid}, uid);
  }
  static std::string Hex(uint32_t ui) {
    char sz[16];
    std::snprintf(sz, sizeof(sz), "%x", ui);
    return sz;
  }
};

TEST_F(DbusPolicyTest, AUserGetsItsOwnGuidOnly) {
  const auto right = Peer(kGuidDaemon, kUserDaemon);
  EXPECT_TRUE(right->WaitFor("initialize 0"));
  const auto wrong = Peer(kGuidDaemon, kUserGames);
  EXPECT_TRUE(wrong->WaitFor("initialize " + Hex(kBusErrDenied)));
  const auto nobodys = Peer("33333333-0000-4000-8000-000000000003", kUserGames);
  EXPECT_TRUE(nobodys->WaitFor("initialize " + Hex(kBusErrDenied)));
  const auto second = Peer(kGuidDaemon, kUserDaemon);
  EXPECT_TRUE(second->WaitFor("initialize " + Hex(kBusErrTaken)));
}

TEST_F(DbusPolicyTest, ATypeThatThePolicyDoesNotNameIsRefused) {
  CComponent own;
  CReceiver receiver(AnswerReversed);
  ASSERT_EQ(own->Receive(9, &receiver), 0u);
  ASSERT_EQ(own->Receive(10, &receiver), 0u);
  const auto peer = Peer(kGuidDaemon, kUserDaemon);
  ASSERT_TRUE(peer->WaitFor("up"));
  peer->Tell("send " + TextOf(own.Guid()) + " 9 3 60000 1");
  EXPECT_TRUE(peer->WaitFor("done 7 type 10 bytes 3"));
  peer->Tell("send " + TextOf(own.Guid()) + " 10 3 60000 1");
  EXPECT_TRUE(peer->WaitFor("done " + Hex(kBusErrDenied)));
  EXPECT_EQ(receiver.Count(), 1u);
  // And from here to there.
  CCompletion done;
  ASSERT_EQ(SendWhenKnown(own, GUID(kGuidDaemon), kReversed, "abc", &done), 0u);
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(done.At(0).uiStatus, 7u);
}

TEST_F(DbusPolicyTest, ATimedOutCallIsWithdrawnUnderThePolicyToo) {
  CComponent own;
  CReceiver keeps;
  ASSERT_EQ(own->Receive(9, &keeps), 0u);
  const auto peer = Peer(kGuidDaemon, kUserDaemon);
  ASSERT_TRUE(peer->WaitFor("up"));
  peer->Tell("send " + TextOf(own.Guid()) + " 9 3 100 1");
  ASSERT_TRUE(keeps.Wait());
  EXPECT_TRUE(peer->WaitFor("done " + Hex(kBusErrTimeout)));
  EXPECT_TRUE(EventuallyTrue([&] { return Figure(own.Guid(), "unanswered") == 0; }));
  EXPECT_EQ(own->Reply(0, 9, "", 0, keeps.At(0).pBaton), uint32_t{kBusErrInvalid});
}

}  // namespace
