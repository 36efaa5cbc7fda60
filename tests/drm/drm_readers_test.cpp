// The DRM sysfs readers: conversions of every attribute, and what each does
// with missing, empty, malformed, negative and out-of-range files. They run
// against the RX 7900 XTX machine (card1, hwmon3), whose files the cases
// rewrite in the machine's private copy.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/drm/drm_test_files.h"

namespace {

using drm_test::card_dir;
using drm_test::drop;
using drm_test::hwmon_dir;
using drm_test::put;

const int kCard = 1;
const int kHwmon = 3;

class DrmReaders : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(scope_.ok()) << scope_.error(); }

  std::string card(const std::string& leaf) { return card_dir(kCard) + "/" + leaf; }
  std::string hwmon(const std::string& leaf) { return hwmon_dir(kCard, kHwmon) + "/" + leaf; }

  testing_support::MachineScope scope_{"amd-rdna3-rx7900xtx"};
  GpuMonitorVorn monitor_;
};

// ------------------------------------------------------------- PCI ids

TEST_F(DrmReaders, PciIdsOfTheMachineAreReadAsHex) {
  unsigned long id = 0;
  ASSERT_TRUE(monitor_.linux_drm_read_vendor_id(kCard, &id));
  EXPECT_EQ(id, 0x1002u);
  ASSERT_TRUE(monitor_.linux_drm_read_device_id(kCard, &id));
  EXPECT_EQ(id, 0x744Cu);
  ASSERT_TRUE(monitor_.linux_drm_read_revision_id(kCard, &id));
  EXPECT_EQ(id, 0xC8u);
  ASSERT_TRUE(monitor_.linux_drm_read_subvendor_id(kCard, &id));
  EXPECT_EQ(id, 0x1DA2u);
  ASSERT_TRUE(monitor_.linux_drm_read_subdevice_id(kCard, &id));
  EXPECT_EQ(id, 0x471Eu);
}

TEST_F(DrmReaders, HexDigitsOfEitherCaseAndOnlyTheFixedPositionsCount) {
  unsigned long id = 0;
  put(card("vendor"), "0x10de\n");
  ASSERT_TRUE(monitor_.linux_drm_read_vendor_id(kCard, &id));
  EXPECT_EQ(id, 0x10DEu);
  put(card("vendor"), "0x10DE");  // no newline
  ASSERT_TRUE(monitor_.linux_drm_read_vendor_id(kCard, &id));
  EXPECT_EQ(id, 0x10DEu);
  // Digits after the fourth are not read.
  put(card("device"), "0x744c9999\n");
  ASSERT_TRUE(monitor_.linux_drm_read_device_id(kCard, &id));
  EXPECT_EQ(id, 0x744Cu);
  put(card("revision"), "0xc1\n");
  ASSERT_TRUE(monitor_.linux_drm_read_revision_id(kCard, &id));
  EXPECT_EQ(id, 0xC1u);
  put(card("revision"), "0x07\n");
  ASSERT_TRUE(monitor_.linux_drm_read_revision_id(kCard, &id));
  EXPECT_EQ(id, 0x07u);
}

TEST_F(DrmReaders, MissingOrEmptyIdFilesFailAndLeaveTheOutputAlone) {
  using Reader = std::function<bool(unsigned long, unsigned long*)>;
  GpuMonitorVorn& m = monitor_;
  const std::pair<const char*, Reader> readers[] = {
      {"vendor",
       [&m](unsigned long c, unsigned long* id) { return m.linux_drm_read_vendor_id(c, id); }},
      {"device",
       [&m](unsigned long c, unsigned long* id) { return m.linux_drm_read_device_id(c, id); }},
      {"revision",
       [&m](unsigned long c, unsigned long* id) { return m.linux_drm_read_revision_id(c, id); }},
      {"subsystem_vendor",
       [&m](unsigned long c, unsigned long* id) { return m.linux_drm_read_subvendor_id(c, id); }},
      {"subsystem_device",
       [&m](unsigned long c, unsigned long* id) { return m.linux_drm_read_subdevice_id(c, id); }},
  };
  for (const auto& [leaf, read] : readers) {
    SCOPED_TRACE(leaf);
    unsigned long id = 0xABCD;
    put(card(leaf), "");
    EXPECT_FALSE(read(kCard, &id));
    EXPECT_EQ(id, 0xABCDu);
    drop(card(leaf));
    EXPECT_FALSE(read(kCard, &id));
    EXPECT_EQ(id, 0xABCDu);
    // Another card, and a card number that does not fit the path's int.
    EXPECT_FALSE(read(0, &id));
    EXPECT_FALSE(read(~0ul, &id));
    EXPECT_FALSE(read(kCard, nullptr));
    EXPECT_EQ(id, 0xABCDu);
  }
}

