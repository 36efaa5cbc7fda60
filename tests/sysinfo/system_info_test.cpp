// CPU and OS facts gathered by initialize() on fake machines, and the board
// model reader of the Raspberry Pi path.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"

namespace {

using namespace testing_support;

struct Facts {
  std::string trace, cpu_name, os_name;
  unsigned long cpu_mhz = 0, others = 0;
};

Facts initialize_on(const std::string& machine_dir_or_name) {
  Facts facts;
  MachineScope machine(machine_dir_or_name);
  EXPECT_TRUE(machine.ok()) << machine.error();
  if (!machine.ok()) return facts;
  TraceCapture traces;
  PluginHandle plugin;
  zev::GpuMonitor* monitor = plugin.create();
  monitor->initialize();
  const std::vector<std::string> lines = traces.texts();
  facts.trace = lines.empty() ? "" : lines[0];
  EXPECT_EQ(lines.back(), "Num GPUs detected: 0");
  facts.cpu_name = monitor->get_cpu_name();
  facts.cpu_mhz = monitor->get_cpu_speed_mhz();
  facts.os_name = monitor->get_os_name();
  // Traced but kept nowhere, or filled by nothing on Linux.
  facts.others = monitor->get_cpu_mem_kb() + monitor->get_physical_cpu_mem_mb() +
                 monitor->get_available_cpu_mem_kb() + monitor->get_cpu_logical_cores() +
                 monitor->get_cpu_physical_cores();
  monitor->terminate();
  plugin.destroy_raw(monitor);
  return facts;
}

TEST(SystemInformation, RecordedMachines) {
  struct Case {
    const char* machine;
    const char* trace;
    const char* cpu_name;
    unsigned long mhz;  // the whole part of the first "cpu MHz"
    const char* os_name;
  };
  const Case cases[] = {
      {"desktop-no-gpu",
       "Linux x86_64 - CPU name: AMD Ryzen 7 7700X 8-Core Processor, CPU speed: 4491MHz, RAM: "
       "15932MB",
       "AMD Ryzen 7 7700X 8-Core Processor", 4491, "Linux 6.1.0-26-amd64 64-bit"},
      {"dual-socket-xeon",
       "Linux x86_64 - CPU name: Intel(R) Xeon(R) Gold 6338 CPU @ 2.00GHz, CPU speed: 2893MHz, "
       "RAM: 515481MB",
       "Intel(R) Xeon(R) Gold 6338 CPU @ 2.00GHz", 2893, "Linux 5.15.0-122-generic 64-bit"},
      {"arm64-no-cpu-mhz", "Linux x86_64 - CPU name: , CPU speed: 0MHz, RAM: 128514MB", "", 0,
       nullptr},
  };
  for (const Case& c : cases) {
    const Facts f = initialize_on(c.machine);
    EXPECT_EQ(f.trace, c.trace);
    EXPECT_EQ(f.cpu_name, c.cpu_name);
    EXPECT_EQ(f.cpu_mhz, c.mhz);
    EXPECT_TRUE(c.os_name == nullptr || f.os_name == c.os_name) << f.os_name;
    EXPECT_EQ(f.others, 0u);
  }
}

// Empty, unlabelled, over-long, unterminated and binary /proc files give
// defaults or cut values, never a crash.
TEST(SystemInformation, MangledProcFiles) {
  const std::string x300(300, 'X');
  struct Case {
    std::string cpuinfo, meminfo, cpu_name;
    unsigned long mhz;
  };
  const Case cases[] = {
      {"", "", "", 0},
      {"model name\t:\ncpu MHz\t\t: fast\n", "MemTotal:       lots kB\n", "", 0},
      // 127 characters are kept and the last one is cut as if it were the newline.
      {"model name\t: " + x300 + "\ncpu MHz\t\t: 1200.9\n", "MemTotal:           1024 kB\n",
       std::string(126, 'X'), 1200},
      {"model name\t: " + x300 + "\ncpu MHz\t\t: 1200.9", "MemTotal:        1024",
       std::string(126, 'X'), 1200},
      {std::string("\0\xff\x01model name\t: \x80\x81\n", 18), std::string("\xff\xfe\0", 3), "", 0},
  };
  for (const Case& c : cases) {
    TempMachine temp({{"proc/cpuinfo", c.cpuinfo}, {"proc/meminfo", c.meminfo}}, "desktop-no-gpu");
    const Facts f = initialize_on(temp.dir());
    EXPECT_TRUE(c.cpu_name.empty() || f.cpu_name == c.cpu_name) << f.cpu_name;
    EXPECT_LE(f.cpu_name.size(), 126u);
    EXPECT_EQ(f.cpu_mhz, c.mhz);
  }
  TempMachine small({{"proc/meminfo", "MemTotal:           1024 kB\n"}}, "desktop-no-gpu");
  EXPECT_NE(initialize_on(small.dir()).trace.find("RAM: 1MB"), std::string::npos);
}

TEST(SystemReaders, BoardModelAndRefusedOutputs) {
  GpuMonitorVorn monitor;
  EXPECT_FALSE(monitor.linux_read_cpu_name(nullptr));
  EXPECT_FALSE(monitor.linux_read_cpu_speed_mhz_current(nullptr));
  EXPECT_FALSE(monitor.linux_read_mem_size_mb(nullptr));
  EXPECT_FALSE(monitor.linux_read_os_name(nullptr));
  EXPECT_FALSE(monitor.linux_arm64_rpi_read_cpu_name(nullptr));
  TempMachine pi({{"proc/cpuinfo",
                   "processor\t: 0\nBogoMIPS\t: 108.00\nRevision\t: c03114\n"
                   "Model\t\t: Raspberry Pi 4 Model B Rev 1.4\n"}},
                 "arm64-no-cpu-mhz");
  const std::pair<std::string, std::string> models[] = {
      {pi.dir(), "Raspberry Pi 4 Model B Rev 1.4"}, {machine_dir("desktop-no-gpu"), "untouched"}};
  for (const auto& [dir, model] : models) {
    MachineScope machine(dir);
    ASSERT_TRUE(machine.ok()) << machine.error();
    char text[128] = "untouched";
    EXPECT_EQ(monitor.linux_arm64_rpi_read_cpu_name(text), model != "untouched");
    EXPECT_STREQ(text, model.c_str());
  }
}

}  // namespace

