// nvidia-settings' terse answers (-q ATTRIBUTE -t) parsed as pure functions.
// No capture of the tool exists among the real machines; the answers are
// the forms the NVIDIA machines' data give it (a driver version, a reading,
// the utilisation line) and what it prints when it cannot answer.
#include <gtest/gtest.h>

#include "backends/nvidia/nvidia_settings_answers.h"

namespace {

using namespace nvidia_settings_answer;

TEST(NvidiaSettingsAnswers, ValuesAboveZeroRead) {
  const struct {
    const char* line;
    bool integer;
    float expected;  // -1: no reading
  } cases[] = {
      {"550.54.14\n", false, 550.54f},  // NvidiaDriverVersion
      {"41\n", true, 41.0f},            // GPUCoreTemp
      {"37\n", true, 37.0f},            // GPUCurrentFanSpeed
      {"0\n", true, -1.0f},             // a stopped fan
      {"41.9\n", true, 41.0f},          // atoi drops the fraction
      {"\n", false, -1.0f},
      {"ERROR: Error querying attribute 'GPUCoreTemp'\n", true, -1.0f},
      {"-5\n", true, -1.0f},
  };
  for (const auto& c : cases) {
    float value = -1.0f;
    const bool read =
        c.integer ? parse_positive_integer(c.line, &value) : parse_positive_decimal(c.line, &value);
    EXPECT_EQ(read, c.expected > 0.0f) << c.line;
    EXPECT_EQ(value, c.expected) << c.line;
  }
}

TEST(NvidiaSettingsAnswers, UtilizationLine) {
  const struct {
    const char* line;
    int graphics, memory, video, pcie;
  } cases[] = {
      {"graphics=45, memory=12, video=0, PCIe=1\n", 45, 12, 0, 1},
      {"graphics=0, memory=0, video=0, PCIe=0\n", 0, 0, 0, 0},
      {"graphics=7, memory=3\n", 7, 3, 0, 0},  // cut short: the rest reads 0
      {"ERROR: Error querying attribute 'GPUUtilization'\n", 0, 0, 0, 0},
      {"", 0, 0, 0, 0},
  };
  for (const auto& c : cases) {
    const Utilization u = parse_utilization(c.line);
    EXPECT_EQ(u.graphics, c.graphics) << c.line;
    EXPECT_EQ(u.memory, c.memory) << c.line;
    EXPECT_EQ(u.video, c.video) << c.line;
    EXPECT_EQ(u.pcie, c.pcie) << c.line;
  }
}

}  // namespace
