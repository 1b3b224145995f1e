#include "BusPolicy.h"

#include <algorithm>
#include <set>

namespace {

// Bytes and counts of one daemon. What waits for one stalled receiver must stay well below what one sender
// may have under way, or a stalled receiver would stop a sender for everybody. Reply slots are freed by the
// daemon only, so they need a time above the longest that a send may take.
constexpr const char* kLimits =
    "  <limit name=\"max_message_size\">8388608</limit>\n"
    "  <limit name=\"max_outgoing_bytes\">16777216</limit>\n"
    "  <limit name=\"max_incoming_bytes\">134217728</limit>\n"
    "  <limit name=\"max_replies_per_connection\">4096</limit>\n"
    "  <limit name=\"reply_timeout\">330000</limit>\n"
    "  <limit name=\"max_completed_connections\">4096</limit>\n"
    "  <limit name=\"max_incomplete_connections\">256</limit>\n"
    "  <limit name=\"auth_timeout\">30000</limit>\n"
    "  <limit name=\"max_match_rules_per_connection\">4096</limit>\n";

// One user is many components on a host that is not root; on one that is, a component's user is one or few.
constexpr int kConnectionsPerUser = 256;
constexpr int kConnectionsOfOneUser = 2048;

// Listening on what the host hands over: the socket belongs to the host, so the daemon needs no right to
// write anywhere, and clients find the same socket when it is started again.
constexpr const char* kHead =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<!-- Written by zxhost from etc/coms/client/*/config.json; changes here are overwritten. -->\n"
    "<busconfig>\n"
    "  <type>custom</type>\n"
    "  <listen>systemd:</listen>\n"
    "  <auth>EXTERNAL</auth>\n";

constexpr const char* kDefaultRules =
    "    <deny own=\"*\"/>\n"
    "    <deny send_type=\"method_call\"/>\n"
    "    <deny send_type=\"signal\"/>\n"
    "    <allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/>\n"
    "    <deny send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\" "
    "send_member=\"ReloadConfig\"/>\n"
    "    <deny send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\" "
    "send_member=\"UpdateActivationEnvironment\"/>\n"
    "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
    "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
    "    <allow receive_type=\"method_call\"/>\n"
    "    <allow receive_type=\"method_return\"/>\n"
    "    <allow receive_type=\"error\"/>\n"
    "    <allow receive_type=\"signal\"/>\n";

// The host and people with its rights: every name, every type, monitoring and statistics.
constexpr const char* kHostRules =
    "    <allow own_prefix=\"com.zxagent.bus1\"/>\n"
    "    <allow send_destination_prefix=\"com.zxagent.bus1\"/>\n"
    "    <allow send_type=\"signal\" send_interface=\"com.zxagent.bus1.Component\"/>\n"
    "    <allow send_destination=\"org.freedesktop.DBus\"/>\n";

CPString AllowUser(uid_t uid) {
  return CPString::Make("    <allow user=\"%u\"/>\n", uid);
}

CPString HostBlock(uid_t uid) {
  return CPString::Make("  <policy user=\"%u\">\n", uid) + kHostRules + "  </policy>\n";
}

CPString BusName(const GUID& guid) {
  std::string strHex = guid.ToLower().Str();
  strHex.erase(std::remove(strHex.begin(), strHex.end(), '-'), strHex.end());
  return "com.zxagent.bus1.c.g" + strHex;
}

CPString ComponentBlock(const _ComponentEntry& entry) {
  CPString str = CPString::Make("  <policy user=\"%u\">\n", entry.uid);
  for (const GUID& guid : entry.manifest.guids)
    str += "    <allow own=\"" + BusName(guid) + "\"/>\n";
  for (const uint32_t uiType : entry.manifest.send)
    str += CPString::Make(
        "    <allow send_type=\"method_call\" send_destination_prefix=\"com.zxagent.bus1.c\" "
        "send_interface=\"com.zxagent.bus1.Component\" send_path=\"/com/zxagent/bus1/type/%u\"/>\n",
        uiType);
  for (const uint32_t uiType : entry.manifest.broadcast)
    str += CPString::Make(
        "    <allow send_type=\"signal\" send_interface=\"com.zxagent.bus1.Component\" "
        "send_path=\"/com/zxagent/bus1/type/%u\"/>\n",
        uiType);
  return str + "  </policy>\n";
}

}  // namespace

CPString BuildBusPolicy(const _BusPolicyInput& input) {
  const bool bRoot = input.uidHost == 0;
  std::set<uid_t> users{0, input.uidHost};
  CPString strBlocks;
  for (const uid_t uid : users)
    strBlocks += HostBlock(uid);
  if (bRoot && input.pComponents != nullptr) {
    for (const _ComponentEntry& entry : input.pComponents->entries) {
      if (!entry.strRefused.IsEmpty())
        continue;
      users.insert(entry.uid);
      strBlocks += ComponentBlock(entry);
    }
  }
  CPString str = CPString(kHead) + "  <policy context=\"default\">\n";
  for (const uid_t uid : users)
    str += AllowUser(uid);
  str += CPString(kDefaultRules) + "  </policy>\n" + strBlocks + kLimits;
  str += CPString::Make("  <limit name=\"max_connections_per_user\">%d</limit>\n",
                        bRoot ? kConnectionsPerUser : kConnectionsOfOneUser);
  return str + "</busconfig>\n";
}
