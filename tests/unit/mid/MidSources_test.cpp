#include "platform/mid/MidSources.h"

#include <gtest/gtest.h>

#include "FakeRoot.h"

namespace {

class MidSources : public testing::Test {
 protected:
  CFakeRoot m_root;
  CMidSources m_sources{m_root.Path()};
};

TEST_F(MidSources, Serial_TakesTheFirstThatCounts_InFixedOrder) {
  m_root.Dmi("board_serial", "BS-77");
  EXPECT_EQ(m_sources.Serial(), "bs-77");
  m_root.Dmi("product_serial", "  4Q5RJM2 ");
  EXPECT_EQ(m_sources.Serial(), "4q5rjm2");
  m_root.Dmi("product_uuid", "4C4C4544-0051-3510-8052-B4C04F4A4D32");
  EXPECT_EQ(m_sources.Serial(), "4c4c4544-0051-3510-8052-b4c04f4a4d32");
}

TEST_F(MidSources, Serial_ComesFromTheDeviceTree_WhenThereIsNoDmi) {
  m_root.Write("/sys/firmware/devicetree/base/serial-number", std::string("10000000ABCD1234\0", 17));
  EXPECT_EQ(m_sources.Serial(), "10000000abcd1234");
}

TEST_F(MidSources, Serial_SkipsPlaceholders) {
  for (const char* psz :
       {"To be filled by O.E.M.", "None", "0", "Default string", "00000000-0000-0000-0000-000000000000",
        "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF", "Not Specified", "System Serial Number", "........", "",
        "03000200-0400-0500-0006-000700080009", "\xff\xff\xff", "XXXXXXXX", "0123456789"}) {
    m_root.Dmi("product_uuid", psz);
    m_root.Dmi("product_serial", psz);
    m_root.Dmi("board_serial", psz);
    EXPECT_EQ(m_sources.Serial(), "") << psz;
  }
  m_root.Dmi("board_serial", "None-7");
  EXPECT_EQ(m_sources.Serial(), "none-7");
}

TEST_F(MidSources, Disk_FollowsPartitionToItsDisk) {
  m_root.RootDisk("pci0000:00/virtio1", "vda", "vda1");
  m_root.Write("/sys/devices/pci0000:00/virtio1/block/vda/serial", "vol-0AB12\n");
  EXPECT_EQ(m_sources.Disk(), "vol-0ab12");
}

TEST_F(MidSources, Disk_WorksWithoutPartition) {
  m_root.RootDisk("pci0000:00/virtio1", "vda", "");
  m_root.Write("/sys/devices/pci0000:00/virtio1/block/vda/serial", "vol-0AB12\n");
  EXPECT_EQ(m_sources.Disk(), "vol-0ab12");
}

TEST_F(MidSources, Disk_ReadsTheNvmeController) {
  m_root.RootDisk("pci0000:00/nvme/nvme0", "nvme0n1", "nvme0n1p2");
  m_root.Write("/sys/devices/pci0000:00/nvme/nvme0/block/nvme0n1/device/serial", "S4EVNX0N123456      \n");
  EXPECT_EQ(m_sources.Disk(), "s4evnx0n123456");
}

TEST_F(MidSources, Disk_ReadsTheScsiSerialPage_AndStaysInsideIt) {
  m_root.RootDisk("pci0000:00/ata1", "sda", "sda1");
  const std::string strFile = "/sys/devices/pci0000:00/ata1/block/sda/device/vpd_pg80";
  m_root.Write(strFile, std::string("\x00\x80\x00\x08", 4) + "WD-12345trailing");
  EXPECT_EQ(m_sources.Disk(), "wd-12345");
  m_root.Write(strFile, std::string("\x00\x80\x00\xff", 4) + "WD-9");  // says more than there is
  EXPECT_EQ(m_sources.Disk(), "wd-9");
  m_root.Write(strFile, std::string("\x00\x80", 2));
  EXPECT_EQ(m_sources.Disk(), "");
}

TEST_F(MidSources, Disk_FallsBackToWwidThenUdev) {
  m_root.RootDisk("pci0000:00/ata1", "sda", "sda1");
  m_root.Write("/run/udev/data/b8:0", "S:disk/by-id/x\nE:ID_SERIAL=Maker_Z1\nE:ID_SERIAL_SHORT=Z1\n");
  EXPECT_EQ(m_sources.Disk(), "z1");
  m_root.Write("/sys/devices/pci0000:00/ata1/block/sda/device/wwid", "naa.5000c500a1b2c3d4\n");
  EXPECT_EQ(m_sources.Disk(), "naa.5000c500a1b2c3d4");
}

TEST_F(MidSources, Disk_IgnoresIdsThatEveryEmulatedDiskHas) {
  m_root.RootDisk("pci0000:00/ata1", "sda", "sda1");
  const std::string strFile = "/sys/devices/pci0000:00/ata1/block/sda/device/wwid";
  m_root.Write(strFile, "t10.ATA     QEMU HARDDISK                           QM00001             \n");
  EXPECT_EQ(m_sources.Disk(), "");
  m_root.Write(strFile, "eui.0000000000000000\n");
  EXPECT_EQ(m_sources.Disk(), "");
}

TEST_F(MidSources, Disk_GoesThroughDeviceMapper) {
  m_root.RootDisk("pci0000:00/ata1", "sda", "sda2");
  m_root.Write("/sys/devices/pci0000:00/ata1/block/sda/device/serial", "UNDER\n");
  m_root.Write("/sys/devices/virtual/block/dm-0/slaves/sda2", "");
  m_root.Link("/sys/class/block/dm-0", "../../devices/virtual/block/dm-0");
  m_root.Link("/sys/dev/block/253:0", "../../devices/virtual/block/dm-0");
  m_root.Write("/proc/self/mountinfo", "22 1 253:0 / / rw - xfs /dev/mapper/vg-root rw\n");
  EXPECT_EQ(m_sources.Disk(), "under");
}

TEST_F(MidSources, Disk_EndsOnADeviceMapperLoop) {
  m_root.Write("/sys/devices/virtual/block/dm-0/slaves/dm-0", "");
  m_root.Link("/sys/class/block/dm-0", "../../devices/virtual/block/dm-0");
  m_root.Link("/sys/dev/block/253:0", "../../devices/virtual/block/dm-0");
  m_root.Write("/proc/self/mountinfo", "22 1 253:0 / / rw - xfs /dev/mapper/vg-root rw\n");
  EXPECT_EQ(m_sources.Disk(), "");
}

TEST_F(MidSources, Disk_TakesTheSourceDevice_WhenTheFileSystemHasNoNumber) {
  m_root.RootDisk("pci0000:00/ata1", "sda", "sda1");
  m_root.Write("/sys/devices/pci0000:00/ata1/block/sda/device/serial", "BTRFS1\n");
  m_root.Write("/proc/self/mountinfo", "22 1 0:25 /@ / rw shared:1 master:2 - btrfs /dev/sda1 rw\n");
  EXPECT_EQ(m_sources.Disk(), "btrfs1");
}

TEST_F(MidSources, Disk_IsEmptyInAContainer) {
  m_root.RootDisk("pci0000:00/ata1", "sda", "sda1");
  m_root.Write("/sys/devices/pci0000:00/ata1/block/sda/device/serial", "HOST\n");
  m_root.Write("/proc/self/mountinfo", "600 500 0:77 / / rw - overlay overlay rw,lowerdir=/a:/b\n");
  EXPECT_EQ(m_sources.Disk(), "");
  m_root.Write("/proc/self/mountinfo", "600 500\n\n - - -\n");
  EXPECT_EQ(m_sources.Disk(), "");
}

TEST_F(MidSources, Mac_IsTheFirstPhysicalAdapterByIndex) {
  m_root.Adapter("lo", "00:00:00:00:00:00", 1, true);
  m_root.Adapter("docker0", "02:42:ac:11:00:01", 2, true);
  m_root.Adapter("eth1", "B4:96:91:00:00:02", 4);
  m_root.Adapter("eth0", "b4:96:91:00:00:03", 5);
  EXPECT_EQ(m_sources.Mac(), "b4:96:91:00:00:02");
  m_root.Adapter("eth0", "b4:96:91:00:00:03", 4);  // same index: by name
  EXPECT_EQ(m_sources.Mac(), "b4:96:91:00:00:03");
}

TEST_F(MidSources, Mac_SkipsZeroBrokenRandomAndOtherHardware) {
  m_root.Adapter("eth0", "00:00:00:00:00:00", 1);
  m_root.Adapter("eth1", "b4:96:91:00:00", 2);
  m_root.Adapter("eth2", "b4-96-91-00-00-01", 3);
  m_root.Adapter("wlan0", "9a:00:00:00:00:01", 4, false, "1");
  m_root.Adapter("ib0", "b4:96:91:00:00:09", 5);
  m_root.Write("/sys/devices/pci0000:00/net/ib0/type", "32\n");
  EXPECT_EQ(m_sources.Mac(), "");
  EXPECT_EQ(m_sources.AnyMac(), "9a:00:00:00:00:01");
}

TEST_F(MidSources, Mac_OfABondedAdapterIsItsOwn) {
  m_root.Adapter("eth0", "b4:96:91:ff:ff:ff", 2, false, "2");
  m_root.Write("/sys/devices/pci0000:00/net/eth0/bonding_slave/perm_hwaddr", "b4:96:91:00:00:07\n");
  EXPECT_EQ(m_sources.Mac(), "b4:96:91:00:00:07");
}

TEST_F(MidSources, MachineId_MustBeAnId) {
  m_root.Write("/etc/machine-id", "uninitialized\n");
  EXPECT_EQ(m_sources.MachineId(), "");
  m_root.Write("/var/lib/dbus/machine-id", "3d1219c7c4c5404aaa1f6d2a48adfda4\n");
  EXPECT_EQ(m_sources.MachineId(), "3d1219c7c4c5404aaa1f6d2a48adfda4");
  m_root.Write("/etc/machine-id", "00000000000000000000000000000000\n");
  EXPECT_EQ(m_sources.MachineId(), "3d1219c7c4c5404aaa1f6d2a48adfda4");
  m_root.Write("/etc/machine-id", "AA1219c7c4c5404aaa1f6d2a48adfda4\n");
  EXPECT_EQ(m_sources.MachineId(), "aa1219c7c4c5404aaa1f6d2a48adfda4");
}

}  // namespace
