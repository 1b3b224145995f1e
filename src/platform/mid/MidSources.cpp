#include "platform/mid/MidSources.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr size_t kValueMaxBytes = 512;  // of one sysfs attribute; what follows is cut
constexpr int kDiskMaxDepth = 8;        // partition on encryption on volume group on RAID ...

constexpr std::string_view kPlaceholders[] = {
    "none",
    "n/a",
    "na",
    "nil",
    "null",
    "unknown",
    "undefined",
    "default",
    "default string",
    "default_string",
    "not specified",
    "not applicable",
    "not available",
    "not present",
    "not settable",
    "oem",
    "o.e.m.",
    "to be filled by o.e.m.",
    "to be filled by o.e.m",
    "to be filled by oem",
    "fill by oem",
    "system serial number",
    "chassis serial number",
    "base board serial number",
    "board serial number",
    "serial number",
    "serial",
    "system uuid",
    "empty",
    "invalid",
    "test",
    "sample",
    "no asset tag",
    "12345",
    "123456",
    "1234567",
    "12345678",
    "123456789",
    "1234567890",
    "0123456789",
    "0123456789abcdef",
    "abcdefghijklmnopqrstuvwxyz",
    // Boards that all left the factory with this one.
    "03000200-0400-0500-0006-000700080009",
    "00020003-0004-0005-0006-000700080009",
    "12345678-1234-5678-90ab-cddeefaabbcc",
    "12345678-1234-5678-1234-567812345678",
    "fefefefe-fefe-fefe-fefe-fefefefefefe",
    "4c4c4544-0000-2010-8020-80c04f202020",
};

// An emulator's numbering of its own disks, the same on every machine it runs.
constexpr std::string_view kEmulatedDisk = "qm000";

// Printable ASCII only, runs of blanks joined, ends trimmed, lower case.
std::string Normalise(std::string_view svRaw) {
  std::string str;
  for (const char ch : svRaw) {
    const unsigned char uch = static_cast<unsigned char>(ch);
    if (uch > ' ' && uch < 0x7F)
      str += static_cast<char>(std::tolower(uch));
    else if (!str.empty() && str.back() != ' ')
      str += ' ';
  }
  while (!str.empty() && str.back() == ' ')
    str.pop_back();
  return str;
}

// "0", "000-00", "ffffffff", "xxxx": one sign repeated between separators says nothing.
bool IsOneSign(const std::string& str) {
  char chSeen = 0;
  for (const char ch : str) {
    if (std::isalnum(static_cast<unsigned char>(ch)) == 0)
      continue;
    if (chSeen != 0 && ch != chSeen)
      return false;
    chSeen = ch;
  }
  return true;
}

std::string KeepSerial(std::string str) {
  return CMidSources::IsPlaceholder(str) ? std::string() : str;
}

// "naa.5000c500a1b2c3d4", "t10.ata     qemu harddisk      qm00001": the part that numbers the disk decides.
std::string KeepWwid(std::string str) {
  const size_t uBlank = str.rfind(' ');
  const size_t uDot = str.find('.');
  const size_t uStart = uBlank != std::string::npos ? uBlank + 1 : (uDot != std::string::npos ? uDot + 1 : 0);
  return CMidSources::IsPlaceholder(str.substr(uStart)) ? std::string() : str;
}

bool IsMac(const std::string& str) {
  if (str.size() != 17)
    return false;
  for (size_t i = 0; i < str.size(); ++i) {
    const unsigned char uch = static_cast<unsigned char>(str[i]);
    if (i % 3 == 2 ? uch != ':' : std::isxdigit(uch) == 0)
      return false;
  }
  return !IsOneSign(str);
}

// The octal escapes of mountinfo fields ("\040" is a blank).
std::string Unescape(const std::string& str) {
  std::string strOut;
  for (size_t i = 0; i < str.size(); ++i) {
    if (str[i] == '\\' && i + 3 < str.size()) {
      strOut += static_cast<char>(std::strtol(str.substr(i + 1, 3).c_str(), nullptr, 8));
      i += 3;
    } else {
      strOut += str[i];
    }
  }
  return strOut;
}

std::vector<std::string> SortedNames(const std::string& strDir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(strDir, ec), end; !ec && it != end; it.increment(ec))
    names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

bool CMidSources::IsPlaceholder(const std::string& strValue) {
  const std::string str = Normalise(strValue);
  if (str.empty() || IsOneSign(str) || str.starts_with(kEmulatedDisk))
    return true;
  return std::find(std::begin(kPlaceholders), std::end(kPlaceholders), str) != std::end(kPlaceholders);
}

std::string CMidSources::ReadLine(const std::string& strPath) const {
  std::ifstream file(m_strRoot + strPath, std::ios::binary);
  if (!file)
    return {};
  std::array<char, kValueMaxBytes> buffer{};
  file.read(buffer.data(), buffer.size());
  const std::string_view sv(buffer.data(), static_cast<size_t>(file.gcount()));
  return Normalise(sv.substr(0, sv.find('\n')));
}

std::string CMidSources::Serial() const {
  static constexpr const char* kFiles[] = {
      "/sys/class/dmi/id/product_uuid", "/sys/class/dmi/id/product_serial", "/sys/class/dmi/id/board_serial",
      "/sys/firmware/devicetree/base/serial-number"};
  for (const char* pszFile : kFiles) {
    std::string str = KeepSerial(ReadLine(pszFile));
    if (!str.empty())
      return str;
  }
  return {};
}