TEST_F(DrmReaders, MalformedIdLinesStillCountAsReadsAndStayWithin32Bits) {
  unsigned long id = 0;
  // Too short: the digits past the line's end are its newline and the
  // buffer's zeros, converted unchecked.
  put(card("vendor"), "0x1\n");
  ASSERT_TRUE(monitor_.linux_drm_read_vendor_id(kCard, &id));
  EXPECT_EQ(id, monitor_.str_to_hex('1', '\n', '\0', '\0'));
  EXPECT_LE(id, 0xFFFFFFFFul);
  put(card("device"), "garbage\n");
  ASSERT_TRUE(monitor_.linux_drm_read_device_id(kCard, &id));
  EXPECT_EQ(id, monitor_.str_to_hex('r', 'b', 'a', 'g'));
  put(card("revision"), "\n");
  ASSERT_TRUE(monitor_.linux_drm_read_revision_id(kCard, &id));
  EXPECT_EQ(id, monitor_.str_to_hex2('\0', '\0'));
  // A single line of 300 characters: only positions 2 to 5 matter.
  put(card("subsystem_vendor"), "0x1da2" + std::string(294, 'f') + "\n");
  ASSERT_TRUE(monitor_.linux_drm_read_subvendor_id(kCard, &id));
  EXPECT_EQ(id, 0x1DA2u);
}

// ------------------------------------------------------------- text

TEST_F(DrmReaders, TextLinesComeBackWithoutTheirNewline) {
  char text[128];
  std::memset(text, 'x', sizeof text);
  ASSERT_TRUE(monitor_.linux_drm_read_vbios(kCard, text));
  EXPECT_STREQ(text, "113-D7020100-102");
  ASSERT_TRUE(monitor_.linux_drm_read_driver_name(kCard, kHwmon, text));
  EXPECT_STREQ(text, "amdgpu");
  // Only the first line, and only one newline is cut.
  put(card("vbios_version"), "113-A\n113-B\n");
  ASSERT_TRUE(monitor_.linux_drm_read_vbios(kCard, text));
  EXPECT_STREQ(text, "113-A");
  put(hwmon("name"), "i915");
  ASSERT_TRUE(monitor_.linux_drm_read_driver_name(kCard, kHwmon, text));
  EXPECT_STREQ(text, "i915");
}

TEST_F(DrmReaders, TextLinesAreCutTo127Characters) {
  char text[128];
  put(card("vbios_version"), std::string(300, 'v') + "\n");
  ASSERT_TRUE(monitor_.linux_drm_read_vbios(kCard, text));
  EXPECT_EQ(std::string(text), std::string(127, 'v'));
  put(hwmon("name"), std::string(200, 'n') + "\n");
  ASSERT_TRUE(monitor_.linux_drm_read_driver_name(kCard, kHwmon, text));
  EXPECT_EQ(std::string(text), std::string(127, 'n'));
}

TEST_F(DrmReaders, EmptyOrMissingTextFilesFail) {
  char text[128] = "unchanged";
  put(card("vbios_version"), "");
  EXPECT_FALSE(monitor_.linux_drm_read_vbios(kCard, text));
  EXPECT_STREQ(text, "unchanged");
  drop(card("vbios_version"));
  EXPECT_FALSE(monitor_.linux_drm_read_vbios(kCard, text));
  EXPECT_FALSE(monitor_.linux_drm_read_driver_name(kCard, 0, text));
  EXPECT_FALSE(monitor_.linux_drm_read_driver_name(kCard, 8, text));
  EXPECT_STREQ(text, "unchanged");
  EXPECT_FALSE(monitor_.linux_drm_read_vbios(kCard, nullptr));
  EXPECT_FALSE(monitor_.linux_drm_read_driver_name(kCard, kHwmon, nullptr));
  // A line holding only its newline is a read of an empty text.
  put(card("vbios_version"), "\n");
  EXPECT_TRUE(monitor_.linux_drm_read_vbios(kCard, text));
  EXPECT_STREQ(text, "");
}

