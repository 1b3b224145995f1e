// A machine as its files show it: sysfs, proc, udev and etc below a temporary root.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

class CFakeRoot {
 public:
  CFakeRoot() {
    char szTemplate[] = "/tmp/zxmid.XXXXXX";
    m_root = mkdtemp(szTemplate);
  }
  ~CFakeRoot() {
    std::error_code ec;
    std::filesystem::remove_all(m_root, ec);
  }
  CFakeRoot(const CFakeRoot&) = delete;
  CFakeRoot& operator=(const CFakeRoot&) = delete;

  std::string Path() const { return m_root.string(); }

  void Write(const std::string& strPath, const std::string& strData) {
    const std::filesystem::path file = m_root.string() + strPath;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << strData;
  }
  void Remove(const std::string& strPath) { std::filesystem::remove_all(m_root.string() + strPath); }
  void Link(const std::string& strPath, const std::string& strTarget) {
    const std::filesystem::path link = m_root.string() + strPath;
    std::filesystem::create_directories(link.parent_path());
    std::filesystem::remove(link);
    std::filesystem::create_symlink(strTarget, link);
  }

  void Dmi(const std::string& strName, const std::string& strValue) {
    Write("/sys/class/dmi/id/" + strName, strValue + "\n");
  }
  // strWhere is the directory below /sys/devices; the partition may be empty (root on the whole disk).
  void RootDisk(const std::string& strWhere, const std::string& strDisk, const std::string& strPartition) {
    const std::string strDir = strWhere + "/block/" + strDisk;
    Write("/sys/devices/" + strDir + "/dev", "8:0\n");
    Link("/sys/class/block/" + strDisk, "../../devices/" + strDir);
    std::string strRoot = strDir;
    if (!strPartition.empty()) {
      strRoot += "/" + strPartition;
      Write("/sys/devices/" + strRoot + "/partition", "1\n");
      Link("/sys/class/block/" + strPartition, "../../devices/" + strRoot);
    }
    Link("/sys/dev/block/8:1", "../../devices/" + strRoot);
    Write("/proc/self/mountinfo",
          "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/root rw\n23 22 0:21 / /proc rw - proc proc rw\n");
  }
  void Adapter(const std::string& strName, const std::string& strMac, int iIndex, bool bVirtual = false,
               const std::string& strAssign = "0") {
    const std::string strDir = (bVirtual ? "virtual/net/" : "pci0000:00/net/") + strName;
    Write("/sys/devices/" + strDir + "/address", strMac + "\n");
    Write("/sys/devices/" + strDir + "/ifindex", std::to_string(iIndex) + "\n");
    Write("/sys/devices/" + strDir + "/type", strName == "lo" ? "772\n" : "1\n");
    Write("/sys/devices/" + strDir + "/addr_assign_type", strAssign + "\n");
    Link("/sys/class/net/" + strName, "../../devices/" + strDir);
  }

  // Sources in several places, so that a test can take away what it is about.
  void BareMetal() {
    Dmi("product_uuid", "4C4C4544-0051-3510-8052-B4C04F4A4D32");
    Dmi("product_serial", "4Q5RJM2");
    RootDisk("pci0000:00/ata1/host0/target0:0:0/0:0:0:0", "sda", "sda1");
    Write("/sys/devices/pci0000:00/ata1/host0/target0:0:0/0:0:0:0/block/sda/device/wwid",
          "naa.5002538d40a1b2c3\n");
    Adapter("lo", "00:00:00:00:00:00", 1, true);
    Adapter("eno1", "b4:96:91:0a:0b:0c", 2);
    Write("/etc/machine-id", "3d1219c7c4c5404aaa1f6d2a48adfda4\n");
  }

 private:
  std::filesystem::path m_root;
};
