// The DRM card files' texts parsed as pure functions: one named case per
// real device's file, with the first line its capture holds (LACT's
// snapshots, /work/shared/real-machines/lact-*; machines/lact-*), then the
// texts no card should write. The recorded machines keep the scan, refresh
// and end-to-end tests.
#include <gtest/gtest.h>

#include <cstdio>
#include <ostream>
#include <sstream>
#include <string>

#include "backends/drm/drm_parse.h"
#include "io/numbered_entries.h"

namespace {

using namespace drm_parse;

enum Parser {
  kId4,
  kId2,
  kVendor,
  kText,
  kDecimal,
  kMilli,
  kHz,
  kWatts,
  kMiB,
  kLimit,
  kDriver,
  kMemoryLabel,
  kPwm,
  kGtMhz
};

// What a parser makes of `text`: "fail", the value (hex for PCI ids), or
// "yes"/"no" for the tests of a line.
std::string parse(Parser parser, const std::string& text) {
  const char* line = text.c_str();
  char out[128] = "";
  unsigned long long value = 0;
  float milliwatts = 0.0f;
  const bool unsigned_read = parse_unsigned(line, &value);
  auto hex = [&](unsigned long id) {
    std::snprintf(out, sizeof out, "%lX", id);
    return std::string(out);
  };
  auto yes = [](bool b) { return std::string(b ? "yes" : "no"); };
  auto number = [&](bool ok, long long v) { return ok ? std::to_string(v) : "fail"; };
  switch (parser) {
    case kId4: return hex(id4(line));
    case kId2: return hex(id2(line));
    case kVendor: return yes(names_vendor(line));
    case kText: return text_line(line, out, sizeof out) ? std::string(out) : "fail";
    case kDecimal: return std::to_string(scaled_decimal(line, 1));
    case kMilli: return std::to_string(scaled_decimal(line, kMilliPerUnit));
    case kHz: return std::to_string(scaled_decimal(line, kHzPerMHz));
    case kWatts: return std::to_string(whole_watts(microwatts(line)));
    case kMiB: return number(unsigned_read, static_cast<long long>(mebibytes(value)));
    case kLimit: {
      const bool ok = unsigned_read && limit_milliwatts(value, &milliwatts);
      return number(ok, static_cast<long long>(milliwatts));
    }
    case kDriver: {  // the uevent file, line by line
      std::istringstream lines(text);
      for (std::string l; std::getline(lines, l);) {
        if (uevent_driver((l + "\n").c_str(), out, sizeof out)) return out;
      }
      return "fail";
    }
    case kMemoryLabel:
      return yes(text_line(line, out, sizeof out) && names_memory_temperature(out));
    case kPwm: return number(unsigned_read, pwm_percent(value, pwm_max(false, 0)));
    case kGtMhz:
      return number(unsigned_read && plausible_gt_mhz(value), static_cast<long long>(value));
  }
  return "?";
}

struct FileText {
  const char* device;
  const char* file;
  const char* text;  // the file's first line (uevent: the whole file)
  Parser parser;
  const char* means;
};

void PrintTo(const FileText& f, std::ostream* out) { *out << f.device << " " << f.file; }

const char kRx7900xtxUevent[] =
    "DRIVER=amdgpu\nPCI_CLASS=30000\nPCI_ID=1002:744C\nPCI_SUBSYS_ID=1DA2:E471\n"
    "PCI_SLOT_NAME=0000:03:00.0\nMODALIAS=pci:v00001002d0000744Csv00001DA2sd0000E471bc03sc00i00\n";
const char kHd7870Uevent[] =
    "DRIVER=radeon\nPCI_CLASS=30000\nPCI_ID=1002:6818\nPCI_SUBSYS_ID=174B:E217\n"
    "PCI_SLOT_NAME=0000:01:00.0\nMODALIAS=pci:v00001002d00006818sv0000174Bsd0000E217bc03sc00i00\n";
const char kB580Uevent[] =
    "DRIVER=xe\nPCI_CLASS=30000\nPCI_ID=8086:E20B\nPCI_SUBSYS_ID=8086:1100\n"
    "PCI_SLOT_NAME=0000:09:00.0\nMODALIAS=pci:v00008086d0000E20Bsv00008086sd00001100bc03sc00i00\n";

// clang-format off
const FileText kDevices[] = {
    // AMD Radeon RX 7900 XTX (Navi 31, amdgpu): power from power1_average.
    {"RX7900XTX", "vendor", "0x1002\n", kId4, "1002"},
    {"RX7900XTX", "vendor_probe", "0x1002\n", kVendor, "yes"},
    {"RX7900XTX", "device", "0x744c\n", kId4, "744C"},
    {"RX7900XTX", "subsystem_device", "0xe471\n", kId4, "E471"},
    {"RX7900XTX", "vbios_version", "113-D70401XT-N11\n", kText, "113-D70401XT-N11"},
    {"RX7900XTX", "gpu_busy_percent", "3\n", kDecimal, "3"},
    {"RX7900XTX", "uevent", kRx7900xtxUevent, kDriver, "amdgpu"},
    {"RX7900XTX", "hwmon_name", "amdgpu\n", kText, "amdgpu"},  // NUL padding follows the line
    {"RX7900XTX", "freq1_input", "31000000\n", kHz, "31"},
    {"RX7900XTX", "freq2_input", "1249000000\n", kHz, "1249"},
    {"RX7900XTX", "temp1_input", "53000\n", kMilli, "53"},
    {"RX7900XTX", "temp2_label", "junction\n", kMemoryLabel, "no"},
    {"RX7900XTX", "temp3_label", "mem\n", kMemoryLabel, "yes"},
    {"RX7900XTX", "power1_average", "68000000\n", kWatts, "68"},
    {"RX7900XTX", "power1_cap", "290000000\n", kLimit, "290000"},
    {"RX7900XTX", "fan1_input", "0\n", kDecimal, "0"},
    // AMD Radeon RX 580 (Polaris, amdgpu).
    {"RX580", "revision", "0xe7\n", kId2, "E7"},
    {"RX580", "subsystem_vendor", "0x1da2\n", kId4, "1DA2"},
    {"RX580", "mem_busy_percent", "2\n", kDecimal, "2"},
    {"RX580", "mem_info_vram_total", "4294967296\n", kMiB, "4096"},
    {"RX580", "mem_info_vram_used", "536870912\n", kMiB, "512"},
    {"RX580", "freq1_input", "798080000\n", kHz, "798"},
    {"RX580", "freq2_input", "1750000000\n", kHz, "1750"},
    {"RX580", "power1_average", "41045000\n", kWatts, "41"},
    {"RX580", "fan1_input", "595\n", kDecimal, "595"},
    {"RX580", "pwm1", "35\n", kPwm, "13"},
    // AMD Radeon 780M (Phoenix APU): both power files, no memory clock.
    {"Phoenix", "revision", "0xdd\n", kId2, "DD"},
    {"Phoenix", "power1_input", "3142000\n", kWatts, "3"},
    {"Phoenix", "mem_info_vram_used", "1272893440\n", kMiB, "1213"},
    // AMD Radeon RX Vega 56: 8 GiB less the firmware's share.
    {"Vega56", "mem_info_vram_total", "8573157376\n", kMiB, "8176"},
    {"Vega56", "vbios_version", "115-D050PIL-100\n", kText, "115-D050PIL-100"},
    // AMD Radeon RX 9070 XT (RDNA4).
    {"RX9070XT", "device", "0x7550\n", kId4, "7550"},
    {"RX9070XT", "power1_cap", "120000000\n", kLimit, "120000"},
    {"RX9070XT", "pwm1", "81\n", kPwm, "31"},
    // AMD Radeon HD 7870 (radeon): no revision, no power.
    {"HD7870", "uevent", kHd7870Uevent, kDriver, "radeon"},
    {"HD7870", "freq1_input", "300000000\n", kHz, "300"},
    {"HD7870", "temp1_input", "27000\n", kMilli, "27"},
    // Intel Arc B580 (xe): power from the energy counter labelled "card".
    {"B580", "vendor", "0x8086\n", kId4, "8086"},
    {"B580", "revision", "0x00\n", kId2, "0"},
    {"B580", "uevent", kB580Uevent, kDriver, "xe"},
    {"B580", "hwmon_name", "xe\n", kText, "xe"},
    {"B580", "energy1_input", "11031745544\n", kMiB, "10520"},  // past 2^32 µJ, read whole
    {"B580", "energy1_label", "card\n", kText, "card"},
    {"B580", "temp3_label", "vram\n", kMemoryLabel, "yes"},
    {"B580", "temp6_label", "vram_ch_0\n", kMemoryLabel, "no"},
    {"B580", "act_freq", "0\n", kGtMhz, "0"},  // the GT asleep: cur_freq is read
    {"B580", "cur_freq", "400\n", kGtMhz, "400"},
    {"B580", "power1_cap", "190000000\n", kLimit, "190000"},
    // Intel Iris Xe (Tiger Lake, xe) and NVIDIA RTX 4080 (nvidia): identity.
    {"TigerLake", "cur_freq", "1100\n", kGtMhz, "1100"},
    {"TigerLake", "device", "0x9a49\n", kId4, "9A49"},
    {"RTX4080", "vendor", "0x10de\n", kId4, "10DE"},
    {"RTX4080", "subsystem_vendor", "0x1462\n", kId4, "1462"},
};

// Texts no card of the captures writes: each gives a clear result.
const FileText kGarbage[] = {
    {"empty", "vendor_probe", "", kVendor, "no"},
    {"zero_vendor", "vendor_probe", "0x0000\n", kVendor, "no"},
    {"short_vendor", "vendor_probe", "0x1\n", kVendor, "yes"},
    {"upper_case", "device", "0X744C9999\n", kId4, "744C"},  // four digits, no check of the rest
    {"empty", "vbios_version", "", kText, "fail"},
    {"newline_only", "vbios_version", "\n", kText, ""},
    {"words", "gpu_busy_percent", "busy\n", kDecimal, "0"},
    {"huge", "temp1_input", "99999999999999999999\n", kMilli, "2147483647"},
    {"negative", "temp1_input", "-1500\n", kMilli, "-1"},
    {"huge", "power1_average", "4294967296000000\n", kWatts, "2147483647"},
    {"overflow", "mem_info_vram_used", "18446744073709551616\n", kMiB, "fail"},
    {"sign", "mem_info_vram_used", "-1\n", kMiB, "fail"},
    {"blanks", "mem_info_vram_used", " \t1048576\n", kMiB, "1"},
    {"zero", "power1_cap", "0\n", kLimit, "fail"},
    {"no_driver", "uevent", "PCI_CLASS=30000\nDRIVER=\n", kDriver, ""},
    {"none", "uevent", "PCI_CLASS=30000\n", kDriver, "fail"},
    {"terahertz", "act_freq", "1000001\n", kGtMhz, "fail"},
    {"above_max", "pwm1", "300\n", kPwm, "100"},
};
// clang-format on

std::string case_name(const ::testing::TestParamInfo<FileText>& info) {
  return std::string(info.param.device) + "_" + info.param.file;
}

class DrmFileText : public ::testing::TestWithParam<FileText> {};

TEST_P(DrmFileText, MeansWhatTheCardSaid) {
  EXPECT_EQ(parse(GetParam().parser, GetParam().text), GetParam().means);
}

INSTANTIATE_TEST_SUITE_P(CapturedCards, DrmFileText, ::testing::ValuesIn(kDevices), case_name);
INSTANTIATE_TEST_SUITE_P(Garbage, DrmFileText, ::testing::ValuesIn(kGarbage), case_name);

TEST(DrmParse, PwmMaximumWithinItsRange) {
  EXPECT_EQ(pwm_max(true, 100), 100);
  EXPECT_EQ(pwm_max(true, 65535), 65535);
  EXPECT_EQ(pwm_max(true, 65536), 255);
  EXPECT_EQ(pwm_max(true, 0), 255);
  EXPECT_EQ(pwm_max(false, 100), 255);
}

// Two readings of the B580's card energy counter one second apart, and the
// counters that give no power.
TEST(DrmParse, AverageWattsOfAnEnergyCounter) {
  double watts = -1.0;
  ASSERT_TRUE(average_watts(11031745544ull, 11031745544ull + 36000000ull, 1000000000, &watts));
  EXPECT_DOUBLE_EQ(watts, 36.0);
  watts = -1.0;
  EXPECT_FALSE(average_watts(11031745544ull, 11031745543ull, 1000000000, &watts));  // wrapped
  EXPECT_FALSE(average_watts(0, 20000000000ull, 1000000000, &watts));  // 20 kW: a reset counter
  EXPECT_EQ(watts, -1.0);
}

// Names of /sys/class/drm and of a device's hwmon folder.
TEST(NumberedEntries, CardsAndHwmonFoldersByName) {
  using numbered_entries::number_after;
  EXPECT_EQ(number_after("card0", "card"), 0);
  EXPECT_EQ(number_after("card17", "card"), 17);
  EXPECT_EQ(number_after("hwmon8", "hwmon"), 8);
  EXPECT_EQ(number_after("card2147483647", "card"), 2147483647);
  for (const char* name : {"card0-DP-1", "renderD128", "card01", "card", "card-1", "hwmon3",
                           "card2147483648", "version"}) {
    EXPECT_EQ(number_after(name, "card"), -1) << name;
  }
}

}  // namespace