std::string CMidSources::RootBlockDevice() const {
  std::ifstream file(m_strRoot + "/proc/self/mountinfo");
  std::string strLine;
  std::string strDevice;
  // A later mount on "/" covers an earlier one.
  while (std::getline(file, strLine)) {
    std::istringstream fields(strLine);
    std::string strId, strParent, strNumber, strInner, strPoint, strField;
    fields >> strId >> strParent >> strNumber >> strInner >> strPoint;
    if (strPoint != "/")
      continue;
    while (fields >> strField && strField != "-") {
    }
    std::string strType, strSource;
    fields >> strType >> strSource;
    strDevice.clear();
    std::error_code ec;
    const fs::path link = fs::read_symlink(m_strRoot + "/sys/dev/block/" + strNumber, ec);
    if (!ec && strNumber.find_first_not_of("0123456789:") == std::string::npos)
      strDevice = link.filename().string();
    else if (strSource.starts_with("/dev/"))  // a file system over several devices has no number of its own
      strDevice = fs::path(Unescape(strSource)).filename().string();
  }
  return strDevice;
}

std::string CMidSources::WholeDisk(std::string strDevice, int iDepth) const {
  if (strDevice.empty() || strDevice == "." || strDevice == ".." || iDepth > kDiskMaxDepth)
    return {};
  const std::string strSys = m_strRoot + "/sys/class/block/" + strDevice;
  const std::vector<std::string> slaves = SortedNames(strSys + "/slaves");
  if (!slaves.empty())
    return WholeDisk(slaves.front(), iDepth + 1);
  std::error_code ec;
  if (!fs::exists(strSys + "/partition", ec))
    return fs::exists(strSys, ec) ? strDevice : std::string();
  // A partition's directory stands inside its disk's.
  const fs::path link = fs::read_symlink(strSys, ec);
  return ec ? std::string() : WholeDisk(link.parent_path().filename().string(), iDepth + 1);
}

std::string CMidSources::DiskSerial(const std::string& strDisk) const {
  const std::string strSys = "/sys/class/block/" + strDisk;
  for (const char* pszFile : {"/serial", "/device/serial"}) {  // virtio; nvme and mmc
    std::string str = KeepSerial(ReadLine(strSys + pszFile));
    if (!str.empty())
      return str;
  }
  // SCSI and ATA: the serial page (four bytes of header, then the text).
  std::ifstream page(m_strRoot + strSys + "/device/vpd_pg80", std::ios::binary);
  std::array<char, 4 + 255> buffer{};
  page.read(buffer.data(), buffer.size());
  if (page.gcount() > 4) {
    const size_t uGiven = static_cast<unsigned char>(buffer[3]);
    const size_t uRead = static_cast<size_t>(page.gcount()) - 4;
    std::string str = KeepSerial(Normalise(std::string_view(buffer.data() + 4, std::min(uGiven, uRead))));
    if (!str.empty())
      return str;
  }
  for (const char* pszFile : {"/wwid", "/device/wwid"}) {
    std::string str = KeepWwid(ReadLine(strSys + pszFile));
    if (!str.empty())
      return str;
  }
  std::ifstream udev(m_strRoot + "/run/udev/data/b" + ReadLine(strSys + "/dev"));
  std::string strLine;
  while (std::getline(udev, strLine)) {
    static constexpr std::string_view kKey = "E:ID_SERIAL_SHORT=";
    if (strLine.starts_with(kKey))
      return KeepSerial(Normalise(std::string_view(strLine).substr(kKey.size())));
  }
  return {};
}

std::string CMidSources::Disk() const {
  const std::string strDisk = WholeDisk(RootBlockDevice(), 0);
  return strDisk.empty() ? std::string() : DiskSerial(strDisk);
}

std::string CMidSources::FirstMac(bool bPhysical) const {
  struct _Adapter {
    long lIndex;
    std::string strName;
    std::string strMac;
  };
  std::vector<_Adapter> adapters;
  const std::string strNet = "/sys/class/net/";
  for (const std::string& strName : SortedNames(m_strRoot + strNet)) {
    const std::string strDir = strNet + strName;
    if (strName == "lo" || ReadLine(strDir + "/type") != "1")  // 1 is Ethernet; loopback is 772
      continue;
    std::error_code ec;
    if (bPhysical) {
      const fs::path link = fs::read_symlink(m_strRoot + strDir, ec);
      if (ec || link.string().find("/virtual/") != std::string::npos)
        continue;
      // 0 is the adapter's own address; others are random, stolen from a bond, or set by someone.
      const std::string strAssign = ReadLine(strDir + "/addr_assign_type");
      const bool bBonded = fs::exists(m_strRoot + strDir + "/bonding_slave/perm_hwaddr", ec);
      if (!bBonded && !strAssign.empty() && strAssign != "0")
        continue;
    }
    std::string strMac = ReadLine(strDir + "/bonding_slave/perm_hwaddr");
    if (strMac.empty())
      strMac = ReadLine(strDir + "/address");
    if (IsMac(strMac))
      adapters.push_back({std::strtol(ReadLine(strDir + "/ifindex").c_str(), nullptr, 10), strName, strMac});
  }
  const auto first = std::min_element(adapters.begin(), adapters.end(), [](const auto& a, const auto& b) {
    return a.lIndex != b.lIndex ? a.lIndex < b.lIndex : a.strName < b.strName;
  });
  return first == adapters.end() ? std::string() : first->strMac;
}

std::string CMidSources::Mac() const {
  return FirstMac(true);
}

std::string CMidSources::AnyMac() const {
  return FirstMac(false);
}

std::string CMidSources::MachineId() const {
  for (const char* pszFile : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
    std::string str = ReadLine(pszFile);
    if (str.size() == 32 && str.find_first_not_of("0123456789abcdef") == std::string::npos && !IsOneSign(str))
      return str;
  }
  return {};
}
