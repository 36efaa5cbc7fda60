// Cost of refreshing DRM GPUs on each recorded DRM machine (its sysfs copy
// in tmpfs): one update_dynamic_data against a floor measured in the same
// run, and what one refresh costs in system calls and heap allocations.
//
// The floor opens the very files the refresh opens, the ones that are
// required to fail included (power1_input before power1_average, the hwmon8
// reads of a card without hwmon), each with a bare open, one read and a
// close. The two alternate iteration by iteration, so that both see the same
// caches and clock speeds, and both are timed by the thread's CPU clock
// (user and system time), which other processes' load does not inflate; the
// reported time is the refresh's.
//
//   build/bin/drm_update_bench [--benchmark_filter=...]
//
// Counters: refresh time per GPU, floor (seconds per pass), ratio (refresh
// / floor), syscalls per refresh (open + read + close; floor_syscalls: the
// floor's), opens per refresh, allocations and allocated bytes per refresh.
//
// Needs what the fake machines need (root or unprivileged user namespaces).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <ctime>
#include <string>
#include <vector>

#include "file_calls.h"
#include "heap_counter.h"
#include "machine.h"
#include "plugin/gpu_monitor_vorn.h"
#include "zev/trace.h"

namespace {

void quiet(zev::TraceLevel, const char*, void*) {}

// The paths one refresh opens, in order.
std::vector<std::string> paths_of_one_refresh(GpuMonitorVorn& monitor) {
  file_calls::start(true);
  monitor.update_dynamic_data();
  file_calls::stop();
  return file_calls::paths();
}

// The floor: each path opened, read once and closed, nothing else.
void bare_reads(const std::vector<const char*>& paths) {
  char line[256];
  for (const char* path : paths) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) continue;
    benchmark::DoNotOptimize(read(fd, line, sizeof line));
    close(fd);
  }
}

// CPU time of the calling thread, in seconds.
double thread_seconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

void refresh(benchmark::State& state, const char* name) {
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
    const std::vector<std::string> recorded = paths_of_one_refresh(monitor);
    std::vector<const char*> paths;
    for (const std::string& p : recorded) paths.push_back(p.c_str());

    double refresh_total = 0.0;
    double floor_total = 0.0;
    for (auto _ : state) {
      const double t0 = thread_seconds();
      benchmark::DoNotOptimize(monitor.update_dynamic_data());
      const double t1 = thread_seconds();
      bare_reads(paths);
      const double t2 = thread_seconds();
      state.SetIterationTime(t1 - t0);
      refresh_total += t1 - t0;
      floor_total += t2 - t1;
    }

    // Calls and allocations, counted over a few refreshes outside the timing.
    const int refreshes = 16;
    file_calls::start();
    for (int i = 0; i < refreshes; ++i) monitor.update_dynamic_data();
    const file_calls::Tally calls = file_calls::stop();
    file_calls::start();
    for (int i = 0; i < refreshes; ++i) bare_reads(paths);
    const file_calls::Tally floor_calls = file_calls::stop();
    heap_counter::start();
    for (int i = 0; i < refreshes; ++i) monitor.update_dynamic_data();
    const heap_counter::Tally heap = heap_counter::stop();

    const double n = static_cast<double>(state.iterations());
    state.counters["gpus"] = gpus;
    state.counters["time_per_gpu"] = benchmark::Counter(
        gpus, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["floor_us"] = floor_total / n * 1e6;
    state.counters["ratio"] = floor_total > 0.0 ? refresh_total / floor_total : 0.0;
    state.counters["opens"] = static_cast<double>(calls.opens) / refreshes;
    state.counters["syscalls"] = static_cast<double>(calls.total()) / refreshes;
    state.counters["floor_syscalls"] = static_cast<double>(floor_calls.total()) / refreshes;
    state.counters["allocs"] = static_cast<double>(heap.allocations) / refreshes;
    state.counters["alloc_bytes"] = static_cast<double>(heap.bytes) / refreshes;
    monitor.terminate();
  }
  machine::leave();
  zev::set_trace_sink(nullptr, nullptr);
}

#define DRM_MACHINE(label, dir) \
  BENCHMARK_CAPTURE(refresh, label, dir)->UseManualTime()->Unit(benchmark::kMicrosecond)

DRM_MACHINE(rdna3_rx7900xtx, "amd-rdna3-rx7900xtx");
DRM_MACHINE(rdna4_rx9070xt, "amd-rdna4-rx9070xt");
DRM_MACHINE(polaris_rx580, "amd-polaris-rx580");
DRM_MACHINE(apu_phoenix, "amd-apu-phoenix-780m");
DRM_MACHINE(arc_b580_xe, "intel-arc-b580-xe");
DRM_MACHINE(gtx1060_nouveau, "nvidia-gtx1060-nouveau");
DRM_MACHINE(two_cards_with_gaps, "amd-multi-card-gaps");
DRM_MACHINE(vf_without_hwmon, "amd-sriov-vf-no-hwmon");
DRM_MACHINE(arc_a770_i915, "intel-arc-a770-i915");
DRM_MACHINE(captured_rx7900xtx_hwmon8, "lact-amd-rx7900xtx");
DRM_MACHINE(captured_rx580, "lact-amd-rx580");
DRM_MACHINE(captured_b580_energy, "lact-intel-b580");
DRM_MACHINE(captured_tigerlake_no_hwmon, "lact-intel-tigerlake");
DRM_MACHINE(twelve_gpu_rig, "amd-12-gpu-mining-rig");
DRM_MACHINE(mi300x_server_8_gpus, "amd-mi300x-8-gpu-server");

}  // namespace

BENCHMARK_MAIN();
