// What this machine tells about itself, read below a system root ("/" in the product, a directory in tests).
// Every source is the empty text when the machine does not have it, or has only a maker's placeholder in its
// place. Values are trimmed and lower-case, so that the same fact always gives the same text.
// Threads: any; the object holds only its root. Blocks on small file reads. Nothing here logs.
#pragma once

#include <string>

class CMidSources {
 public:
  explicit CMidSources(std::string strRoot) : m_strRoot(std::move(strRoot)) {}

  std::string Serial() const;     // system or board: DMI, else the device tree
  std::string Disk() const;       // the disk that holds the root file system
  std::string Mac() const;        // first physical network adapter
  std::string MachineId() const;  // of the installation (32 hex digits)
  // Address of any adapter but loopback, for machines without a source above.
  std::string AnyMac() const;

  // Texts that many machines share instead of a serial of their own.
  static bool IsPlaceholder(const std::string& strValue);

 private:
  std::string ReadLine(const std::string& strPath) const;
  std::string RootBlockDevice() const;                             // "sda1", or empty
  std::string WholeDisk(std::string strDevice, int iDepth) const;  // below partitions and device mapper
  std::string DiskSerial(const std::string& strDisk) const;
  std::string FirstMac(bool bPhysical) const;

  std::string m_strRoot;
};
