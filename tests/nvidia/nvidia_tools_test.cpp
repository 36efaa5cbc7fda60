// The NVIDIA tools and the driver, asked from inside a machine in this
// process: the nvidia-smi readers on every answer form, nvidia-settings, and
// the ROP count asked of the kernel driver (the fake driver is linked into
// this test). The fake tools accept only the command lines the real ones do,
// so a wrong query reads nothing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "nvidia_machines.h"
#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"

extern "C" void zev_fake_nvidia_driver_close_all(void);

namespace {

using nvidia_test::Machine;
using testing_support::MachineScope;
using testing_support::TraceCapture;
using Texts = std::vector<std::string>;

const char kSettings[] =
    "-q NvidiaDriverVersion -t\n| 550.54.14\n"
    "-q [gpu:0]/GPUCoreTemp -t\n| 0\n| 41\n"
    "-q [gpu:0]/GPUCurrentFanSpeed -t\n| 0\n"
    "-q [gpu:1]/GPUCurrentFanSpeed -t\n| 37\n"
    "-q [gpu:0]/GPUUtilization -t\n| graphics=45, memory=12, video=0, PCIe=1\n"
    "-q [gpu:1]/GPUUtilization -t\n| graphics=0, memory=0, video=0, PCIe=0\n"
    "-q all\n|   Attribute 'GPUCoreTemp' (zev-desktop:1[gpu:0]): 41.\n";

// Inside a bare machine with the two tools.
class NvidiaTools : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(scope_.ok()) << scope_.error(); }

  Machine machine_ = Machine()
                         .install("bin/nvidia-smi", "bin/fake-nvidia-smi")
                         .install("bin/nvidia-settings", "bin/fake-nvidia-settings")
                         .file("nvidia/nvidia-settings.conf", kSettings);
  MachineScope scope_{machine_.dir()};
  GpuMonitorVorn monitor_;
};

// A field of nvidia-smi GPU 0 through its reader: the reading as text, or
// "fails(<what the output holds>)".
std::string smi_read(GpuMonitorVorn& m, const std::string& f) {
  using M = GpuMonitorVorn;
  const std::map<std::string, bool (M::*)(unsigned long, char*)> texts = {
      {"name", &M::linux_nv_smi_read_gpu_name},
      {"driver_version", &M::linux_nv_smi_read_driver_version},
      {"vbios_version", &M::linux_nv_smi_read_vbios_version}};
  const std::map<std::string, bool (M::*)(unsigned long, int*)> numbers = {
      {"fan.speed", &M::linux_nv_smi_read_gpu_fan_speed},
      {"memory.used", &M::linux_nv_smi_read_gpu_vram_used},
      {"utilization.gpu", &M::linux_nv_smi_read_gpu_usage},
      {"temperature.gpu", &M::linux_nv_smi_read_gpu_temperature},
      {"temperature.memory", &M::linux_nv_smi_read_vram_temperature},
      {"power.draw", &M::linux_nv_smi_read_gpu_power},
      {"clocks.current.sm", &M::linux_nv_smi_read_gpu_core_clock},
      {"clocks.current.memory", &M::linux_nv_smi_read_vram_clock}};
  unsigned long a = 5, b = 6;
  char text[128] = "kept";
  int v = -5;
  bool ok = false;
  std::string s;
  if (f == "count" || f == "pci.bus") {
    ok =
        f == "count" ? m.linux_nv_smi_read_num_gpus(&a) : m.linux_nv_smi_read_gpu_pci_bus_id(0, &a);
    s = std::to_string(a);
  } else if (f == "pci.device_id" || f == "pci.sub_device_id") {
    ok = f == "pci.device_id" ? m.linux_nv_smi_read_gpu_pci_device_id(0, &a, &b)
                              : m.linux_nv_smi_read_gpu_pci_subdevice_id(0, &a, &b);
    std::snprintf(text, sizeof text, "%lX %lX", a, b);
    s = text;
  } else if (texts.count(f) != 0) {
    ok = (m.*texts.at(f))(0, text);
    s = text;
  } else {
    ok = (m.*numbers.at(f))(0, &v);
    s = std::to_string(v);
  }
  return ok ? s : "fails(" + s + ")";
}

