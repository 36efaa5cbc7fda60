// A host of the GPU monitor plug-in: loads the library, creates the monitor,
// lists the GPUs it finds with one refresh of their sensors, and unloads it.
//   zev_host_example [PLUGIN]   (default: the installed plug-in)
// Exit code 0 also when the machine has no GPU; 1 when the plug-in cannot be
// loaded or fails.
#include <dlfcn.h>

#include <cstdio>

#include "zev/gpu_monitor.h"
#include "zev/trace.h"

namespace {

void print_trace(zev::TraceLevel level, const char* line, void*) {
  std::printf("[%s] %s\n", zev::trace_level_name(level), line);
}

// The monitor marks a value it could not read with -1.
void print_value(const char* label, float value, const char* unit) {
  if (value == -1.0f) {
    std::printf("    %-12s -\n", label);
  } else {
    std::printf("    %-12s %.0f %s\n", label, value, unit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : ZEV_GPUMON_PLUGIN;
  zev::set_trace_sink(print_trace, nullptr);  // optional: stderr by default

  void* lib = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) {
    std::fprintf(stderr, "cannot load the plug-in: %s\n", dlerror());
    return 1;
  }
  void* create_entry = dlsym(lib, "zev_plugin_create");
  void* destroy_entry = create_entry ? dlsym(lib, "zev_plugin_destroy") : nullptr;
  if (destroy_entry == nullptr) {
    std::fprintf(stderr, "%s is no GPU monitor plug-in: %s\n", path, dlerror());
    dlclose(lib);
    return 1;
  }
  auto create = reinterpret_cast<void* (*)()>(create_entry);
  auto destroy = reinterpret_cast<int (*)(void*)>(destroy_entry);

  auto* monitor = static_cast<zev::GpuMonitor*>(create());
  if (monitor == nullptr) {
    std::fprintf(stderr, "%s created no monitor\n", path);
    dlclose(lib);
    return 1;
  }

  int code = 0;
  if (!monitor->initialize()) {
    std::fprintf(stderr, "the monitor failed to initialize\n");
    code = 1;
  } else if (monitor->get_num_gpus() == 0) {
    std::printf("no GPU found\n");
  } else {
    monitor->update_dynamic_data();  // or start_update_thread(period_ms)
    for (unsigned long i = 0; i < monitor->get_num_gpus(); ++i) {
      const zev::GPU* gpu = monitor->get_gpu(i);  // read by layout: see zev/gpu.h
      std::printf("GPU %lu: %s [%04llX:%04llX]\n", i,
                  gpu->use_marketing_name ? gpu->marketing_name : gpu->name,
                  static_cast<unsigned long long>(gpu->vendor_id),
                  static_cast<unsigned long long>(gpu->device_id));
      print_value("temperature", gpu->temperatures[0].current, "C");
      print_value("usage", gpu->core_usage[0], "%");
      print_value("core clock", gpu->core_clock.current, "MHz");
    }
  }
  if (code == 0) std::printf("CPU: %s\nOS:  %s\n", monitor->get_cpu_name(), monitor->get_os_name());

  monitor->terminate();  // stops an update thread, frees the GPU records
  destroy(monitor);
  dlclose(lib);
  return code;
}
