// The legacy tools' answers parsed as pure functions: the lines the readers'
// pipelines give on the recorded two-GPU desktop
// (machines/desktop-two-gpus-legacy-tools: lspci of an RTX 4090 and an
// RX 7900 XTX, aticonfig's report of adapter 0), then lines no tool gives.
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "backends/legacy/legacy_parse.h"

namespace {

using namespace legacy_parse;

struct Adapter {
  const char* name;
  // The lines the three lspci pipelines print for it.
  const char* codes_line;
  const char* revision_line;
  const char* name_line;
  unsigned long vendor, device;
  const char* revision;
};

const Adapter kAdapters[] = {
    {"RTX4090", "[10de:2684]\n", "rev a1\n",
     "NVIDIA Corporation AD102 [GeForce RTX 4090] (rev a1)\n", 0x10DE, 0x2684, "a1"},
    {"RX7900XTX", "[1002:744c]\n", "rev c8\n",
     "Advanced Micro Devices, Inc. [AMD/ATI] Navi 31 [Radeon RX 7900 XT/7900 XTX/7900M] (rev "
     "c8)\n",
     0x1002, 0x744C, "c8"},
};

void PrintTo(const Adapter& a, std::ostream* out) { *out << a.name; }

class LspciLines : public ::testing::TestWithParam<Adapter> {};

TEST_P(LspciLines, MeanWhatLspciSaid) {
  const Adapter& a = GetParam();
  unsigned long vendor = 0, device = 0;
  ASSERT_TRUE(pci_codes(a.codes_line, &vendor, &device));
  EXPECT_EQ(vendor, a.vendor);
  EXPECT_EQ(device, a.device);
  char revision[3] = "--";
  ASSERT_TRUE(pci_revision(a.revision_line, revision));
  EXPECT_STREQ(revision, a.revision);
  char name[128] = "";
  ASSERT_TRUE(adapter_name(a.name_line, name));
  EXPECT_STREQ(name, a.name_line);
}

INSTANTIATE_TEST_SUITE_P(RecordedDesktop, LspciLines, ::testing::ValuesIn(kAdapters),
                         [](const ::testing::TestParamInfo<Adapter>& info) {
                           return std::string(info.param.name);
                         });

TEST(LegacyParse, LinesTooShortForTheirPositions) {
  unsigned long vendor = 7;
  char revision[3] = "--";
  char name[128] = "untouched";
  for (const char* line : {"[1]\n", "[10de:26]", ""})
    EXPECT_FALSE(pci_codes(line, &vendor, nullptr));
  for (const char* line : {"rev \n", "rev a\n", "re"}) EXPECT_FALSE(pci_revision(line, revision));
  EXPECT_EQ(vendor, 7u);
  EXPECT_STREQ(revision, "--");
  EXPECT_FALSE(adapter_name("", name));
  EXPECT_STREQ(name, "untouched");
  std::string longer(300, 'X');
  ASSERT_TRUE(adapter_name(longer.c_str(), name));
  EXPECT_EQ(std::string(name), std::string(127, 'X'));
}

// aticonfig's report of adapter 0 ("Sensor 0: Temperature - 54.50 C", cut to
// its number), a cold sensor and the shell's answer for a missing tool.
TEST(LegacyParse, AticonfigTemperature) {
  float celsius = -1.0f;
  ASSERT_TRUE(temperature_celsius("54.50\n", &celsius));
  EXPECT_EQ(celsius, 54.0f);
  celsius = -1.0f;
  EXPECT_FALSE(temperature_celsius("0.00\n", &celsius));
  EXPECT_FALSE(temperature_celsius("\n", &celsius));
  EXPECT_EQ(celsius, -1.0f);
  EXPECT_TRUE(says_command_not_found("sh: 1: aticonfig: command not found\n"));
  EXPECT_FALSE(says_command_not_found("            Sensor 0: Temperature - 54.50 C\n"));
}

}  // namespace