// ------------------------------------------------------------- sensors

TEST_F(DrmReaders, SensorValuesOfTheMachineInRecordUnits) {
  int v = 0;
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_usage(kCard, &v));
  EXPECT_EQ(v, 7);
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_core_clock(kCard, kHwmon, &v));
  EXPECT_EQ(v, 1850);
  ASSERT_TRUE(monitor_.linux_drm_read_vram_clock(kCard, kHwmon, &v));
  EXPECT_EQ(v, 1249);
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, 52);
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 2, &v));
  EXPECT_EQ(v, 61);
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 3, &v));
  EXPECT_EQ(v, 58);
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 4, &v));
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_fan_speed(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, 1102);
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_fan_speed(kCard, kHwmon, 2, &v));
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, 86);
}

TEST_F(DrmReaders, UnitConversionsTruncateTowardZero) {
  int v = 0;
  put(hwmon("freq1_input"), "1850000000\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_core_clock(kCard, kHwmon, &v));
  EXPECT_EQ(v, 1850);
  put(hwmon("freq1_input"), "999999\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_core_clock(kCard, kHwmon, &v));
  EXPECT_EQ(v, 0);
  put(hwmon("freq2_input"), "96999999\n");
  ASSERT_TRUE(monitor_.linux_drm_read_vram_clock(kCard, kHwmon, &v));
  EXPECT_EQ(v, 96);
  put(hwmon("temp2_input"), "45500\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 2, &v));
  EXPECT_EQ(v, 45);
  put(hwmon("temp1_input"), "-1500\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, -1);
  put(hwmon("temp1_input"), "999\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, 0);
  put(hwmon("power1_average"), "35999999\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, 35);
}

TEST_F(DrmReaders, DecimalFilesAreTakenAsAtoiTakesThem) {
  int v = 99;
  // Text that is no number reads as 0, and is still a read.
  put(card("gpu_busy_percent"), "garbage\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_usage(kCard, &v));
  EXPECT_EQ(v, 0);
  put(card("gpu_busy_percent"), "  42 %\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_usage(kCard, &v));
  EXPECT_EQ(v, 42);
  put(card("gpu_busy_percent"), "-5\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_usage(kCard, &v));
  EXPECT_EQ(v, -5);
  put(hwmon("fan1_input"), "\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_fan_speed(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, 0);
  // Beyond 32 bits: a boost clock of 2482 MHz in Hz does not fit an int but
  // reads right; a number beyond any integer stops at the largest int.
  put(hwmon("freq1_input"), "2482000000\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_core_clock(kCard, kHwmon, &v));
  EXPECT_EQ(v, 2482);
  put(hwmon("fan1_input"), "99999999999999999999999\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_fan_speed(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, 2147483647);
  put(hwmon("fan1_input"), "-99999999999999999999999\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_fan_speed(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, -2147483647 - 1);
  put(hwmon("temp1_input"), std::string(400, '9') + "\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, 2147483647);
}

TEST_F(DrmReaders, MissingOrEmptySensorFilesFailAndLeaveTheOutputAlone) {
  int v = 1234;
  for (const char* leaf : {"freq1_input", "freq2_input", "temp1_input", "fan1_input"}) {
    put(hwmon(leaf), "");
  }
  put(card("gpu_busy_percent"), "");
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_usage(kCard, &v));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_core_clock(kCard, kHwmon, &v));
  EXPECT_FALSE(monitor_.linux_drm_read_vram_clock(kCard, kHwmon, &v));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 1, &v));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_fan_speed(kCard, kHwmon, 1, &v));
  EXPECT_EQ(v, 1234);
  // Wrong hwmon, sensor 0 (never a file), no such card.
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_core_clock(kCard, 8, &v));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 0, &v));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_usage(7, &v));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 2, &v));
  EXPECT_EQ(v, 1234);
  // Null outputs fail at once, even for files that exist.
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_usage(kCard, nullptr));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_core_clock(kCard, kHwmon, nullptr));
  EXPECT_FALSE(monitor_.linux_drm_read_vram_clock(kCard, kHwmon, nullptr));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_temperature(kCard, kHwmon, 2, nullptr));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_fan_speed(kCard, kHwmon, 1, nullptr));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, nullptr));
}