TEST_F(NvidiaTools, NvidiaSmiAnswersAreReadAsTheyCome) {
  // Answers for GPU 0; a "count" line stands for the whole data.
  const struct {
    std::string answer;
    const char* field;
    std::string expected;
  } cases[] = {
      // PCI ids: "0x", the device, then the vendor.
      {"pci.device_id 0x268410DE", "pci.device_id", "10DE 2684"},
      {"pci.device_id 0x2b85abcd", "pci.device_id", "ABCD 2B85"},
      {"pci.sub_device_id 0x40FD1458", "pci.sub_device_id", "1458 40FD"},
      {"pci.device_id 0x1234", "pci.device_id", "fails(5 6)"},
      {"pci.sub_device_id 0x123456", "pci.sub_device_id", "fails(5 6)"},
      {"pci.bus 0x07", "pci.bus", "7"},
      {"pci.bus 0xC1", "pci.bus", "193"},
      {"pci.bus 0x", "pci.bus", "fails(5)"},
      // Texts lose their newline; an empty one is no answer.
      {"name <nonl>NVIDIA GeForce RTX 4090", "name", "NVIDIA GeForce RTX 4090"},
      {"driver_version", "driver_version", "fails(kept)"},
      {"vbios_version " + std::string(200, 'x'), "vbios_version", std::string(127, 'x')},
      {"name <crash>", "name", "fails(kept)"},
      // Numbers: atoi, with a unit printed where none was asked. An answer
      // that is no value (bracketed, "N/A", empty, a message) is no reading,
      // never 0.
      {"memory.used 1024", "memory.used", "1024"},
      {"fan.speed 38", "fan.speed", "38"},
      {"utilization.gpu 38 %", "utilization.gpu", "38"},
      {"fan.speed [N/A]", "fan.speed", "fails(-5)"},
      {"utilization.gpu [Not Supported]", "utilization.gpu", "fails(-5)"},
      {"power.draw [Unknown Error]", "power.draw", "fails(-5)"},
      {"clocks.current.sm [Insufficient Permissions]", "clocks.current.sm", "fails(-5)"},
      {"clocks.current.sm N/A", "clocks.current.sm", "fails(-5)"},
      {"", "clocks.current.memory", "fails(-5)"},   // not in the data: "[N/A]"
      {"memory.used", "memory.used", "fails(-5)"},  // an empty line
      {"memory.used GPU is lost", "memory.used", "fails(-5)"},
      {"temperature.memory N/A", "temperature.memory", "fails(-5)"},
      {"temperature.memory [N/A]", "temperature.memory", "fails(-5)"},
      {"power.draw 215.37", "power.draw", "215"},
      {"temperature.gpu <nothing>", "temperature.gpu", "fails(-5)"},
      {"utilization.gpu <crash>", "utilization.gpu", "fails(-5)"},
      // "No devices were found"
      {"count 1\ngpu 3\ntemperature.gpu 48", "temperature.gpu", "fails(-5)"},
      // Texts and ids that are no value.
      {"name [N/A]", "name", "fails(kept)"},
      {"vbios_version N/A", "vbios_version", "fails(kept)"},
      {"pci.sub_device_id [Not Supported]", "pci.sub_device_id", "fails(5 6)"},
      {"pci.bus [N/A]", "pci.bus", "fails(5)"},
      // The count: the first line; no line at all is 0.
      {"count 2", "count", "2"},
      {"count <nothing>", "count", "0"},
      {"count <exit 6>No devices were found", "count", "0"},
  };
  for (const auto& c : cases) {
    std::ofstream(machine::staged_root() + "/nvidia/nvidia-smi.conf")
        << (c.answer.rfind("count", 0) == 0 ? "" : "count 1\ngpu 0\n") + c.answer + "\n";
    EXPECT_EQ(smi_read(monitor_, c.field), c.expected) << c.answer;
  }
  // No output to fill: nothing is asked.
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_name(0, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_pci_device_id(0, nullptr, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_usage(0, nullptr));
}

// Discovery stores what nvidia-smi reads in the record the host sees: power
// in whole watts, and a thousandth of them in `current` on this path.
TEST_F(NvidiaTools, DiscoveryStoresTheReadingsInTheRecord) {
  std::ofstream(machine::staged_root() + "/nvidia/nvidia-smi.conf")
      << "count 1\ngpu 0\npci.device_id 0x268410DE\npower.draw 215.37\ntemperature.gpu 48\n";
  ASSERT_TRUE(monitor_.linux_nv_smi_init_gpus());
  ASSERT_EQ(monitor_.get_num_gpus(), 1u);
  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_EQ(g->power.watts, 215.0f);
  EXPECT_EQ(g->power.current, 0.001f * 215.0f);
  EXPECT_EQ(g->temperatures[0].current, 48.0f);
  monitor_.cleanup_gpus_list();  // discovery alone: terminate would not free it
}

TEST_F(NvidiaTools, NvidiaSettingsReadings) {
  GpuMonitorVorn& m = monitor_;
  float a = -1.0f, b = -1.0f;
  // The first value above 0 of the output: 0 (a stopped fan) is no reading.
  EXPECT_TRUE(m.linux_nvidia_get_driver_version(5, &a) && a == 550.54f) << a;
  EXPECT_TRUE(m.linux_nvidia_gpu_get_core_temp(0, &a) && a == 41.0f) << a;
  EXPECT_FALSE(m.linux_nvidia_gpu_get_core_temp(7, &a));
  EXPECT_FALSE(m.linux_nvidia_gpu_get_fan_speed(0, &a));
  EXPECT_TRUE(m.linux_nvidia_gpu_get_fan_speed(1, &a) && a == 37.0f) << a;
  // Usages come from one line; an idle GPU reads but stores nothing.
  EXPECT_TRUE(m.linux_nvidia_gpu_get_usages(0, &a, &b) && a == 45.0f && b == 12.0f) << a << b;
  a = b = -1.0f;
  EXPECT_TRUE(m.linux_nvidia_gpu_get_usages(1, &a, &b) && a == -1.0f && b == -1.0f) << a << b;
  EXPECT_FALSE(m.linux_nvidia_gpu_get_usages(9, &a, &b));
  EXPECT_FALSE(m.linux_nvidia_gpu_get_usages(0, nullptr, nullptr));
}

TEST_F(NvidiaTools, NvidiaSettingsSensorNamesNeverReachTheShellUnlessTheyAreNames) {
  EXPECT_TRUE(monitor_.linux_nvidia_is_sensor_available(0, "GPUCoreTemp"));
  EXPECT_FALSE(monitor_.linux_nvidia_is_sensor_available(0, "GPU_Core_Temp_2"));
  EXPECT_FALSE(monitor_.linux_nvidia_is_sensor_available(0, nullptr));
  const std::string log = machine::staged_root() + "/nvidia/nvidia-settings.log";
  unlink(log.c_str());
  const std::string marker = machine::staged_root() + "/pwned";
  Texts hostile = {
      "", "GPU Core", "-e.", "GPU*", "'GPUCoreTemp'", "../GPUCoreTemp", "GPUCore\xC3\xA9Temp"};
  hostile.push_back(std::string(300, 'A'));
  for (std::string shell : {"; x", "$(x)", "`x`", " | x", " && x", "\nx"}) {
    hostile.push_back("GPUCoreTemp" + shell.replace(shell.find('x'), 1, "touch " + marker));
  }
  for (const std::string& name : hostile) {
    EXPECT_FALSE(monitor_.linux_nvidia_is_sensor_available(0, name.c_str())) << name;
  }
  EXPECT_EQ(access(log.c_str(), F_OK), -1) << "nvidia-settings was started";
  EXPECT_EQ(access(marker.c_str(), F_OK), -1);
}

// The ROP count asked of the driver, on a bare machine with these device
// files: the count, or the code of the step that failed.
using DevFiles = std::vector<std::pair<std::string, std::string>>;
struct Driver {
  explicit Driver(const DevFiles& dev) {
    std::filesystem::create_directories(machine.dir() + "/dev");  // a machine, if an empty one
    for (const auto& f : dev) machine.file("dev/" + f.first, f.second);
    scope.reset(new MachineScope(machine.dir()));
  }
  ~Driver() { zev_fake_nvidia_driver_close_all(); }  // failures leave descriptors open
  Machine machine;
  std::unique_ptr<MachineScope> scope;
};

const std::pair<std::string, std::string> kControl = {"nvidiactl", "client 0xc1d0004b\n"};
std::pair<std::string, std::string> gpu0(const std::string& extra) {
  return {"nvidia0", "rops 12 8 96\n" + extra};
}

TEST(RopCounter, EachFailingStepHasItsCode) {
  const std::pair<std::string, std::string> two[] = {
      kControl, {"nvidia0", "rops 22 8 176\n"}, {"nvidia1", "rops 14 8 112\n"}};
  const struct {
    DevFiles dev;
    unsigned long gpu;
    int code;
    int rops;
  } cases[] = {
      {{kControl, gpu0("")}, 0, 0, 96},
      {{}, 0, -1, 77},
      {{{"nvidiactl", "client_ioctl -1\n"}, gpu0("")}, 0, -2, 77},
      {{{"nvidiactl", "client_status 0x56\n"}, gpu0("")}, 0, -2, 77},
      {{kControl, gpu0("")}, 1, -3, 77},  // no /dev/nvidia1
      {{kControl, gpu0("register_ioctl -1\n")}, 0, -3, 77},
      {{kControl, gpu0("device_status 0x56\n")}, 0, -4, 77},
      {{kControl, gpu0("device_ioctl -1\n")}, 0, -4, 77},
      // The device object is always asked for instance 0, which only the
      // first GPU's device file may ask for.
      {{two[0], two[1], two[2]}, 1, -4, 77},
      {{two[0], two[1], two[2]}, 0, 0, 176},
      {{kControl, gpu0("subdevice_status 0x40\n")}, 0, -5, 77},
      {{kControl, gpu0("subdevice_ioctl -1\n")}, 0, -5, 77},
      {{kControl, gpu0("query_status 0x56\n")}, 0, -6, 77},
      {{kControl, gpu0("query_ioctl -1\n")}, 0, -6, 77},
      {{kControl, {"nvidia0", "# no ROP information\n"}}, 0, -6, 77},
  };
  for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
    Driver driver(cases[i].dev);
    ASSERT_TRUE(driver.scope->ok()) << driver.scope->error();
    GpuMonitorVorn monitor;
    int rops = 77;
    EXPECT_EQ(monitor.linux_nv_read_rop_counter(cases[i].gpu, &rops), cases[i].code)
        << "case " << i;
    EXPECT_EQ(rops, cases[i].rops) << "case " << i;
  }
  Driver driver({kControl, gpu0("")});
  EXPECT_EQ(GpuMonitorVorn().linux_nv_read_rop_counter(0, nullptr), 0);
}

