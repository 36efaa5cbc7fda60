// The Raspberry Pi back-end on recorded boards: discovery through the
// plug-in, usage over refreshes, and the readers on real and broken formats.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"

namespace {

using namespace testing_support;

const char kStats[] = "/sys/devices/platform/axi/1002000000.v3d/gpu_stats";
const char kDebugUsage[] = "/sys/kernel/debug/dri/0/gpu_usage";

void put(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << text;
}

// "queue ts jobs runtime" rows with the kernel's header.
std::string stats(long long ts, long long render, const char* extra = "") {
  return "queue\ttimestamp\tjobs\truntime\nbin\t" + std::to_string(ts) + "\t1\t0\nrender\t" +
         std::to_string(ts) + "\t5\t" + std::to_string(render) + "\n" + extra;
}

TEST(RaspberryPi, BoardsAreFoundAndFollowedOverRefreshes) {
  struct Case {
    const char* machine;
    std::vector<std::string> block;
    int method;
    std::vector<float> usages, temperatures;  // after each refresh
    float clock;
  };
  const Case cases[] = {
      {"rpi5-videocore7",
       {"Raspberry Pi (arm64) platform: reading GPU info...", "> GPU 0",
        "  - vendor ID: 14E4 (Broadcom)", "  - name: VideoCore 7 (codename: BCM2712-V3D)",
        "  - cores: 64", "  - TMUs: 4",
        "  - GPU temperature: 48.3 \xC2\xB0"
        "C",
        "  - core usage (v2): 0.0 %", "  - core clock: 500.0 MHz"},
       2,
       {40, 85, 95},
       {51.9f, 57.2f, 61.8f},
       500},
      {"rpi4-videocore6",
       {"Raspberry Pi (arm64) platform: reading GPU info...", "> GPU 0",
        "  - vendor ID: 14E4 (Broadcom)", "  - name: VideoCore 6 (codename: BCM2711-V3D)",
        "  - cores: 16", "  - TMUs: 2",
        "  - GPU temperature: 52.6 \xC2\xB0"
        "C",
        "  - core usage (v1): 0.0 %"},
       1,
       {40, 85, 95},
       {55.0f, 60.1f, 64.3f},
       -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.machine);
    MachineScope scope(c.machine);
    ASSERT_TRUE(scope.ok()) << scope.error();
    TraceCapture traces;
    PluginHandle plugin;
    zev::GpuMonitor* monitor = plugin.create();
    monitor->initialize();
    std::vector<std::string> lines = traces.texts();
    auto from = std::find(lines.begin(), lines.end(), c.block[0]);
    ASSERT_NE(from, lines.end());
    EXPECT_EQ(
        std::vector<std::string>(from, from + std::min<long>(c.block.size(), lines.end() - from)),
        c.block);
    ASSERT_EQ(monitor->get_num_gpus(), 1u);
    const zev::GPU* g = monitor->get_gpu(0);
    EXPECT_EQ(g->rpi_usage_method, c.method);
    EXPECT_TRUE(g->monitorable);
    EXPECT_EQ(g->drm_card_index, -1);
    EXPECT_EQ(g->core_clock.current, c.clock);
    EXPECT_STREQ(monitor->get_cpu_name(), c.method == 2 ? "Raspberry Pi 5 Model B Rev 1.0"
                                                        : "Raspberry Pi 4 Model B Rev 1.4");
    for (size_t i = 0; i < c.usages.size(); ++i) {
      ASSERT_TRUE(machine::step_sequences());
      ASSERT_TRUE(monitor->update_dynamic_data());
      EXPECT_NEAR(g->core_usage[0], c.usages[i], 0.5) << "refresh " << i + 1;
      EXPECT_NEAR(g->temperatures[0].current, c.temperatures[i], 0.01) << "refresh " << i + 1;
    }
    EXPECT_NEAR(g->temperatures[0].min, c.method == 2 ? 48.3f : 52.6f, 0.01);
    monitor->terminate();
    plugin.destroy_raw(monitor);
  }
}

// The readers on edited files of the Pi 5 machine.
TEST(RaspberryPiReaders, UsageFromStatisticsAndTheDebugFile) {
  MachineScope scope("rpi5-videocore7");
  ASSERT_TRUE(scope.ok()) << scope.error();
  GpuMonitorVorn m;
  zev::GPU gpu;
  float percent = 0;
  // The render queue ran 5,000,000 of 10,000,000 ns: 50 %.
  put(kStats, stats(20000000, 1000000));
  ASSERT_TRUE(m.linux_arm64_rpi_read_gpu_usage_v2(&gpu, &percent));
  EXPECT_EQ(percent, 0.0f) << "the first read only primes";
  put(kStats, stats(30000000, 6000000));
  ASSERT_TRUE(m.linux_arm64_rpi_read_gpu_usage_v2(&gpu, &percent));
  EXPECT_FLOAT_EQ(percent, 50.0f);
  // "cache_c" is the cache clean queue; the 6.8 "cpu" queue is none of the five.
  put(kStats, stats(40000000, 6000000, "cache_c\t40000000\t1\t100\ncpu\t40000000\t9\t1\n"));
  m.linux_arm64_rpi_read_gpu_usage_v2(&gpu, &percent);
  EXPECT_EQ(gpu.v3d_last_runtime[4], 100u);
  put(kStats,
      stats(50000000, 6000000, "cache_c\t50000000\t1\t7000100\ncpu\t50000000\t9\t9999999\n"));
  ASSERT_TRUE(m.linux_arm64_rpi_read_gpu_usage_v2(&gpu, &percent));
  EXPECT_FLOAT_EQ(percent, 70.0f);

  // Broken files: skipped lines, a clear result, no crash.
  std::string many = "queue\ttimestamp\tjobs\truntime\n";
  for (int i = 0; i < 10000; ++i)
    many += "render\t" + std::to_string(60000000 + i) + "\t1\t" + std::to_string(i) + "\n";
  const std::string broken[] = {
      "render\t99999999999999999999999\t1\t-5\nbin\t-7\t-1\t99999999999999999999\n",
      "render\t10\t1\t5\n",  // the time stamp goes backwards
      "render 1 2\nbin\nrender\tx\t1\t2\n\n\x01\xff\n", many, ""};
  for (const std::string& text : broken) {
    put(kStats, text);
    EXPECT_TRUE(m.linux_arm64_rpi_read_gpu_usage_v2(&gpu, &percent));
    EXPECT_TRUE(std::isfinite(percent));
  }
  std::remove(kStats);
  EXPECT_FALSE(m.linux_arm64_rpi_read_gpu_usage_v2(&gpu, &percent));
  EXPECT_EQ(percent, -1.0f);
  float mhz = 0;
  EXPECT_FALSE(m.linux_arm64_rpi_read_gpu_core_clock(&mhz)) << "the clock needs the Pi 5 file";

  // The debug file: "timestamp;" lines set the time, lines without ';' are skipped.
  zev::GPU old;
  put(kDebugUsage,
      "timestamp;1000;\n\"QUEUE\";\"JOBS\";\"RUNTIME\";\"ACTIVE\";\nv3d_render;1;100;0;\n");
  ASSERT_TRUE(m.linux_arm64_rpi_read_gpu_usage_v1(&old, &percent));
  put(kDebugUsage,
      "timestamp;2000;\nno semicolon here\nv3d_render;2;350;1;\nv3d_cache_clean;1;;\n");
  ASSERT_TRUE(m.linux_arm64_rpi_read_gpu_usage_v1(&old, &percent));
  EXPECT_FLOAT_EQ(percent, 25.0f);
  EXPECT_FALSE(m.linux_arm64_rpi_read_gpu_usage_v1(nullptr, &percent));
}

// vcgencmd answers, good and bad; the clock file's line.
TEST(RaspberryPiReaders, TemperatureAndClockTools) {
  const std::pair<std::string, float> answers[] = {
      {"echo \"temp=48.3'C\"", 48.3f},
      {"echo 'error=1 error_msg=\"Command not registered\"' >&2; exit 1", -1.0f},
      {"exit 0", -1.0f},
      {"echo garbage", -1.0f},
  };
  for (const auto& [script, celsius] : answers) {
    TempMachine machine(
        {{"bin/vcgencmd", "#!/bin/sh\n" + script + "\n"},
         {"sys/kernel/debug/dri/1002000000.v3d/measure_clock", "cycles: 12 (oops)\n"},
         {"sequences", ""}},
        "rpi5-videocore7");
    std::filesystem::permissions(machine.dir() + "/bin/vcgencmd",
                                 std::filesystem::perms::owner_all);
    MachineScope scope(machine.dir());
    ASSERT_TRUE(scope.ok()) << scope.error();
    GpuMonitorVorn m;
    float value = 0, mhz = 0;
    EXPECT_EQ(m.linux_arm64_rpi_read_gpu_core_temp(&value), celsius > 0) << script;
    EXPECT_FLOAT_EQ(value, celsius) << script;
    EXPECT_FALSE(m.linux_arm64_rpi_read_gpu_core_clock(&mhz));
    EXPECT_EQ(mhz, -1.0f);
    EXPECT_FALSE(m.linux_arm64_rpi_read_gpu_core_temp(nullptr));
  }
}

}  // namespace
