// The lspci and aticonfig readers on a recorded two-GPU desktop, on a machine
// without the tools, and on tools printing short or odd lines.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"

namespace {

using namespace testing_support;

// Installs `script` as an executable tool of a temporary machine.
void add_tool(TempMachine& temp, const std::string& tool, const std::string& script) {
  temp.write("bin/" + tool, "#!/bin/sh\n" + script);
  std::filesystem::permissions(temp.dir() + "/bin/" + tool, std::filesystem::perms::owner_all);
}

TEST(LegacyReaders, LspciOnTwoGpuDesktop) {
  MachineScope machine("desktop-two-gpus-legacy-tools");
  ASSERT_TRUE(machine.ok()) << machine.error();
  GpuMonitorVorn monitor;
  unsigned long count = 99;
  EXPECT_TRUE(monitor.linux_read_num_gpus(&count));
  EXPECT_EQ(count, 2u);
  struct Case {
    unsigned long index;
    bool found;
    unsigned long vendor, device;
    const char* revision;
    const char* name;
  };
  const Case cases[] = {
      {0, true, 0x10DE, 0x2684, "a1", "NVIDIA Corporation AD102 [GeForce RTX 4090] (rev a1)\n"},
      {1, true, 0x1002, 0x744C, "c8",
       "Advanced Micro Devices, Inc. [AMD/ATI] Navi 31 [Radeon RX 7900 XT/7900 XTX/7900M] (rev "
       "c8)\n"},
      {2, false, 0, 0, "--", "untouched"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.index);
    unsigned long vendor = 0, device = 0;
    EXPECT_EQ(monitor.linux_read_gpu_pci_codes(c.index, &vendor, &device), c.found);
    EXPECT_EQ(vendor, c.vendor);
    EXPECT_EQ(device, c.device);
    unsigned long device_only = 0;
    EXPECT_EQ(monitor.linux_read_gpu_pci_codes(c.index, nullptr, &device_only), c.found);
    EXPECT_EQ(device_only, c.device);
    char revision[4] = "--|";  // two characters, no terminator written
    EXPECT_EQ(monitor.linux_read_gpu_pci_rev(c.index, revision), c.found);
    EXPECT_EQ(std::string(revision, 3), std::string(c.revision) + "|");
    char name[128] = "untouched";
    EXPECT_EQ(monitor.linux_read_gpu_name(c.index, name), c.found);
    EXPECT_STREQ(name, c.name);
  }
}

TEST(LegacyReaders, AticonfigTemperature) {
  TempMachine refused({}, "desktop-no-gpu");
  add_tool(refused, "aticonfig", "echo 'Sensor 0: Temperature: command not found'\n");
  TempMachine cold({}, "desktop-no-gpu");
  add_tool(cold, "aticonfig", "echo '            Sensor 0: Temperature - 0.00 C'\n");
  struct Case {
    std::string machine;
    unsigned long adapter;
    bool available, read;
    float celsius;
  };
  const Case cases[] = {
      {"desktop-two-gpus-legacy-tools", 0, true, true, 54.0f},  // 54.50 C, whole degrees
      {"desktop-two-gpus-legacy-tools", 1, false, false, -1.0f},
      {"desktop-no-gpu", 0, false, false, -1.0f},  // the shell's "not found" goes to stderr
      {refused.dir(), 0, false, false, -1.0f},
      {cold.dir(), 0, true, false, -1.0f},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.machine + " adapter " + std::to_string(c.adapter));
    MachineScope machine(c.machine);
    ASSERT_TRUE(machine.ok()) << machine.error();
    GpuMonitorVorn monitor;
    EXPECT_EQ(monitor.linux_amd_is_gpu_core_temp_sensor_available(c.adapter), c.available);
    TraceCapture traces;
    float celsius = -1.0f;
    EXPECT_EQ(monitor.linux_amd_gpu_get_core_temp(c.adapter, &celsius), c.read);
    EXPECT_EQ(celsius, c.celsius);
    ASSERT_EQ(traces.texts().size(), 1u);
    EXPECT_EQ(traces.texts()[0].rfind("linux_amd_gpu_get_core_temp - popen ok - aticonfig", 0), 0u)
        << traces.texts()[0];
    char bios[128] = "untouched";
    EXPECT_FALSE(monitor.linux_amd_gpu_get_bios_string(c.adapter, bios));  // no /proc/ati
    EXPECT_STREQ(bios, "untouched");
  }
}

TEST(LegacyReaders, NullOutputsAndMissingLspci) {
  MachineScope machine("desktop-no-gpu");
  ASSERT_TRUE(machine.ok()) << machine.error();
  GpuMonitorVorn monitor;
  EXPECT_FALSE(monitor.linux_read_num_gpus(nullptr));
  EXPECT_FALSE(monitor.linux_read_gpu_pci_codes(0, nullptr, nullptr));
  EXPECT_FALSE(monitor.linux_read_gpu_pci_rev(0, nullptr));
  EXPECT_FALSE(monitor.linux_read_gpu_name(0, nullptr));
  EXPECT_FALSE(monitor.linux_amd_gpu_get_core_temp(0, nullptr));
  EXPECT_FALSE(monitor.linux_amd_gpu_get_bios_string(0, nullptr));
  unsigned long count = 99, vendor = 0;
  EXPECT_TRUE(monitor.linux_read_num_gpus(&count));  // lspci fails: no lines, no adapters
  EXPECT_EQ(count, 0u);
  EXPECT_FALSE(monitor.linux_read_gpu_pci_codes(0, &vendor, nullptr));
  char text[128] = "untouched";
  EXPECT_FALSE(monitor.linux_read_gpu_pci_rev(0, text));
  EXPECT_FALSE(monitor.linux_read_gpu_name(0, text));
  EXPECT_STREQ(text, "untouched");
}

// Lines that survive the pipelines but are too short for the positions read,
// and an over-long name.
TEST(LegacyReaders, ShortAndOddLspciLines) {
  const std::string vga = "00:02.0 VGA compatible controller [0300]: ";  // 42 characters
  struct Case {
    std::string line;
    unsigned long count;  // fgets pieces of at most 255 characters
    bool codes, revision;
  };
  const Case cases[] = {
      {vga + "[1]", 1, false, false},
      {vga + "[10de:2] (r", 1, false, false},
      {vga + "X [10de:2684] (rev )", 1, true, false},
      {vga + "(rev a", 1, false, false},
      {vga + "(rev ab) [", 1, false, true},
      {"", 0, false, false},
      {vga + std::string(300, 'X'), 2, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    TempMachine temp({}, "desktop-no-gpu");
    add_tool(temp, "lspci", "cat <<'END'\n" + c.line + "\nEND\n");
    MachineScope machine(temp.dir());
    ASSERT_TRUE(machine.ok()) << machine.error();
    GpuMonitorVorn monitor;
    unsigned long vendor = 0, device = 0, count = 0;
    EXPECT_TRUE(monitor.linux_read_num_gpus(&count));
    EXPECT_EQ(count, c.count);
    EXPECT_EQ(monitor.linux_read_gpu_pci_codes(0, &vendor, &device), c.codes);
    EXPECT_EQ(vendor, c.codes ? 0x10DEu : 0u);
    char revision[2] = {'-', '-'};
    EXPECT_EQ(monitor.linux_read_gpu_pci_rev(0, revision), c.revision);
    EXPECT_EQ(std::string(revision, 2), c.revision ? "ab" : "--");
    char name[128] = {};
    EXPECT_EQ(monitor.linux_read_gpu_name(0, name), !c.line.empty());
    EXPECT_LE(std::string(name).size(), 127u);
  }
}

}  // namespace
