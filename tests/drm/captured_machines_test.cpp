// The DRM back-end on sysfs trees captured from real cards (machines/lact-*):
// what a host reads after the scan and one refresh, against the values the
// captured files hold. Then the extra sensors on changed copies: energy
// counters that move, stall, run backwards or hold garbage; PWM fans; label
// files that are empty, padded with NUL bytes or FIFOs; many or dangling
// entries in /sys/class/drm.
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "drm_host.h"

namespace {

using drm_test::Edits;
constexpr float kUnset = -1.0f;

struct Captured {
  const char* machine;
  const char* name;  // shown name ("" where the capture lacks the revision an AMD row needs)
  const char* driver;
  float core_c, memory_c, usage, memory_usage, core_mhz, memory_mhz, watts, limit_w;
  float refreshed_watts;  // after the refresh: an energy counter that did not move reads 0 W
  std::vector<float> fans_percent, fans_rpm;
  int64_t vram_mb, vram_used_mb;
};

void PrintTo(const Captured& c, std::ostream* os) { *os << c.machine; }

// clang-format off
// Values as the capture's files hold them (the README of each machine lists
// them), in the record's units: whole degrees and MHz, watts, MiB.
const Captured kCaptured[] = {
    {"lact-amd-rx7900xtx", "", "amdgpu", 53, 68, 3, kUnset, 31, 1249, 68, 290, 68, {kUnset}, {0}, 0, -1},
    {"lact-amd-rx9070xt", "", "amdgpu", 42, 68, 3, kUnset, 167, 1258, 55, 120, 55, {kUnset}, {896}, 0, -1},
    {"lact-amd-rx580", "AMD Radeon RX 580 Series", "amdgpu", 44, kUnset, 11, 2, 798, 1750, 41, 155, 41,
     {kUnset}, {595}, 4096, 512},
    {"lact-amd-vega56", "AMD Radeon RX Vega", "amdgpu", 38, 39, 0, kUnset, 26, 167, 8, 260, 8, {kUnset},
     {5}, 8176, 15},
    // An APU: power1_input (3.142 W) is read before power1_average.
    {"lact-amd-phoenix", "AMD Radeon 780M Graphics", "amdgpu", 25, kUnset, 0, kUnset, 800, kUnset, 3,
     kUnset, 3, {}, {}, 4096, 1213},
    // radeon: no RPM input, only the PWM duty (51 of 255).
    {"lact-amd-hd7870", "", "radeon", 27, kUnset, kUnset, kUnset, 300, kUnset, kUnset, kUnset, kUnset, {20},
     {kUnset}, 0, -1},
    // xe: core is the first input (pkg, temp2), memory the one labelled "vram";
    // the GT is asleep (act_freq 0), so the clock is the requested 400 MHz.
    // Power needs two energy readings: see EnergyCounters below.
    {"lact-intel-b580", "Intel Arc B580 Limited Edition", "xe", 54, 56, kUnset, kUnset, 400, kUnset,
     kUnset, 190, 0, {kUnset, kUnset, kUnset}, {1116, 1235, 0}, 0, -1},
    // No hwmon folder: the driver comes from the device's uevent.
    {"lact-intel-tigerlake", "Intel Iris Xe Graphics", "xe", kUnset, kUnset, kUnset, kUnset, 1100,
     kUnset, kUnset, kUnset, kUnset, {}, {}, 0, -1},
    {"lact-nvidia-rtx4080", "MSI RTX 4080 Suprim X", "nvidia", kUnset, kUnset, kUnset, kUnset, kUnset,
     kUnset, kUnset, kUnset, kUnset, {}, {}, 0, -1},
};
// clang-format on

class CapturedMachine : public testing::TestWithParam<Captured> {};

TEST_P(CapturedMachine, ScanAndRefreshShowWhatTheFilesHold) {
  const Captured& c = GetParam();
  ENTER_HOST(host, c.machine);
  ASSERT_EQ(host->get_num_gpus(), 1u);
  // The values read at discovery are those of the refresh too.
  for (int pass = 0; pass < 2; ++pass) {
    SCOPED_TRACE(pass == 0 ? "scan" : "refresh");
    const zev::GPU& g = host.gpu(0);
    EXPECT_STREQ(g.use_marketing_name ? g.marketing_name : g.name, c.name);
    EXPECT_STREQ(g.driver_name, c.driver);
    EXPECT_EQ(g.temperatures[0].current, c.core_c);
    EXPECT_EQ(g.temperatures[2].current, c.memory_c);
    EXPECT_EQ(g.temperatures[2].max, c.memory_c);
    EXPECT_EQ(g.core_usage[0], c.usage);
    EXPECT_EQ(g.memory_usage[0], c.memory_usage);
    EXPECT_EQ(g.core_clock.current, c.core_mhz);
    EXPECT_EQ(g.memory_clock.current, c.memory_mhz);
    EXPECT_EQ(g.power.watts, pass == 0 ? c.watts : c.refreshed_watts);
    EXPECT_EQ(g.power.enforced_limit, c.limit_w == kUnset ? kUnset : c.limit_w * 1000);
    EXPECT_EQ(g.vram_size_mb, c.vram_mb);
    EXPECT_EQ(g.vram_used_mb, c.vram_used_mb);
    ASSERT_EQ(g.num_fans, c.fans_rpm.size());
    for (size_t f = 0; f < g.num_fans; ++f) {
      EXPECT_EQ(g.fans[f].speed_percent, c.fans_percent[f]) << "fan " << f;
      EXPECT_EQ(g.fans[f].rpm, c.fans_rpm[f]) << "fan " << f;
    }
    EXPECT_EQ(g.monitorable, c.core_c != kUnset || c.core_mhz != kUnset);
    host->update_dynamic_data();
  }
}

INSTANTIATE_TEST_SUITE_P(Lact, CapturedMachine, testing::ValuesIn(kCaptured), [](const auto& info) {
  return testing_support::test_name(info.param.machine);
});

const std::string kB580Hwmon = "/sys/class/drm/card1/device/hwmon/hwmon2/";

// Power from the energy counter: the average between two readings, taken
// over the time between them; nothing where the counter runs backwards or
// stops being a number (and a reading that is no number is no new start).
struct EnergyStep {
  const char* microjoules;  // the counter before the refresh
  bool number;
  double joules;  // energy since the last number read, 0: no new power
};
struct EnergyCase {
  const char* name;
  std::vector<EnergyStep> steps;
};
void PrintTo(const EnergyCase& c, std::ostream* os) { *os << c.name; }

const EnergyCase kEnergyCases[] = {
    {"Forwards", {{"11041745544\n", true, 10}, {"11061745544\n", true, 20}}},
    // Backwards (a reset or wrap): no reading; the next one starts there.
    {"Backwards", {{"500\n", true, 0}, {"5000500\n", true, 5}}},
    {"NoNumber", {{"garbage\n", false, 0}, {"", false, 0}, {"11041745544\n", true, 10}}},
};

class EnergyCounters : public testing::TestWithParam<EnergyCase> {};

TEST_P(EnergyCounters, PowerIsTheAverageBetweenTwoReadings) {
  using Clock = std::chrono::steady_clock;
  // When the last number was read: between these two instants.
  Clock::time_point read_after = Clock::now();
  ENTER_HOST(host, "lact-intel-b580");
  Clock::time_point read_before = Clock::now();
  zev::GPU& g = host.gpu(0);
  EXPECT_EQ(g.power.watts, kUnset);
  EXPECT_EQ(g.sensor_available[4], 1);
  for (const EnergyStep& step : GetParam().steps) {
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    drm_test::edit({{kB580Hwmon + "energy1_input", step.microjoules}});
    const float before = g.power.watts;
    const Clock::time_point start = Clock::now();
    host->update_dynamic_data();
    const Clock::time_point end = Clock::now();
    if (step.joules == 0) {
      EXPECT_EQ(g.power.watts, before) << step.microjoules;
    } else {
      const double longest = std::chrono::duration<double>(end - read_after).count();
      const double shortest = std::chrono::duration<double>(start - read_before).count();
      EXPECT_GE(g.power.watts, step.joules / longest * 0.999) << step.microjoules;
      EXPECT_LE(g.power.watts, step.joules / shortest * 1.001) << step.microjoules;
      EXPECT_FLOAT_EQ(g.power.current, 0.001f * g.power.watts);
    }
    if (step.number) read_after = start, read_before = end;
  }
}

INSTANTIATE_TEST_SUITE_P(LactIntelB580, EnergyCounters, testing::ValuesIn(kEnergyCases),
                         [](const auto& info) { return std::string(info.param.name); });

// clang-format off
const std::string kHd7870Hwmon = "/sys/class/drm/card0/device/hwmon/hwmon3/";
const std::string kRx7900Hwmon = "/sys/class/drm/card0/device/hwmon/hwmon8/";
const std::string kRx7900Device = "/sys/devices/pci0000:00/0000:03:00.0/";
struct Variant {
  const char* name;
  const char* machine;
  Edits edits;
  float memory_c;
  std::vector<float> fans_percent;
  int hwmon;
};
const std::vector<Variant> kVariants = {
    // PWM without a pwm1_max counts against 255; a duty above it is 100 %.
    {"PwmWithoutMax", "lact-amd-hd7870",
     {{kHd7870Hwmon + "pwm1_max", nullptr}, {kHd7870Hwmon + "pwm1", "255\n"}}, kUnset, {100}, 3},
    {"PwmAboveMax", "lact-amd-hd7870",
     {{kHd7870Hwmon + "pwm1_max", "100\n"}, {kHd7870Hwmon + "pwm1", "400\n"}}, kUnset, {100}, 3},
    {"PwmNoNumber", "lact-amd-hd7870", {{kHd7870Hwmon + "pwm1", "fast\n"}}, kUnset, {}, 3},
    // The memory input is found by its label, whatever its number; empty
    // and unknown labels are passed over.
    {"UnknownLabel", "lact-amd-rx7900xtx",
     {{kRx7900Hwmon + "temp3_label", "memory\n"}}, kUnset, {kUnset}, 8},
    {"LabelOfAnyNumber", "lact-amd-rx7900xtx",
     {{kRx7900Hwmon + "temp3_label", ""}, {kRx7900Hwmon + "temp12_label", "vram\n"},
      {kRx7900Hwmon + "temp12_input", "71500\n"}}, 71, {kUnset}, 8},
    // Two hwmon folders under one device: the lower number whose name reads.
    {"HigherHwmonFolder", "lact-amd-rx7900xtx",
     {{kRx7900Device + "hwmon/hwmon11/name", "amdgpu\n"}}, 68, {kUnset}, 8},
    {"LowerHwmonFolder", "lact-amd-rx7900xtx",
     {{kRx7900Device + "hwmon/hwmon2/name", "amdgpu\n"},
      {kRx7900Device + "hwmon/hwmon2/temp3_label", "mem\n"},
      {kRx7900Device + "hwmon/hwmon2/temp3_input", "20000\n"}}, 20, {}, 2},
};
// clang-format on

void PrintTo(const Variant& v, std::ostream* os) { *os << v.machine; }

class SensorVariant : public testing::TestWithParam<Variant> {};

TEST_P(SensorVariant, LabelsPwmAndHwmonFolders) {
  const Variant& v = GetParam();
  ENTER_HOST(host, v.machine, v.edits);
  for (int pass = 0; pass < 2; ++pass) {
    const zev::GPU& g = host.gpu(0);
    EXPECT_EQ(g.drm_hwmon_index, v.hwmon);
    EXPECT_EQ(g.temperatures[2].current, v.memory_c);
    ASSERT_EQ(g.num_fans, v.fans_percent.size());
    for (size_t f = 0; f < g.num_fans; ++f) EXPECT_EQ(g.fans[f].speed_percent, v.fans_percent[f]);
    host->update_dynamic_data();
  }
}

INSTANTIATE_TEST_SUITE_P(Lact, SensorVariant, testing::ValuesIn(kVariants),
                         [](const auto& info) { return std::string(info.param.name); });

// A label padded with NUL bytes (as sysfs files captured whole are) reads as
// its text, and a dangling card link is no card. (FIFOs: blocking_files_test.)
TEST(ExtraSensors, PaddedLabelsAndDanglingCards) {
  testing_support::TempMachine machine({}, "lact-amd-rx7900xtx");
  const std::string hwmon = machine.dir() + "/sys/devices/pci0000:00/0000:03:00.0/hwmon/hwmon8/";
  std::ofstream(hwmon + "temp1_label", std::ios::binary) << "mem\n" + std::string(4089, '\0');
  std::filesystem::create_symlink("../../devices/pci0000:00/0000:07:00.0/drm/card3",
                                  machine.dir() + "/sys/class/drm/card3");
  ENTER_HOST(host, machine.dir());
  ASSERT_EQ(host->get_num_gpus(), 1u);
  EXPECT_EQ(host.gpu(0).temperatures[2].current, 53);
  EXPECT_EQ(host.gpu(0).temperatures[0].current, 53);
}

// 10,000 entries in /sys/class/drm: cards in ascending number until the GPU
// list is full (16), connectors and render nodes passed over.
TEST(ExtraSensors, ManyDrmEntries) {
  testing_support::TempMachine machine({}, "lact-amd-rx580");
  const std::string drm = machine.dir() + "/sys/class/drm/";
  for (int n = 0; n < 2500; ++n) {
    std::filesystem::create_symlink("../../devices/pci0000:00/0000:09:00.0/drm/card0",
                                    drm + "card" + std::to_string(n + 1));
    for (const char* other : {"-DP-1", "-HDMI-A-1"}) {
      std::ofstream(drm + "card" + std::to_string(n + 1) + other) << "";
    }
    std::ofstream(drm + "renderD" + std::to_string(128 + n)) << "";
  }
  std::ofstream(drm + "card01") << "";
  ENTER_HOST(host, machine.dir());
  ASSERT_EQ(host->get_num_gpus(), 16u);
  for (unsigned long i = 0; i < 16; ++i) EXPECT_EQ(host.gpu(i).drm_card_index, static_cast<int>(i));
}

// Machines with cards beyond card7 and hwmon folders beyond hwmon7: every
// card in ascending number, each with its own hwmon folder.
struct Many {
  const char* machine;
  std::vector<int> cards, hwmons;  // -1: none (the record keeps 8)
};
void PrintTo(const Many& m, std::ostream* os) { *os << m.machine; }

const Many kMany[] = {
    {"amd-12-gpu-mining-rig",
     {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11},
     {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}},
    {"amd-mi300x-8-gpu-server",
     {0, 1, 9, 17, 25, 33, 41, 49, 57},
     {-1, 12, 13, 14, 15, 16, 17, 18, 19}},
};

class ManyCards : public testing::TestWithParam<Many> {};

TEST_P(ManyCards, EveryCardWithItsHwmon) {
  const Many& m = GetParam();
  ENTER_HOST(host, m.machine);
  ASSERT_EQ(host->get_num_gpus(), m.cards.size());
  host->update_dynamic_data();
  for (size_t i = 0; i < m.cards.size(); ++i) {
    const zev::GPU& g = host.gpu(i);
    EXPECT_EQ(g.drm_card_index, m.cards[i]);
    EXPECT_EQ(g.drm_hwmon_index, m.hwmons[i] < 0 ? 8 : m.hwmons[i]);
    EXPECT_EQ(g.temperatures[0].current, m.hwmons[i] < 0 ? kUnset : g.temperatures[0].max);
    if (m.hwmons[i] >= 0) {
      EXPECT_GT(g.temperatures[2].current, 0) << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Recorded, ManyCards, testing::ValuesIn(kMany), [](const auto& info) {
  return testing_support::test_name(info.param.machine);
});

}  // namespace
