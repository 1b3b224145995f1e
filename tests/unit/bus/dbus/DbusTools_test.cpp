// The stock tools on the bus, as docs/bus.md shows them.
#include "DbusFixture.h"
#include "platform/bus/BusNames.h"

namespace {

class DbusToolsTest : public DbusTest {
 protected:
  void SetUp() override {
    Begin();
    m_own = std::make_unique<CComponent>();
    ASSERT_EQ((*m_own)->Receive(20002, &m_receiver), 0u);
    m_strName = BusNameOf(m_own->Guid());
  }
  // Runs to its end; what it printed.
  std::string Run(const std::vector<std::string>& args) {
    CChild child(args);
    child.CloseInput();
    EXPECT_TRUE(EventuallyTrue([&] { return child.HasEnded(); })) << args[0];
    std::string str;
    for (const auto& strLine : child.Lines())
      str += strLine + "\n";
    return str;
  }

  CReceiver m_receiver;
  std::unique_ptr<CComponent> m_own;
  std::string m_strName;
};

TEST_F(DbusToolsTest, BusctlListsTreesAndIntrospects) {
  const std::string strAddress = "--address=" + m_daemon.Address();
  EXPECT_NE(Run({"busctl", strAddress, "list", "--no-pager"}).find(m_strName), std::string::npos);
  EXPECT_NE(Run({"busctl", strAddress, "tree", "--no-pager", "--list", m_strName})
                .find("/com/zxagent/bus1/type/20002\n"),
            std::string::npos);
  const std::string strInterface =
      Run({"busctl", strAddress, "introspect", "--no-pager", m_strName, "/com/zxagent/bus1/type/20002"});
  EXPECT_NE(strInterface.find("com.zxagent.bus1.Component"), std::string::npos) << strInterface;
  EXPECT_NE(strInterface.find(".Send"), std::string::npos);
  EXPECT_NE(strInterface.find("iuay"), std::string::npos);
  EXPECT_NE(strInterface.find(".Broadcast"), std::string::npos);
}

TEST_F(DbusToolsTest, GdbusIntrospects) {
  const std::string str = Run({"gdbus", "introspect", "--address", m_daemon.Address(), "--dest", m_strName,
                               "--object-path", "/com/zxagent/bus1/type/20002"});
  EXPECT_NE(str.find("Send(in  ay data"), std::string::npos) << str;
}

TEST_F(DbusToolsTest, DbusMonitorSeesTypesAndBodies) {
  CChild monitor({"dbus-monitor", "--address", m_daemon.Address()});
  ASSERT_TRUE(
      monitor.WaitLine([](const std::string& str) { return str.find("NameLost") != std::string::npos; }));
  const auto peer = MakePeer(NewGuid());
  peer->Tell("send " + TextOf(m_own->Guid()) + " 20002 5 60000 1");
  ASSERT_TRUE(m_receiver.Wait());
  EXPECT_TRUE(monitor.WaitLine([&](const std::string& str) {
    return str.find("destination=" + m_strName) != std::string::npos &&
           str.find("path=/com/zxagent/bus1/type/20002") != std::string::npos &&
           str.find("member=Send") != std::string::npos;
  }));
}

}  // namespace
