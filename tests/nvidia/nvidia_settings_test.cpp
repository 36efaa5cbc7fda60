// nvidia-settings readers: their command lines, the "first value above 0"
// rule, the utilization line, and the sensor test that hands a name to a
// shell, which must refuse anything but an attribute name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/nvidia/nvidia_machines.h"

namespace {

using nvidia_test::lines_of;
using nvidia_test::Machine;
using testing_support::MachineScope;
using testing_support::read_file;

const char kSettings[] =
    "-q NvidiaDriverVersion -t\n"
    "| 550.54.14\n"
    "-q [gpu:0]/GPUCoreTemp -t\n"
    "| 0\n"
    "| 41\n"
    "-q [gpu:0]/GPUCurrentFanSpeed -t\n"
    "| 0\n"
    "-q [gpu:1]/GPUCurrentFanSpeed -t\n"
    "| 37\n"
    "-q [gpu:0]/GPUUtilization -t\n"
    "| graphics=45, memory=12, video=0, PCIe=1\n"
    "-q [gpu:1]/GPUUtilization -t\n"
    "| graphics=0, memory=0, video=0, PCIe=0\n"
    "-q all\n"
    "|   Attribute 'GPUCoreTemp' (zev-desktop:1[gpu:0]): 41.\n"
    "|   Attribute 'GPUCurrentFanSpeed' (zev-desktop:1[fan:0]): 30.\n";

class NvidiaSettings : public ::testing::Test {
 protected:
  void SetUp() override {
    machine_.reset(new Machine());
    machine_->install("bin/nvidia-settings", "bin/fake-nvidia-settings");
    machine_->file("nvidia/nvidia-settings.conf", kSettings);
    scope_.reset(new MachineScope(machine_->dir()));
    ASSERT_TRUE(scope_->ok()) << scope_->error();
  }
  void TearDown() override {
    scope_.reset();
    machine_.reset();
  }
  std::vector<std::string> commands() {
    const std::string log = machine::staged_root() + "/nvidia/nvidia-settings.log";
    std::vector<std::string> lines = lines_of(read_file(log));
    unlink(log.c_str());
    return lines;
  }

  GpuMonitorVorn monitor_;
  std::unique_ptr<Machine> machine_;
  std::unique_ptr<MachineScope> scope_;
};

TEST_F(NvidiaSettings, TheDriverVersionIsTheFirstNumberOfItsLine) {
  float version = -1.0f;
  ASSERT_TRUE(monitor_.linux_nvidia_get_driver_version(5, &version));
  EXPECT_EQ(version, 550.54f);
  // The index is not part of the query.
  EXPECT_EQ(commands(), std::vector<std::string>{"nvidia-settings -q NvidiaDriverVersion -t"});
}

TEST_F(NvidiaSettings, TemperatureAndFanTakeTheFirstValueAboveZero) {
  float celsius = -1.0f;
  ASSERT_TRUE(monitor_.linux_nvidia_gpu_get_core_temp(0, &celsius));
  EXPECT_EQ(celsius, 41.0f);
  // A stopped fan (0) is no reading.
  float percent = -1.0f;
  EXPECT_FALSE(monitor_.linux_nvidia_gpu_get_fan_speed(0, &percent));
  EXPECT_EQ(percent, -1.0f);
  ASSERT_TRUE(monitor_.linux_nvidia_gpu_get_fan_speed(1, &percent));
  EXPECT_EQ(percent, 37.0f);
  // Unknown GPU: no output at all.
  EXPECT_FALSE(monitor_.linux_nvidia_gpu_get_core_temp(7, &celsius));
  const std::vector<std::string> expected = {
      "nvidia-settings -q [gpu:0]/GPUCoreTemp -t",
      "nvidia-settings -q [gpu:0]/GPUCurrentFanSpeed -t",
      "nvidia-settings -q [gpu:1]/GPUCurrentFanSpeed -t",
      "nvidia-settings -q [gpu:7]/GPUCoreTemp -t",
  };
  EXPECT_EQ(commands(), expected);
}

TEST_F(NvidiaSettings, UsagesComeFromOneLine) {
  float gpu = -1.0f, memory = -1.0f;
  ASSERT_TRUE(monitor_.linux_nvidia_gpu_get_usages(0, &gpu, &memory));
  EXPECT_EQ(gpu, 45.0f);
  EXPECT_EQ(memory, 12.0f);
  // Either output may be missing.
  memory = -1.0f;
  ASSERT_TRUE(monitor_.linux_nvidia_gpu_get_usages(0, nullptr, &memory));
  EXPECT_EQ(memory, 12.0f);
  EXPECT_EQ(commands(), (std::vector<std::string>{"nvidia-settings -q [gpu:0]/GPUUtilization -t",
                                                  "nvidia-settings -q [gpu:0]/GPUUtilization -t"}));
}

TEST_F(NvidiaSettings, AnIdleGpuReadsButStoresNothing) {
  float gpu = -1.0f, memory = -1.0f;
  EXPECT_TRUE(monitor_.linux_nvidia_gpu_get_usages(1, &gpu, &memory));
  EXPECT_EQ(gpu, -1.0f);
  EXPECT_EQ(memory, -1.0f);
  // No line: false.
  EXPECT_FALSE(monitor_.linux_nvidia_gpu_get_usages(9, &gpu, &memory));
}

TEST_F(NvidiaSettings, NullOutputsStartNothing) {
  EXPECT_FALSE(monitor_.linux_nvidia_get_driver_version(0, nullptr));
  EXPECT_FALSE(monitor_.linux_nvidia_gpu_get_core_temp(0, nullptr));
  EXPECT_FALSE(monitor_.linux_nvidia_gpu_get_fan_speed(0, nullptr));
  EXPECT_FALSE(monitor_.linux_nvidia_gpu_get_usages(0, nullptr, nullptr));
  EXPECT_FALSE(monitor_.linux_nvidia_is_sensor_available(0, nullptr));
  EXPECT_TRUE(commands().empty());
}

TEST_F(NvidiaSettings, ASensorIsAvailableWhenTheFullListNamesIt) {
  EXPECT_TRUE(monitor_.linux_nvidia_is_sensor_available(0, "GPUCoreTemp"));
  // Underscores and digits are part of attribute names.
  EXPECT_FALSE(monitor_.linux_nvidia_is_sensor_available(0, "GPU_Core_Temp_2"));
  EXPECT_FALSE(monitor_.linux_nvidia_is_sensor_available(0, "GPUMemoryTemp"));
  const std::vector<std::string> lines = commands();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines, std::vector<std::string>(3, "nvidia-settings -q all"));
}

TEST_F(NvidiaSettings, NamesThatAreNotAttributeNamesNeverReachTheShell) {
  const std::string marker = machine::staged_root() + "/pwned";
  const std::vector<std::string> hostile = {
      "",
      "GPUCoreTemp; touch " + marker,
      "$(touch " + marker + ")",
      "`touch " + marker + "`",
      "GPUCoreTemp | touch " + marker,
      "GPUCoreTemp && touch " + marker,
      "GPUCoreTemp\ntouch " + marker,
      "GPU Core",
      "-e.",
      "GPU*",
      "'GPUCoreTemp'",
      "../GPUCoreTemp",
      "GPUCore\xC3\xA9Temp",
      std::string(300, 'A'),
  };
  for (const std::string& name : hostile) {
    EXPECT_FALSE(monitor_.linux_nvidia_is_sensor_available(0, name.c_str())) << name;
  }
  EXPECT_TRUE(commands().empty());
  EXPECT_NE(access(marker.c_str(), F_OK), 0);
}

}  // namespace