TEST(RopCounter, TheDriversCountReplacesTheDatabasesAndMissingRopsAreReportedUnderCode432) {
  const std::string warning = "  - warning: GPU with missing ROP (8) detected";
  const struct {
    const char* gpu;  // dev/nvidia0
    uint32_t db_rops;
    int32_t code;
    uint32_t rops;
    Texts traces;
  } cases[] = {
      {"rops 11 8 88\n", 96, -1, 88, {"  - ROP counter (from driver): 88"}},
      {"rops 11 8 88\n", 96, 432, 88, {"  - ROP counter (from driver): 88", warning}},
      {"rops 12 8 96\n", 96, 432, 96, {"  - ROP counter (from driver): 96"}},
      {"rops 11 8 88\n", 64, 432, 88, {"  - ROP counter (from driver): 88"}},
      {"rops 11 8 88\n", 0xFFFFFFFFu, 432, 88, {"  - ROP counter (from driver): 88"}},  // unknown
  };
  for (const auto& c : cases) {
    Driver driver({kControl, {"nvidia0", c.gpu}});
    ASSERT_TRUE(driver.scope->ok()) << driver.scope->error();
    GpuMonitorVorn monitor;
    zev::GPU gpu;
    gpu.db_num_rops = gpu.num_rops = c.db_rops;
    gpu.rop_check_code = c.code;
    TraceCapture traces;
    nvidia_backend::check_rop_count(&monitor, &gpu, 0);
    EXPECT_EQ(traces.texts(), c.traces) << c.db_rops << " " << c.code;
    EXPECT_EQ(gpu.num_rops, c.rops);
    EXPECT_EQ(gpu.db_num_rops, c.db_rops);
  }
}

}  // namespace
