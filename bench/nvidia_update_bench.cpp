// Cost of refreshing NVIDIA GPUs: one update_dynamic_data on the same fake
// machine (two GPUs: two and three fans, two processes on the first), once
// with the GPUs found through NVML and once with
// them found through nvidia-smi. Reported per refresh and per GPU: the time,
// the NVML calls made (counted by the fake library) and the nvidia-smi
// processes started (logged by the fake tool). The NVML refresh is set
// against a floor measured in the same run, iteration by iteration and by
// the thread's CPU clock: the same NVML calls made bare, one after the other
// (ratio: refresh / floor); its heap allocations and file system calls are
// counted too.
//
//   build/bin/nvidia_update_bench [--benchmark_filter=...]
//
// Runs on the machine the build assembles into build/machines (the NVIDIA
// fakes come with the tests). Needs what the fake machines need (root or
// unprivileged user namespaces).
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <ctime>
#include <fstream>
#include <string>

#include "file_calls.h"
#include "heap_counter.h"
#include "machine.h"
#include "plugin/gpu_monitor_vorn.h"
#include "zev/trace.h"

namespace {

const char kMachine[] = "nvidia-rtx5090-rtx4080s-nvml";

void quiet(zev::TraceLevel, const char*, void*) {}

// Inside the machine for the object's lifetime. The loader's search path was
// fixed when this process started, so the machine's NVML is loaded here by
// its path; the monitor's dlopen of "libnvidia-ml.so.1" then finds it by its
// soname.
class InsideMachine {
 public:
  InsideMachine() {
    zev::set_trace_sink(quiet, nullptr);
    ok_ = machine::enter(std::string(ZEV_NVIDIA_MACHINES_DIR) + "/" + kMachine, &error_);
    if (!ok_) return;
    nvml_ =
        dlopen((machine::staged_root() + "/lib/libnvidia-ml.so.1").c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (nvml_ == nullptr) {
      ok_ = false;
      error_ = dlerror();
    }
  }
  ~InsideMachine() {
    if (nvml_ != nullptr) dlclose(nvml_);
    if (ok_ || nvml_ != nullptr) machine::leave();
    zev::set_trace_sink(nullptr, nullptr);
  }
  bool ok() const { return ok_; }
  const std::string& error() const { return error_; }

  // Lines the fake nvidia-smi has logged: one per process started.
  static long smi_processes() {
    std::ifstream in(machine::staged_root() + "/nvidia/nvidia-smi.log");
    long n = 0;
    for (std::string line; std::getline(in, line);) ++n;
    return n;
  }

 private:
  bool ok_ = false;
  std::string error_;
  void* nvml_ = nullptr;
};

void report(benchmark::State& state, double gpus, double per_update, const char* what) {
  state.counters["gpus"] = gpus;
  state.counters[what] = per_update;
  state.counters[std::string(what) + "_per_gpu"] = per_update / gpus;
  // Seconds per GPU and refresh.
  state.counters["time_per_gpu"] = benchmark::Counter(
      gpus, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// CPU time of the calling thread, in seconds: other processes' load does not
// inflate it.
double thread_seconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// The floor of an NVML refresh: the calls it makes for each GPU, in its
// order, with nothing done with their answers: the sensors, every fan (its
// percentage and RPM), the memory in use and the per-process samples (the
// sizing call, then the samples; the names of processes already seen are
// not asked again).
void bare_nvml_calls(GpuMonitorVorn& monitor) {
  const NvmlEntryPoints& api = monitor.nvml_state.api;
  static nvml::ProcessUtilizationSample samples[GpuMonitorVorn::kMaxProcessSamples];
  for (unsigned long i = 0; i < monitor.nvml_get_num_gpus(); ++i) {
    const zev::GPU* gpu = monitor.nvml_get_gpu(i);
    auto device = static_cast<nvml::Device>(gpu->nvml_device);
    unsigned int value = 0;
    unsigned long long wide = 0;
    nvml::Utilization utilization;
    nvml::Memory memory;
    nvml::FanSpeedInfo fan;
    api.nvmlDeviceGetTemperature(device, nvml::kTemperatureGpu, &value);
    api.nvmlDeviceGetFanSpeed(device, &value);
    for (unsigned int f = 1; f < gpu->num_fans; ++f)
      api.nvmlDeviceGetFanSpeed_v2(device, f, &value);
    for (unsigned int f = 0; f < gpu->num_fans; ++f) {
      fan = {nvml::kFanSpeedInfoVersion, f, 0};
      api.nvmlDeviceGetFanSpeedRPM(device, &fan);
    }
    api.nvmlDeviceGetMaxClockInfo(device, nvml::kClockSm, &value);
    api.nvmlDeviceGetMaxClockInfo(device, nvml::kClockMem, &value);
    api.nvmlDeviceGetClock(device, nvml::kClockSm, nvml::kClockIdCurrent, &value);
    api.nvmlDeviceGetClock(device, nvml::kClockMem, nvml::kClockIdCurrent, &value);
    api.nvmlDeviceGetPowerUsage(device, &value);
    api.nvmlDeviceGetTotalEnergyConsumption(device, &wide);
    api.nvmlDeviceGetEnforcedPowerLimit(device, &value);
    api.nvmlDeviceGetUtilizationRates(device, &utilization);
    api.nvmlDeviceGetMemoryInfo(device, &memory);
    api.nvmlDeviceGetCurrentClocksThrottleReasons(device, &wide);
    unsigned int count = 0;
    if (api.nvmlDeviceGetProcessUtilization(device, nullptr, &count, 0) ==
        nvml::kErrorInsufficientSize) {
      count = GpuMonitorVorn::kMaxProcessSamples;
      api.nvmlDeviceGetProcessUtilization(device, samples, &count, 0);
    }
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(wide);
    benchmark::DoNotOptimize(utilization);
    benchmark::DoNotOptimize(memory);
    benchmark::DoNotOptimize(fan);
    benchmark::DoNotOptimize(samples[0]);
  }
}

void update_nvml(benchmark::State& state) {
  InsideMachine inside;
  if (!inside.ok()) {
    state.SkipWithError(("cannot enter the machine: " + inside.error()).c_str());
    return;
  }
  GpuMonitorVorn monitor;
  if (!monitor.nvml_initialize()) {
    state.SkipWithError("NVML discovery found no GPU");
    return;
  }
  auto calls =
      reinterpret_cast<unsigned long (*)()>(dlsym(monitor.nvml_lib_handle, "zev_fake_nvml_calls"));
  if (calls == nullptr) {
    // A real libnvidia-ml.so on this system was found first.
    state.SkipWithError("the monitor did not load the fake NVML");
    monitor.cleanup_gpus_list();
    return;
  }
  const double gpus = static_cast<double>(monitor.get_num_gpus());

  double refresh_total = 0.0;
  double floor_total = 0.0;
  unsigned long refresh_calls = 0;
  for (auto _ : state) {
    const unsigned long before = calls();
    const double t0 = thread_seconds();
    benchmark::DoNotOptimize(monitor.update_dynamic_data());
    const double t1 = thread_seconds();
    refresh_calls += calls() - before;
    bare_nvml_calls(monitor);
    const double t2 = thread_seconds();
    state.SetIterationTime(t1 - t0);
    refresh_total += t1 - t0;
    floor_total += t2 - t1;
  }
  const double n = static_cast<double>(state.iterations());

  const int refreshes = 16;
  heap_counter::start();
  for (int i = 0; i < refreshes; ++i) monitor.update_dynamic_data();
  const heap_counter::Tally heap = heap_counter::stop();
  file_calls::start();
  for (int i = 0; i < refreshes; ++i) monitor.update_dynamic_data();
  const file_calls::Tally files = file_calls::stop();

  report(state, gpus, static_cast<double>(refresh_calls) / n, "nvml_calls");
  state.counters["floor_us"] = floor_total / n * 1e6;
  state.counters["ratio"] = floor_total > 0.0 ? refresh_total / floor_total : 0.0;
  state.counters["allocs"] = static_cast<double>(heap.allocations) / refreshes;
  state.counters["syscalls"] = static_cast<double>(files.total()) / refreshes;
  monitor.cleanup_gpus_list();
  monitor.nvml_terminate();
}

void update_nvidia_smi(benchmark::State& state) {
  InsideMachine inside;
  if (!inside.ok()) {
    state.SkipWithError(("cannot enter the machine: " + inside.error()).c_str());
    return;
  }
  // The same GPUs, found the way the monitor finds them when NVML fails.
  GpuMonitorVorn monitor;
  if (!monitor.linux_nv_smi_init_gpus()) {
    state.SkipWithError("nvidia-smi discovery found no GPU");
    return;
  }
  const double gpus = static_cast<double>(monitor.get_num_gpus());

  const long before = InsideMachine::smi_processes();
  for (auto _ : state) benchmark::DoNotOptimize(monitor.update_dynamic_data());
  const double per_update = static_cast<double>(InsideMachine::smi_processes() - before) /
                            static_cast<double>(state.iterations());

  report(state, gpus, per_update, "processes");
  monitor.cleanup_gpus_list();
}

// Wall-clock time: the nvidia-smi path spends its time in other processes
// (the NVML refresh is timed by hand, apart from its floor).
BENCHMARK(update_nvml)->Unit(benchmark::kMicrosecond)->UseManualTime();
BENCHMARK(update_nvidia_smi)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
