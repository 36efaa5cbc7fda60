// CPU and OS facts gathered by initialize() on fake machines.
#include <gtest/gtest.h>

#include "test_support.h"

namespace {

using namespace testing_support;

struct Facts {
  std::vector<std::string> traces;
  std::string cpu_name;
  unsigned long cpu_mhz = 0;
  unsigned long mem_kb = 0, physical_mb = 0, available_kb = 0;
  unsigned int logical = 0, physical = 0;
  std::string os_name;
};

template <size_t N>
std::string bytes(const char (&text)[N]) {
  return std::string(text, N - 1);
}

Facts initialize_on(const std::string& machine_dir_or_name) {
  Facts facts;
  MachineScope machine(machine_dir_or_name);
  EXPECT_TRUE(machine.ok()) << machine.error();
  if (!machine.ok()) return facts;
  TraceCapture traces;
  PluginHandle plugin;
  zev::GpuMonitor* monitor = plugin.create();
  monitor->initialize();
  facts.traces = traces.texts();
  facts.cpu_name = monitor->get_cpu_name();
  facts.cpu_mhz = monitor->get_cpu_speed_mhz();
  facts.mem_kb = monitor->get_cpu_mem_kb();
  facts.physical_mb = monitor->get_physical_cpu_mem_mb();
  facts.available_kb = monitor->get_available_cpu_mem_kb();
  facts.logical = monitor->get_cpu_logical_cores();
  facts.physical = monitor->get_cpu_physical_cores();
  facts.os_name = monitor->get_os_name();
  monitor->terminate();
  plugin.destroy_raw(monitor);
  return facts;
}

TEST(SystemInformation, DesktopMachine) {
  const Facts f = initialize_on("desktop-no-gpu");
  ASSERT_GE(f.traces.size(), 2u);
  EXPECT_EQ(f.traces[0],
            "Linux x86_64 - CPU name: AMD Ryzen 7 7700X 8-Core Processor, CPU speed: 4491MHz, RAM: "
            "15932MB");
  EXPECT_EQ(f.traces[1], "Operating system detected: Linux 6.1.0-26-amd64 64-bit");
  EXPECT_EQ(f.cpu_name, "AMD Ryzen 7 7700X 8-Core Processor");
  EXPECT_EQ(f.cpu_mhz, 4491u) << "4491.352 MHz keeps its whole part";
  EXPECT_EQ(f.os_name, "Linux 6.1.0-26-amd64 64-bit");
  // The memory size is traced but kept nowhere; nothing fills the counts.
  EXPECT_EQ(f.mem_kb, 0u);
  EXPECT_EQ(f.physical_mb, 0u);
  EXPECT_EQ(f.available_kb, 0u);
  EXPECT_EQ(f.logical, 0u);
  EXPECT_EQ(f.physical, 0u);
}

TEST(SystemInformation, TwoSocketMachineUsesTheFirstProcessor) {
  const Facts f = initialize_on("dual-socket-xeon");
  ASSERT_GE(f.traces.size(), 2u);
  EXPECT_EQ(f.traces[0],
            "Linux x86_64 - CPU name: Intel(R) Xeon(R) Gold 6338 CPU @ 2.00GHz, CPU speed: 2893MHz, "
            "RAM: 515481MB");
  EXPECT_EQ(f.traces[1], "Operating system detected: Linux 5.15.0-122-generic 64-bit");
  EXPECT_EQ(f.cpu_mhz, 2893u);
}

TEST(SystemInformation, MachineWithoutCpuClockOrModelName) {
  const Facts f = initialize_on("arm64-no-cpu-mhz");
  ASSERT_GE(f.traces.size(), 2u);
  EXPECT_EQ(f.traces[0], "Linux x86_64 - CPU name: , CPU speed: 0MHz, RAM: 128514MB");
  EXPECT_EQ(f.cpu_name, "");
  EXPECT_EQ(f.cpu_mhz, 0u);
}

TEST(SystemInformation, MangledProcFilesGiveDefaultsNotCrashes) {
  const std::string long_name(300, 'X');
  const std::vector<std::pair<std::string, std::string>> cases[] = {
      // Empty files.
      {{"proc/cpuinfo", ""}, {"proc/meminfo", ""}},
      // A label with no value, and a clock that is no number.
      {{"proc/cpuinfo", "model name\t:\ncpu MHz\t\t: fast\n"},
       {"proc/meminfo", "MemTotal:       lots kB\n"}},
      // A name far longer than the record holds, no newline at the end.
      {{"proc/cpuinfo", "model name\t: " + long_name + "\ncpu MHz\t\t: 1200.9"},
       {"proc/meminfo", "MemTotal:        1024"}},
      // Binary garbage.
      {{"proc/cpuinfo", bytes("\0\xff\x01model name\t: \x80\x81\n")},
       {"proc/meminfo", bytes("\xff\xfe\0")}},
  };
  for (const auto& files : cases) {
    TempMachine temp(files, "desktop-no-gpu");
    const Facts f = initialize_on(temp.dir());
    ASSERT_GE(f.traces.size(), 3u);
    EXPECT_LE(f.cpu_name.size(), 126u);
    EXPECT_EQ(f.traces.back(), "Num GPUs detected: 0");
  }
}

TEST(SystemInformation, TruncatedValuesAreCut) {
  const std::string long_name(300, 'X');
  TempMachine temp({{"proc/cpuinfo", "model name\t: " + long_name + "\ncpu MHz\t\t: 1200.9\n"},
                    {"proc/meminfo", "MemTotal:           1024 kB\n"}},
                   "desktop-no-gpu");
  const Facts f = initialize_on(temp.dir());
  // 127 characters are kept and the last one is cut as if it were the newline.
  EXPECT_EQ(f.cpu_name, std::string(126, 'X'));
  EXPECT_EQ(f.cpu_mhz, 1200u);
  ASSERT_FALSE(f.traces.empty());
  EXPECT_NE(f.traces[0].find("RAM: 1MB"), std::string::npos) << f.traces[0];
}

}  // namespace
