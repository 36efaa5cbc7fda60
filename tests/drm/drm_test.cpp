// DRM discovery and its sysfs readers. The scan runs through the real plug-in
// on every recorded DRM machine, as recorded and with files changed in its
// private copy, and is judged by the trace block the user sees and the
// records a host reads. The readers are driven directly on the RX 7900 XTX
// machine (card1, hwmon3) with one file changed per case.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "drm_host.h"
#include "plugin/gpu_monitor_vorn.h"

namespace {

using drm_test::Edits;
using testing_support::MachineScope;

const std::string C = "/sys/class/drm/card1/device/";
const std::string H = C + "hwmon/hwmon3/";
const float kUnset = -1.0f;

// What one record should hold after the scan.
struct Card {
  int card, hwmon, temp_input, power_input;
  unsigned long vendor, device, revision, subvendor, subdevice;
  std::string vbios, driver;
  float usage, core_mhz, mem_mhz, celsius, watts;
  std::vector<float> fans_rpm;
  bool monitorable;
  std::string name;  // from the GPU database
};

// clang-format off
const Card kRx7900xtx = {1, 3, 1, 1, 0x1002, 0x744C, 0xC8, 0x1DA2, 0x471E, "113-D7020100-102",
                         "amdgpu", 7, 1850, 1249, 52, 86, {1102}, true, "AMD Radeon RX 7900 XTX"};
const Card kPolaris = {0, 0, 1, 1, 0x1002, 0x67DF, 0xE7, 0x1DA2, 0xE366, "113-1E3660U-O4X",
                       "amdgpu", 23, 1340, 2000, 57, 97, {1480}, true, "AMD Radeon RX 580 Series"};
const Card kPhoenix = {0, 6, 1, 1, 0x1002, 0x15BF, 0xC1, 0x17AA, 0x3881, "113-PHXGENERIC-001",
                       "amdgpu", 12, 800, kUnset, 45, 9, {}, true, "AMD Radeon 780M Graphics"};
const Card kB580 = {0, 5, 2, -1, 0x8086, 0xE20B, 0x00, 0x8086, 0x1100, "", "xe",
                    kUnset, 2850, kUnset, 47, kUnset, {1320, 1315, 0}, true, "Intel Arc B580"};
// clang-format on

Card with(Card card, void (*change)(Card&)) {
  change(card);
  return card;
}

struct Scan {
  const char* machine;
  Edits edits;
  std::vector<std::string> lines;  // the whole DRM block when `whole`, else lines it holds
  bool whole;
  std::vector<Card> cards;
};

const std::string kLongName(4000, 'n');
const std::string kLongRpm(1000, '7');

// clang-format off
const std::vector<Scan> kScans = {
    {"amd-rdna3-rx7900xtx", {},
     {"DRM: scanning GPUs...", "> GPU 1", "  - hwmon index: 3", "  - device ID: 1002-744C",
      "  - revision ID: C8", "  - subdevice ID: 1DA2-471E", "  - VBIOS: 113-D7020100-102",
      "  - core usage: 7 %", "  - driver: amdgpu", "  - core clock: 1850 MHz",
      "  - mem clock: 1249 MHz", "  - core temperature: 52 °C", "  - power: 86 W",
      "  - num fans: 1", "    > fan[1] speed: 1102 RPM", "  - memory usage: 2 %",
      "  - VRAM: 24560 MB", "  - memory temperature: 58 °C", "  - power limit: 339 W",
      "num GPUs in DRM: 1"},
     true, {kRx7900xtx}},
    {"amd-rdna4-rx9070xt", {}, {}, false,
     {{0, 2, 1, 1, 0x1002, 0x7550, 0xC0, 0x1DA2, 0xE490, "113-EXT90181-001", "amdgpu", 0, 134,
       96, 38, 19, {0}, true, "AMD Radeon RX 9070 XT"}}},
    {"amd-polaris-rx580", {}, {}, false, {kPolaris}},
    {"amd-apu-phoenix-780m", {}, {}, false, {kPhoenix}},
    // Gaps in the card numbers; card9 is found as well, with its hwmon9.
    {"amd-multi-card-gaps", {}, {"> GPU 2", "> GPU 4", "> GPU 9", "num GPUs in DRM: 3"}, false,
     {{2, 6, 1, 1, 0x1002, 0x73FF, 0xC1, 0x1DA2, 0xE448, "113-D6720100-100", "amdgpu", 41, 2089,
       1000, 63, 131, {1850}, true, "AMD Radeon RX 6600 XT"},
      {4, 7, 1, 1, 0x1002, 0x743F, 0xC7, 0x1458, 0x2316, "113-D6370200-100", "amdgpu", 3, 500, 96,
       41, 7, {0}, true, "AMD Radeon RX 6400"},
      {9, 9, 1, 1, 0x1002, 0x7480, 0xCF, 0x1462, 0x5050, "113-D7070100-100", "amdgpu", 0, 35, 96,
       35, 6, {0}, true, "AMD Radeon RX 7600"}}},
    // No hwmon on the integrated GPU: the record keeps 8 and its driver comes
    // from the device's uevent. Revisions below 0x10 are traced with a leading
    // blank. i915 clocks come from the card's GT files, power from the energy
    // counter (nothing before the second reading).
    {"intel-arc-a770-i915", {},
     {"DRM: scanning GPUs...", "> GPU 0", "  - device ID: 8086-4680", "  - revision ID:  C",
      "  - subdevice ID: 1043-8882", "  - driver: i915", "  - core clock: 300 MHz", "> GPU 1",
      "  - hwmon index: 4", "  - device ID: 8086-56A0", "  - revision ID:  8",
      "  - subdevice ID: 8086-1020", "  - driver: i915", "  - core clock: 600 MHz",
      "  - power limit: 225 W", "  - power: energy counter 1 (average between refreshes)",
      "num GPUs in DRM: 2"},
     true,
     {{0, 8, -1, -1, 0x8086, 0x4680, 0x0C, 0x1043, 0x8882, "", "i915", kUnset, 300, kUnset,
       kUnset, kUnset, {}, true, "Intel UHD Graphics 770"},
      {1, 4, -1, -1, 0x8086, 0x56A0, 0x08, 0x8086, 0x1020, "", "i915", kUnset, 600, kUnset,
       kUnset, kUnset, {}, true, "Intel Arc A770"}}},
    {"intel-arc-b580-xe", {},
     {"DRM: scanning GPUs...", "> GPU 0", "  - hwmon index: 5", "  - device ID: 8086-E20B",
      "  - revision ID:  0", "  - subdevice ID: 8086-1100", "  - driver: xe",
      "  - core temperature: 47 °C", "  - num fans: 3", "    > fan[1] speed: 1320 RPM",
      "    > fan[2] speed: 1315 RPM", "    > fan[3] speed: 0 RPM", "  - core clock: 2850 MHz",
      "  - memory temperature: 52 °C", "  - power limit: 190 W",
      "  - power: energy counter 1 (average between refreshes)", "num GPUs in DRM: 1"},
     true, {kB580}},
    // Without nvidia-smi an NVIDIA card is a DRM card like any other.
    {"nvidia-gtx1060-nouveau", {}, {}, false,
     {{0, 1, 1, -1, 0x10DE, 0x1C03, 0xA1, 0x1462, 0x3285, "", "nouveau", kUnset, kUnset, kUnset,
       38, kUnset, {1020}, true, "NVIDIA GeForce GTX 1060 6GB"}}},
    {"amd-sriov-vf-no-hwmon", {},
     {"DRM: scanning GPUs...", "> GPU 0", "  - device ID: 1002-7362", "  - revision ID: C3",
      "  - subdevice ID: 1002- A34", "  - VBIOS: 113-D3980100-O00", "  - core usage: 0 %",
      "  - driver: amdgpu", "num GPUs in DRM: 1"},
     true,
     {{0, 8, -1, -1, 0x1002, 0x7362, 0xC3, 0x1002, 0x0A34, "113-D3980100-O00", "amdgpu", 0, kUnset,
       kUnset, kUnset, kUnset, {}, true, "AMD Radeon Pro V520"}}},
    {"drm-vendor-zero", {}, {"DRM: scanning GPUs...", "DRM: no GPU found."}, true, {}},
    {"desktop-no-gpu", {}, {"DRM: scanning GPUs...", "DRM: no GPU found."}, true, {}},

    // ---- sensor choice: the first temperature and power input that reads,
    // fans counted and then read by position, sensor numbers 1 to 7 only.
    {"amd-rdna3-rx7900xtx", {{H + "temp1_input", nullptr}}, {"  - core temperature: 61 °C"}, false,
     {with(kRx7900xtx, [](Card& c) { c.temp_input = 2, c.celsius = 61; })}},
    {"amd-rdna3-rx7900xtx",
     {{H + "temp1_input", nullptr}, {H + "temp2_input", nullptr}, {H + "temp3_input", nullptr},
      {H + "temp0_input", "40000\n"}, {H + "temp8_input", "40000\n"},
      {H + "power1_average", nullptr}, {H + "power8_average", "50000000\n"},
      {H + "fan0_input", "900\n"}, {H + "fan8_input", "900\n"}},
     {}, false,
     {with(kRx7900xtx, [](Card& c) { c.temp_input = c.power_input = -1, c.celsius = c.watts = -1; })}},
    {"amd-rdna3-rx7900xtx",
     {{H + "power1_average", nullptr}, {H + "power3_input", "120000000\n"},
      {H + "power5_average", "80000000\n"}},
     {"  - power: 120 W"}, false,
     {with(kRx7900xtx, [](Card& c) { c.power_input = 3, c.watts = 120; })}},
    {"amd-rdna3-rx7900xtx",
     {{H + "fan1_input", "1001\n"}, {H + "fan2_input", "1002\n"}, {H + "fan3_input", "1003\n"},
      {H + "fan4_input", "1004\n"}, {H + "fan5_input", "1005\n"}, {H + "fan6_input", "1006\n"},
      {H + "fan7_input", "1007\n"}, {H + "fan8_input", "1008\n"}},
     {"  - num fans: 7", "    > fan[7] speed: 1007 RPM"}, false,
     {with(kRx7900xtx, [](Card& c) { c.fans_rpm = {1001, 1002, 1003, 1004, 1005, 1006, 1007}; })}},
    // Sensors at fan1 and fan3 make two fans, the second of which reads fan2.
    {"intel-arc-b580-xe",
     {{"/sys/class/drm/card0/device/hwmon/hwmon5/fan2_input", nullptr},
      {"/sys/class/drm/card0/device/hwmon/hwmon5/fan3_input", "1400\n"}},
     {"  - num fans: 2"}, false, {with(kB580, [](Card& c) { c.fans_rpm = {1320, kUnset}; })}},
    // Power: an input of 0 falls back to the average; without one it is 0 W.
    {"amd-polaris-rx580",
     {{"/sys/class/drm/card0/device/hwmon/hwmon0/power1_input", "0\n"},
      {"/sys/class/drm/card0/device/hwmon/hwmon0/power1_average", "35000000\n"}},
     {"  - power: 35 W"}, false, {with(kPolaris, [](Card& c) { c.watts = 35; })}},
    {"amd-polaris-rx580", {{"/sys/class/drm/card0/device/hwmon/hwmon0/power1_input", "0\n"}},
     {"  - power: 0 W"}, false, {with(kPolaris, [](Card& c) { c.watts = 0; })}},

    // ---- hwmon probe: a name without content does not count; any hwmon
    // number is tried (hwmon numbers are global).
    {"amd-rdna3-rx7900xtx",
     {{C + "hwmon/hwmon2/name", ""}, {C + "hwmon/hwmon2/temp1_input", "99000\n"}}, {}, false,
     {kRx7900xtx}},
    {"amd-rdna3-rx7900xtx",
     {{H + "name", nullptr}, {C + "hwmon/hwmon9/name", "amdgpu\n"},
      {C + "hwmon/hwmon9/temp1_input", "50000\n"}},
     {"  - hwmon index: 9", "  - core temperature: 50 °C"}, false,
     {with(kRx7900xtx, [](Card& c) {
       c.hwmon = 9, c.power_input = -1, c.celsius = 50;
       c.core_mhz = c.mem_mhz = c.watts = -1, c.fans_rpm = {};
     })}},
    // The revision text " 7" matches no two-digit database row ("07" would).
    {"amd-apu-phoenix-780m", {{"/sys/class/drm/card0/device/revision", "0x07\n"}},
     {"  - revision ID:  7"}, false, {with(kPhoenix, [](Card& c) { c.revision = 7, c.name = ""; })}},

    // ---- damaged files: a clear result and never a crash.
    {"amd-rdna3-rx7900xtx",
     {{C + "device", nullptr}, {C + "revision", nullptr}, {C + "subsystem_vendor", nullptr},
      {C + "subsystem_device", nullptr}, {C + "vbios_version", nullptr},
      {C + "gpu_busy_percent", nullptr}, {C + "mem_busy_percent", nullptr}, {H + "freq1_input", ""},
      {H + "freq2_input", nullptr}},
     {"> GPU 1", "  - device ID: 1002-   0", "  - subdevice ID:    0-   0"}, false,
     {with(kRx7900xtx, [](Card& c) {
       c.device = c.revision = c.subvendor = c.subdevice = 0, c.vbios = c.name = "";
       c.usage = c.core_mhz = c.mem_mhz = -1;
     })}},
    {"amd-rdna3-rx7900xtx",
     {{C + "gpu_busy_percent", "busy\n"}, {H + "name", kLongName.c_str()},
      {H + "freq1_input", "-99999999999999999999\n"}, {H + "temp1_input", "\x01\x02\xff\n"},
      {H + "power1_average", "-1\n"}, {H + "fan1_input", kLongRpm.c_str()}},
     {}, false,
     {with(kRx7900xtx, [](Card& c) {
       c.usage = 0, c.driver = std::string(127, 'n'), c.core_mhz = -2147483648.0f;
       c.celsius = 0, c.power_input = -1, c.watts = -1, c.fans_rpm = {2147483647.0f};
     })}},
};
// clang-format on

void expect_card(const zev::GPU& g, const Card& c) {
  EXPECT_EQ(g.drm_card_index, c.card);
  EXPECT_EQ(g.drm_hwmon_index, c.hwmon);
  EXPECT_EQ(g.drm_temp_input_index, c.temp_input);
  EXPECT_EQ(g.drm_power_index, c.power_input);
  EXPECT_EQ(g.nvidia_gpu_index, -1);
  EXPECT_EQ(g.vendor_id, c.vendor);
  EXPECT_EQ(g.device_id, c.device);
  EXPECT_EQ(g.revision_id, c.revision);
  EXPECT_EQ(g.subvendor_id, c.subvendor);
  EXPECT_EQ(g.subdevice_id, c.subdevice);
  EXPECT_EQ(g.vbios_version, c.vbios);
  EXPECT_EQ(g.driver_name, c.driver);
  EXPECT_EQ(g.name, c.name);
  // First readings are current values only, except the core temperature,
  // which starts its running range.
  EXPECT_EQ(g.core_usage[0], c.usage);
  EXPECT_EQ(g.core_usage[1], kUnset);
  EXPECT_EQ(g.core_clock.current, c.core_mhz);
  EXPECT_EQ(g.core_clock.min, kUnset);
  EXPECT_EQ(g.memory_clock.current, c.mem_mhz);
  EXPECT_EQ(g.temperatures[0].current, c.celsius);
  EXPECT_EQ(g.temperatures[0].min, c.celsius);
  EXPECT_EQ(g.temperatures[0].max, c.celsius);
  EXPECT_EQ(g.power.watts, c.watts);
  EXPECT_EQ(g.power.current, c.power_input < 0 ? kUnset : 0.001f * c.watts);
  ASSERT_EQ(g.num_fans, c.fans_rpm.size());
  for (size_t f = 0; f < c.fans_rpm.size(); ++f) {
    EXPECT_EQ(g.fans[f].rpm, c.fans_rpm[f]) << "fan " << f;
    EXPECT_EQ(g.fans[f].speed_percent, kUnset);
  }
  EXPECT_EQ(g.sensor_available[0], c.temp_input > 0 ? 1 : 0);
  EXPECT_EQ(g.sensor_available[2], c.usage != kUnset ? 1 : 0);
  EXPECT_EQ(g.monitorable, c.monitorable);
}

void PrintTo(const Scan& s, std::ostream* os) { *os << s.machine; }

class DrmScanOf : public testing::TestWithParam<Scan> {};

TEST_P(DrmScanOf, TracesAndRecords) {
  const Scan& s = GetParam();
  ENTER_HOST(host, s.machine, s.edits);
  const std::vector<std::string> block = host.block();
  if (s.whole) {
    EXPECT_EQ(block, s.lines);
  }
  for (const std::string& line : s.lines) {
    EXPECT_NE(std::find(block.begin(), block.end(), line), block.end()) << line;
  }
  ASSERT_EQ(host->get_num_gpus(), s.cards.size());
  for (size_t g = 0; g < s.cards.size(); ++g) {
    SCOPED_TRACE("record " + std::to_string(g));
    expect_card(host.gpu(g), s.cards[g]);
  }
}

// Named by place in the table and machine (a machine comes again with
// changed files).
INSTANTIATE_TEST_SUITE_P(Machines, DrmScanOf, testing::ValuesIn(kScans), [](const auto& info) {
  return std::to_string(info.index) + "_" + testing_support::test_name(info.param.machine);
});

// Besides the name, the database gives the unit counts and the TDP.
TEST(DrmScan, UnitCountsComeFromTheDatabase) {
  ENTER_HOST(host, "intel-arc-b580-xe");
  const zev::GPU& g = host.gpu(0);
  EXPECT_STREQ(g.codename, "Battlemage BMG-G21");
  EXPECT_EQ(g.num_shader_cores, 2560u);
  EXPECT_EQ(g.num_texture_units, 160u);
  EXPECT_EQ(g.num_rops, 80u);
  EXPECT_EQ(g.tdp_w, 190u);
}

// Only records with a sensor count as monitorable.
TEST(DrmScan, CountsMonitorableRecords) {
  struct Count {
    const char* machine;
    uint64_t drm, monitorable;
    Edits edits;
  };
  // The virtual function without its busy percent has no sensor at all.
  const Edits no_busy = {{"/sys/class/drm/card0/device/gpu_busy_percent", nullptr}};
  for (const Count& c :
       {Count{"intel-arc-a770-i915", 2, 2, {}}, Count{"amd-multi-card-gaps", 3, 3, {}},
        Count{"amd-sriov-vf-no-hwmon", 1, 1, {}}, Count{"amd-sriov-vf-no-hwmon", 1, 0, no_busy}}) {
    SCOPED_TRACE(c.machine);
    MachineScope scope(c.machine);
    ASSERT_TRUE(scope.ok()) << scope.error();
    drm_test::edit(c.edits);
    testing_support::TraceCapture traces;
    GpuMonitorVorn monitor;
    EXPECT_TRUE(monitor.linux_drm_init_gpus());
    EXPECT_EQ(monitor.num_gpus_drm, c.drm);
    EXPECT_EQ(monitor.get_num_monitorable_gpus(), c.monitorable);
    monitor.cleanup_gpus_list();
  }
}

// ------------------------------------------------------------- readers

// clang-format off
enum Reader { kVendor, kDevice, kRevision, kUsage, kCoreClock, kMemClock, kTemp, kFan, kPower,
              kVbios, kDriver, kCardProbe, kHwmonProbe };

// A reader's result as text: "fail", the value (hex for PCI ids), or for the
// probes "yes" / "no".
std::string read(GpuMonitorVorn& m, Reader reader) {
  unsigned long id = 0;
  int v = 0;
  char text[128] = "";
  auto hex = [&](bool ok) {
    char out[32];
    std::snprintf(out, sizeof out, "%lX", id);
    return ok ? std::string(out) : "fail";
  };
  auto num = [&](bool ok) { return ok ? std::to_string(v) : "fail"; };
  auto str = [&](bool ok) { return ok ? std::string(text) : "fail"; };
  switch (reader) {
    case kVendor: return hex(m.linux_drm_read_vendor_id(1, &id));
    case kDevice: return hex(m.linux_drm_read_device_id(1, &id));
    case kRevision: return hex(m.linux_drm_read_revision_id(1, &id));
    case kUsage: return num(m.linux_drm_read_gpu_usage(1, &v));
    case kCoreClock: return num(m.linux_drm_read_gpu_core_clock(1, 3, &v));
    case kMemClock: return num(m.linux_drm_read_vram_clock(1, 3, &v));
    case kTemp: return num(m.linux_drm_read_gpu_temperature(1, 3, 1, &v));
    case kFan: return num(m.linux_drm_read_gpu_fan_speed(1, 3, 1, &v));
    case kPower: return num(m.linux_drm_read_gpu_power(1, 3, 1, &v));
    case kVbios: return str(m.linux_drm_read_vbios(1, text));
    case kDriver: return str(m.linux_drm_read_driver_name(1, 3, text));
    case kCardProbe: return m.linux_drm_gpu_probe(1) ? "yes" : "no";
    case kHwmonProbe: return m.linux_drm_gpu_probe_hwmon(1, 3) ? "yes" : "no";
  }
  return "?";
}
// clang-format on

struct Read {
  Edits edits;
  Reader reader;
  std::string expected;  // "*": any value, as long as the read succeeds
};

const std::string kLongLine(300, 'v');
const std::string kNines(400, '9');

const std::vector<Read> kReads = {
    // PCI ids: "0x" and four hex digits of either case; no check of the rest.
    {{{C + "vendor", "0x10DE"}}, kVendor, "10DE"},
    {{{C + "device", "0x744c9999\n"}}, kDevice, "744C"},
    {{{C + "vendor", ""}}, kVendor, "fail"},
    {{{C + "vendor", nullptr}}, kVendor, "fail"},
    {{{C + "device", "garbage\n"}}, kDevice, "*"},
    {{{C + "revision", "\n"}}, kRevision, "*"},
    // Texts: the first line without its newline, at most 127 characters.
    {{{C + "vbios_version", "113-A\n113-B\n"}}, kVbios, "113-A"},
    {{{C + "vbios_version", kLongLine.c_str()}}, kVbios, std::string(127, 'v')},
    {{{C + "vbios_version", "\n"}}, kVbios, ""},
    {{{C + "vbios_version", ""}}, kVbios, "fail"},
    {{{H + "name", "i915"}}, kDriver, "i915"},
    {{{H + "name", nullptr}}, kDriver, "fail"},
    // Decimal values in record units, truncated toward zero, kept in an int.
    {{{H + "freq1_input", "999999\n"}}, kCoreClock, "0"},
    {{{H + "freq2_input", "96999999\n"}}, kMemClock, "96"},
    {{{H + "freq2_input", ""}}, kMemClock, "fail"},
    {{{H + "temp1_input", "45500\n"}}, kTemp, "45"},
    {{{H + "temp1_input", "-1500\n"}}, kTemp, "-1"},
    {{{H + "temp1_input", kNines.c_str()}}, kTemp, "2147483647"},
    {{{C + "gpu_busy_percent", "  42 %\n"}}, kUsage, "42"},
    {{{C + "gpu_busy_percent", "busy\n"}}, kUsage, "0"},
    {{{C + "gpu_busy_percent", ""}}, kUsage, "fail"},
    {{{H + "fan1_input", "\n"}}, kFan, "0"},
    {{{H + "fan1_input", nullptr}}, kFan, "fail"},
    // Power: the input file, then the average whenever the input gave
    // nothing above 0 (this machine has power1_average only).
    {{{H + "power1_input", "97000000\n"}}, kPower, "97"},
    {{{H + "power1_input", "999999\n"}}, kPower, "0"},
    {{{H + "power1_input", "0\n"}}, kPower, "86"},
    {{{H + "power1_input", "-5000000\n"}}, kPower, "86"},
    {{{H + "power1_input", "n/a\n"}}, kPower, "86"},
    {{{H + "power1_average", nullptr}, {H + "power1_input", "-5000000\n"}}, kPower, "fail"},
    {{{H + "power1_average", "-1\n"}, {H + "power1_input", "0\n"}}, kPower, "fail"},
    {{{H + "power1_average", nullptr}}, kPower, "fail"},
    {{{H + "power1_average", "4294967296000000\n"}}, kPower, "2147483647"},
    // Probes: a vendor above 0, a hwmon name with any content.
    {{{C + "vendor", "0x0000\n"}}, kCardProbe, "no"},
    {{{C + "vendor", ""}}, kCardProbe, "no"},
    {{{C + "vendor", "0x8086"}}, kCardProbe, "yes"},
    {{{H + "name", "\n"}}, kHwmonProbe, "yes"},
    {{{H + "name", ""}}, kHwmonProbe, "no"},
};

TEST(DrmReaders, ValuesOfEachFileForm) {
  GpuMonitorVorn monitor;
  for (size_t i = 0; i < kReads.size(); ++i) {
    const Read& r = kReads[i];
    SCOPED_TRACE(i);
    MachineScope scope("amd-rdna3-rx7900xtx");
    ASSERT_TRUE(scope.ok()) << scope.error();
    drm_test::edit(r.edits);
    const std::string got = read(monitor, r.reader);
    if (r.expected == "*") {
      EXPECT_NE(got, "fail");
    } else {
      EXPECT_EQ(got, r.expected);
    }
  }
}

// ------------------------------------------------------------- gpumon

using nlohmann::json;
using testing_support::lines_of;
using testing_support::run_gpumon;

// build/machines/<name>: a recorded machine with the NVIDIA fakes it needs.
std::string assembled(const std::string& name) {
  return std::string(ZEV_BIN_DIR) + "/../machines/" + name;
}

std::vector<std::string> trace_texts(const json& doc) {
  std::vector<std::string> texts;
  for (const json& t : doc["traces"]) texts.push_back(t["text"]);
  return texts;
}

TEST(DrmGpumon, PrintsTheScan) {
  const machine::RunResult r =
      run_gpumon({"--trace", "--machine", testing_support::machine_dir(kScans[0].machine)});
  ASSERT_EQ(r.exit_code, 0) << r.error << r.err;
  std::vector<std::string> expected = kScans[0].lines;
  expected.back() = "[debug] " + expected.back();
  EXPECT_EQ(drm_test::drm_block(lines_of(r.err)), expected) << r.err;
}

// The machine moves each file read in a burst of reads on by one value once
// the burst is over, so every refresh of --watch reads new values.
TEST(DrmGpumon, WatchFollowsTheChangingSensors) {
  const machine::RunResult r =
      run_gpumon({"--machine", testing_support::machine_dir(kScans[0].machine), "--watch", "0.2",
                  "--count", "4", "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.error << r.err;
  const std::vector<std::string> docs = lines_of(r.out);
  ASSERT_EQ(docs.size(), 4u) << r.out;
  double last = 0;
  for (const std::string& doc : docs) {
    const json t = json::parse(doc)["gpus"][0]["temperature_c"];
    EXPECT_NE(t["core"].get<double>(), last);  // a new value at every refresh
    last = t["core"];
    EXPECT_EQ(t["core_lowest"], 52.0);
  }
  EXPECT_GE(json::parse(docs.back())["gpus"][0]["temperature_c"]["core_highest"], 57.0);
}

// NVIDIA cards are left out of the DRM scan when nvidia-smi found GPUs; the
// trace then says that no other GPU was found. nvidia-smi's GPU 0 is
// refreshed through it, as the DRM one is through DRM.
TEST(DrmGpumon, NvidiaCardsSeenByNvidiaSmiAreNotScanned) {
  // These machines preload the fake NVIDIA driver into gpumon, ahead of any
  // sanitizer runtime.
  const char* asan = std::getenv("ASAN_OPTIONS");
  const std::string options = asan != nullptr && *asan != '\0' ? std::string(asan) + ":" : "";
  setenv("ASAN_OPTIONS", (options + "verify_asan_link_order=0").c_str(), 1);
  machine::RunResult r = run_gpumon({"--machine", assembled("nvidia-amd-780m-rtx4060-smi"),
                                     "--watch", "0.01", "--count", "1", "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.error << r.err;
  json doc = json::parse(r.out);
  std::vector<std::string> block = drm_test::drm_block(trace_texts(doc));
  ASSERT_GE(block.size(), 2u);
  EXPECT_EQ(block[1], "> GPU 1");
  EXPECT_EQ(block.back(), "num GPUs in DRM: 1");
  std::vector<std::string> pci;
  for (const json& g : doc["gpus"]) {
    pci.push_back(g["pci"]["vendor_id"].get<std::string>() + ":" +
                  g["pci"]["device_id"].get<std::string>());
    SCOPED_TRACE(pci.back());
    EXPECT_TRUE(g["utilization_percent"]["core"].is_number());
    EXPECT_TRUE(g["clock_mhz"]["core"].is_number());
    EXPECT_TRUE(g["power_w"]["draw"].is_number());
  }
  std::sort(pci.begin(), pci.end());
  EXPECT_EQ(pci, (std::vector<std::string>{"0x1002:0x15BF", "0x10DE:0x28E0"}));

  r = run_gpumon({"--machine", assembled("nvidia-rtx5090-rtx4080s-smi"), "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.error << r.err;
  doc = json::parse(r.out);
  EXPECT_EQ(
      drm_test::drm_block(trace_texts(doc)),
      (std::vector<std::string>{"DRM: scanning GPUs...", "DRM: no GPU other than NVIDIA found."}));
  EXPECT_EQ(doc["gpus"].size(), 2u);
}

}  // namespace