// ------------------------------------------------------------- power

TEST_F(DrmReaders, PowerTriesInputThenAverage) {
  int w = -7;
  // The machine has power1_average only (RDNA3).
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  EXPECT_EQ(w, 86);
  // Polaris style: power1_input only.
  drop(hwmon("power1_average"));
  put(hwmon("power1_input"), "97000000\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  EXPECT_EQ(w, 97);
  // Both files: a positive input wins, even below one watt.
  put(hwmon("power1_average"), "35000000\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  EXPECT_EQ(w, 97);
  put(hwmon("power1_input"), "999999\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  EXPECT_EQ(w, 0);
  // An input of 0 falls back to the average.
  put(hwmon("power1_input"), "0\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  EXPECT_EQ(w, 35);
  // So do an empty, a negative and a non-numeric input.
  for (const char* input : {"", "-5000000\n", "n/a\n"}) {
    SCOPED_TRACE(input);
    put(hwmon("power1_input"), input);
    w = -7;
    ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
    EXPECT_EQ(w, 35);
  }
}

TEST_F(DrmReaders, PowerWithoutAUsableAverage) {
  int w = -7;
  drop(hwmon("power1_average"));
  // An input of 0 and no average is a valid 0 W.
  put(hwmon("power1_input"), "0\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  EXPECT_EQ(w, 0);
  // A negative input and no average fails.
  w = -7;
  put(hwmon("power1_input"), "-5000000\n");
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  // An empty average after a negative input leaves the negative value.
  put(hwmon("power1_average"), "");
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  // A negative average after a 0 input replaces it.
  put(hwmon("power1_input"), "0\n");
  put(hwmon("power1_average"), "-1\n");
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  // Neither file.
  drop(hwmon("power1_input"));
  drop(hwmon("power1_average"));
  EXPECT_FALSE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  EXPECT_EQ(w, -7);
  // Huge values stop at the largest int instead of wrapping.
  put(hwmon("power1_average"), "4294967296000000\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  EXPECT_EQ(w, 2147483647);
  put(hwmon("power1_average"), "600000000\n");
  ASSERT_TRUE(monitor_.linux_drm_read_gpu_power(kCard, kHwmon, 1, &w));
  EXPECT_EQ(w, 600);
}

// ------------------------------------------------------------- probes

TEST_F(DrmReaders, CardProbeNeedsAVendorAboveZero) {
  EXPECT_TRUE(monitor_.linux_drm_gpu_probe(kCard));
  EXPECT_FALSE(monitor_.linux_drm_gpu_probe(0));  // no card0 on this machine
  EXPECT_FALSE(monitor_.linux_drm_gpu_probe(8));
  put(card("vendor"), "0x0000\n");
  EXPECT_FALSE(monitor_.linux_drm_gpu_probe(kCard));
  put(card("vendor"), "");
  EXPECT_FALSE(monitor_.linux_drm_gpu_probe(kCard));
  put(card("vendor"), "0x8086");
  EXPECT_TRUE(monitor_.linux_drm_gpu_probe(kCard));
  // No check of the digits: a bare "0x" converts the zeros past its end,
  // which give a value above 0.
  put(card("vendor"), "0x\n");
  EXPECT_TRUE(monitor_.linux_drm_gpu_probe(kCard));
  drop(card("vendor"));
  EXPECT_FALSE(monitor_.linux_drm_gpu_probe(kCard));
}

TEST_F(DrmReaders, HwmonProbeNeedsANameWithContent) {
  EXPECT_TRUE(monitor_.linux_drm_gpu_probe_hwmon(kCard, kHwmon));
  for (unsigned long h : {0ul, 1ul, 2ul, 4ul, 7ul, 8ul}) {
    EXPECT_FALSE(monitor_.linux_drm_gpu_probe_hwmon(kCard, h)) << h;
  }
  put(hwmon("name"), "\n");
  EXPECT_TRUE(monitor_.linux_drm_gpu_probe_hwmon(kCard, kHwmon));
  put(hwmon("name"), "");
  EXPECT_FALSE(monitor_.linux_drm_gpu_probe_hwmon(kCard, kHwmon));
  drop(hwmon("name"));
  EXPECT_FALSE(monitor_.linux_drm_gpu_probe_hwmon(kCard, kHwmon));
}

}  // namespace