namespace {

// The pipelines that grep /proc/cpuinfo while a monitor initializes, as a
// logging grep first on PATH sees them.
std::vector<std::string> greps_of_initialize(const std::string& base, const std::string& cpuinfo) {
  TempMachine machine({{"proc/cpuinfo", cpuinfo},
                       {"bin/grep",
                        "#!/bin/sh\necho \"$*\" >> \"$(dirname \"$0\")/grep.log\"\n"
                        "exec /usr/bin/grep \"$@\"\n"}},
                      base);
  std::filesystem::permissions(machine.dir() + "/bin/grep", std::filesystem::perms::owner_all);
  MachineScope scope(machine.dir());
  EXPECT_TRUE(scope.ok()) << scope.error();
  PluginHandle plugin;
  zev::GpuMonitor* monitor = plugin.create();
  monitor->initialize();
  monitor->terminate();
  plugin.destroy_raw(monitor);
  return lines_of(read_file(machine::staged_root() + "/bin/grep.log"));
}

}  // namespace

// The board model pipeline runs only where /proc/cpuinfo names a Pi.
TEST(SystemInformation, BoardModelPipelineOnlyWhereAPiCouldBe) {
  const std::string pc = "processor\t: 0\nmodel name\t: AMD Ryzen 7 7700X\ncpu MHz\t\t: 4491.0\n";
  const std::string pi =
      "processor\t: 0\nBogoMIPS\t: 108.00\nModel\t\t: Raspberry Pi 5 Model B Rev 1.0\n";
  for (const auto& [cpuinfo, model_greps] :
       {std::pair<std::string, size_t>{pc, 0}, {pi, 1}, {pc + "Model\t\t: Generic board\n", 0}}) {
    const std::vector<std::string> greps = greps_of_initialize("desktop-no-gpu", cpuinfo);
    EXPECT_EQ(std::count(greps.begin(), greps.end(), "Model"), static_cast<long>(model_greps))
        << cpuinfo;
    EXPECT_NE(std::find(greps.begin(), greps.end(), "model name"), greps.end());
  }
}
