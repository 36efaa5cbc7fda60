// The command readers of the system information, called directly.
#include <gtest/gtest.h>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"

namespace {

using testing_support::MachineScope;

TEST(SystemReaders, NullOutputsAreRefused) {
  GpuMonitorVorn monitor;
  EXPECT_FALSE(monitor.linux_read_cpu_name(nullptr));
  EXPECT_FALSE(monitor.linux_read_cpu_speed_mhz_current(nullptr));
  EXPECT_FALSE(monitor.linux_read_mem_size_mb(nullptr));
  EXPECT_FALSE(monitor.linux_read_os_name(nullptr));
  EXPECT_FALSE(monitor.linux_arm64_rpi_read_cpu_name(nullptr));
}

TEST(SystemReaders, ReadersOnADesktop) {
  MachineScope machine("desktop-no-gpu");
  ASSERT_TRUE(machine.ok()) << machine.error();
  GpuMonitorVorn monitor;
  char name[128] = {};
  EXPECT_TRUE(monitor.linux_read_cpu_name(name));
  EXPECT_STREQ(name, "AMD Ryzen 7 7700X 8-Core Processor");
  unsigned long mhz = 0, mb = 0;
  EXPECT_TRUE(monitor.linux_read_cpu_speed_mhz_current(&mhz));
  EXPECT_EQ(mhz, 4491u);
  EXPECT_TRUE(monitor.linux_read_mem_size_mb(&mb));
  EXPECT_EQ(mb, 15932u) << "16,314,560 kB";
  // No board model line on a PC.
  char model[128] = "untouched";
  EXPECT_FALSE(monitor.linux_arm64_rpi_read_cpu_name(model));
  // uname -snr: system, node and release on one line.
  char os[128] = {};
  EXPECT_TRUE(monitor.linux_read_os_name(os));
  EXPECT_EQ(std::string(os).rfind("Linux ", 0), 0u) << os;
}

TEST(SystemReaders, MissingLinesAreNoReading) {
  MachineScope machine("arm64-no-cpu-mhz");
  ASSERT_TRUE(machine.ok()) << machine.error();
  GpuMonitorVorn monitor;
  char name[128] = "untouched";
  EXPECT_FALSE(monitor.linux_read_cpu_name(name));
  unsigned long mhz = 77;
  EXPECT_FALSE(monitor.linux_read_cpu_speed_mhz_current(&mhz));
  EXPECT_EQ(mhz, 77u);
}

TEST(SystemReaders, BoardModelOfARaspberryPi) {
  testing_support::TempMachine pi(
      {{"proc/cpuinfo",
        "processor\t: 0\nBogoMIPS\t: 108.00\nFeatures\t: fp asimd evtstrm crc32 cpuid\n"
        "CPU implementer\t: 0x41\n\nRevision\t: c03114\nSerial\t\t: 10000000a1b2c3d4\n"
        "Model\t\t: Raspberry Pi 4 Model B Rev 1.4\n"}},
      "arm64-no-cpu-mhz");
  MachineScope machine(pi.dir());
  ASSERT_TRUE(machine.ok()) << machine.error();
  GpuMonitorVorn monitor;
  char model[128] = {};
  EXPECT_TRUE(monitor.linux_arm64_rpi_read_cpu_name(model));
  EXPECT_STREQ(model, "Raspberry Pi 4 Model B Rev 1.4");
}

}  // namespace
