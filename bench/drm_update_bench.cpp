// Cost of refreshing DRM GPUs: one update_dynamic_data on a fake machine
// whose sysfs copy lives in tmpfs, reported per GPU, and the files that one
// refresh opens against the floor of one open per value the records need.
//
//   build/bin/drm_update_bench [--benchmark_filter=...]
//
// Needs what the fake machines need (root or unprivileged user namespaces).
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "machine.h"
#include "plugin/gpu_monitor_vorn.h"
#include "zev/trace.h"

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_open_attempts{0};
std::atomic<long> g_opened{0};

void quiet(zev::TraceLevel, const char*, void*) {}

// Values a refresh has to read for the GPUs of the monitor: one file each.
long values_needed(GpuMonitorVorn& monitor) {
  long n = 0;
  for (unsigned long i = 0; i < monitor.get_num_gpus(); ++i) {
    const zev::GPU* g = monitor.get_gpu(i);
    if (!g->monitorable || g->nvml_device != nullptr) continue;
    n += g->sensor_available[2] ? 1 : 0;
    n += g->core_clock.current != -1.0f ? 1 : 0;
    n += g->memory_clock.current != -1.0f ? 1 : 0;
    n += g->drm_temp_input_index >= 0 ? 1 : 0;
    n += g->drm_power_index >= 0 ? 1 : 0;
    n += static_cast<long>(g->num_fans);
  }
  return n;
}

void update_per_gpu(benchmark::State& state, const char* name) {
  zev::set_trace_sink(quiet, nullptr);
  std::string error;
  if (!machine::enter(std::string(ZEV_MACHINES_DIR) + "/" + name, &error)) {
    state.SkipWithError(("cannot enter the machine: " + error).c_str());
    return;
  }
  {
    GpuMonitorVorn monitor;
    monitor.initialize();
    const double gpus = static_cast<double>(monitor.get_num_gpus());

    for (auto _ : state) benchmark::DoNotOptimize(monitor.update_dynamic_data());

    // Files per refresh, counted over a few refreshes outside the timing.
    const int refreshes = 16;
    g_open_attempts = 0;
    g_opened = 0;
    g_counting = true;
    for (int i = 0; i < refreshes; ++i) monitor.update_dynamic_data();
    g_counting = false;

    state.counters["gpus"] = gpus;
    // Seconds per GPU and refresh.
    state.counters["time_per_gpu"] = benchmark::Counter(
        gpus, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["files_opened"] = static_cast<double>(g_opened) / refreshes;
    state.counters["open_attempts"] = static_cast<double>(g_open_attempts) / refreshes;
    state.counters["floor"] = static_cast<double>(values_needed(monitor));
    monitor.terminate();
  }
  machine::leave();
  zev::set_trace_sink(nullptr, nullptr);
}

BENCHMARK_CAPTURE(update_per_gpu, rdna3_rx7900xtx, "amd-rdna3-rx7900xtx");
BENCHMARK_CAPTURE(update_per_gpu, polaris_rx580, "amd-polaris-rx580");
BENCHMARK_CAPTURE(update_per_gpu, apu_phoenix, "amd-apu-phoenix-780m");
BENCHMARK_CAPTURE(update_per_gpu, arc_b580_xe, "intel-arc-b580-xe");
BENCHMARK_CAPTURE(update_per_gpu, two_cards_with_gaps, "amd-multi-card-gaps");
BENCHMARK_CAPTURE(update_per_gpu, vf_without_hwmon, "amd-sriov-vf-no-hwmon");

}  // namespace

// Every file the monitor reads goes through fopen; this executable's own
// fopen counts the calls (all, and those that opened a file) while a
// measurement is on, and hands each to the C library's.
extern "C" FILE* fopen(const char* path, const char* mode) {
  using Fopen = FILE* (*)(const char*, const char*);
  static const Fopen real = reinterpret_cast<Fopen>(dlsym(RTLD_NEXT, "fopen"));
  FILE* file = real(path, mode);
  if (g_counting) {
    ++g_open_attempts;
    if (file != nullptr) ++g_opened;
  }
  return file;
}

BENCHMARK_MAIN();
