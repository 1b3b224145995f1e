#include "Daemon.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

CDaemon::CDaemon(bool bOpen, const std::string& strPolicy) {
  std::string strDir = m_home.Root().c_str();
  strDir.pop_back();
  chmod(strDir.c_str(), 0755);
  m_strSocket = strDir + "/bus";
  m_strConfig = strDir + "/bus.conf";
  std::ofstream file(m_strConfig);
  file << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>custom</type>
  <listen>unix:path=)"
       << m_strSocket << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow receive_type="method_call"/> <allow receive_type="method_return"/>
    <allow receive_type="error"/> <allow receive_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
)"
       << (bOpen ? R"(    <allow own="*"/> <allow send_type="method_call"/> <allow send_type="signal"/>
)"
                 : R"(    <deny own="*"/> <deny send_type="method_call"/> <deny send_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
)") << "  </policy>\n"
       << strPolicy << R"(
  <limit name="max_message_size">8388608</limit>
  <limit name="max_outgoing_bytes">16777216</limit>
  <limit name="max_incoming_bytes">134217728</limit>
  <limit name="max_replies_per_connection">4096</limit>
  <limit name="reply_timeout">330000</limit>
  <limit name="max_match_rules_per_connection">4096</limit>
</busconfig>
)";
}

bool CDaemon::Start() {
  unlink(m_strSocket.c_str());
  m_child = std::make_unique<CChild>(std::vector<std::string>{"dbus-daemon", "--config-file=" + m_strConfig,
                                                              "--nofork", "--nopidfile", "--nosyslog",
                                                              "--print-address"});
  return m_child->WaitFor("unix:");
}

void CDaemon::Kill() {
  m_child->Signal(SIGKILL);
  m_child->Wait();
}
