// nvidia-smi's answers parsed as pure functions: one named case per real
// device, with the answer lines its captured nvidia-smi gives (the captured
// machines keep the discovery, refresh and end-to-end tests).
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "backends/nvidia/nv_smi_answers.h"

namespace {

struct DeviceAnswers {
  const char* name;
  // The answer lines, as nvidia-smi prints them.
  const char* name_line;
  const char* device_id_line;
  const char* sub_device_id_line;
  const char* bus_line;
  const char* fan_line;
  const char* power_line;
  const char* memory_temperature_line;
  // What they mean.
  const char* gpu_name;
  unsigned long vendor, device, subvendor, subdevice, bus;
  int fan_percent;  // -1: no reading
  int watts;
  int memory_celsius;  // -1: no reading
};

// machines/nvidia-h100-smi-capture and machines/nvidia-rtx2080super-smi-capture.
const DeviceAnswers kDevices[] = {
    {"H100_80GB_HBM3", "NVIDIA H100 80GB HBM3\n", "0x233010DE\n", "0x16C110DE\n", "0x00\n",
     "[N/A]\n", "631.95\n", "54\n", "NVIDIA H100 80GB HBM3", 0x10DE, 0x2330, 0x10DE, 0x16C1, 0x00,
     -1, 631, 54},
    {"RTX_2080_SUPER", "NVIDIA GeForce RTX 2080 SUPER\n", "0x1E8110DE\n", "0x40051458\n", "0x0C\n",
     "38\n", "39.32\n", "N/A\n", "NVIDIA GeForce RTX 2080 SUPER", 0x10DE, 0x1E81, 0x1458, 0x4005,
     0x0C, 38, 39, -1},
};

void PrintTo(const DeviceAnswers& d, std::ostream* out) { *out << d.name; }

class NvSmiAnswers : public ::testing::TestWithParam<DeviceAnswers> {};

TEST_P(NvSmiAnswers, MeanWhatTheDeviceSaid) {
  const DeviceAnswers& d = GetParam();
  char text[128] = "untouched";
  ASSERT_TRUE(nv_smi_answer::parse_text(d.name_line, text));
  EXPECT_STREQ(text, d.gpu_name);

  unsigned long vendor = 0, device = 0;
  ASSERT_TRUE(nv_smi_answer::parse_id_pair(d.device_id_line, &vendor, &device));
  EXPECT_EQ(vendor, d.vendor);
  EXPECT_EQ(device, d.device);
  ASSERT_TRUE(nv_smi_answer::parse_id_pair(d.sub_device_id_line, &vendor, &device));
  EXPECT_EQ(vendor, d.subvendor);
  EXPECT_EQ(device, d.subdevice);

  unsigned long bus = 99;
  ASSERT_TRUE(nv_smi_answer::parse_bus(d.bus_line, &bus));
  EXPECT_EQ(bus, d.bus);

  int value = -7;
  EXPECT_EQ(nv_smi_answer::parse_number(d.fan_line, &value), d.fan_percent >= 0);
  EXPECT_EQ(value, d.fan_percent >= 0 ? d.fan_percent : -7);
  ASSERT_TRUE(nv_smi_answer::parse_number(d.power_line, &value));
  EXPECT_EQ(value, d.watts);
  value = -7;
  EXPECT_EQ(nv_smi_answer::parse_memory_temperature(d.memory_temperature_line, &value),
            d.memory_celsius >= 0);
  EXPECT_EQ(value, d.memory_celsius >= 0 ? d.memory_celsius : -7);
}

INSTANTIATE_TEST_SUITE_P(CapturedDevices, NvSmiAnswers, ::testing::ValuesIn(kDevices),
                         [](const ::testing::TestParamInfo<DeviceAnswers>& info) {
                           return std::string(info.param.name);
                         });

// Answers that are no value: the parsers leave their outputs as they were.
TEST(NvSmiAnswers, NoValueIsNoReading) {
  for (const char* line : {"[N/A]\n", "[Not Supported]\n", "[Unknown Error]\n",
                           "[Insufficient Permissions]\n", "N/A\n", "\n", ""}) {
    SCOPED_TRACE(line);
    char text[128] = "untouched";
    int number = -7;
    unsigned long id = 5, bus = 5;
    EXPECT_FALSE(nv_smi_answer::parse_text(line, text));
    EXPECT_FALSE(nv_smi_answer::parse_number(line, &number));
    EXPECT_FALSE(nv_smi_answer::parse_memory_temperature(line, &number));
    EXPECT_FALSE(nv_smi_answer::parse_id_pair(line, &id, &id));
    EXPECT_FALSE(nv_smi_answer::parse_bus(line, &bus));
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(number, -7);
    EXPECT_EQ(id, 5u);
    EXPECT_EQ(bus, 5u);
  }
}

// A message where a number belongs is no reading, not atoi's 0.
TEST(NvSmiAnswers, MessageIsNoNumber) {
  const char* line = "Unable to determine the device handle for GPU0000:01:00.0: Unknown Error\n";
  int number = -7;
  EXPECT_FALSE(nv_smi_answer::parse_number(line, &number));
  EXPECT_FALSE(nv_smi_answer::parse_memory_temperature(line, &number));
  EXPECT_EQ(number, -7);
}

}  // namespace
