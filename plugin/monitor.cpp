// Construction, lifecycle and the Linux discovery sequence of the monitor.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#include "plugin/gpu_monitor_vorn.h"
#include "record/record_writes.h"

namespace {

const char kAuthor[] = "zev gpumon developers";

}  // namespace

cDisplayDeviceId::cDisplayDeviceId() {
  device_name[0] = '\0';
  device_string[0] = '\0';
  device_id[0] = '\0';
  device_key[0] = '\0';
}

GpuMonitorVorn::GpuMonitorVorn()
    : zev::GpuMonitor(),
      num_gpus(0),
      nvml_gpus_count(0),
      update_thread_quit(false),
      update_enabled(true),
      update_period_ms(1000),
      cpu_logical_cores(0),
      cpu_physical_cores(0),
      cpu_speed_mhz(0),
      cpu_mem_kb(0),
      cpu_reserved(0),
      physical_cpu_mem_mb(0),
      camera(nullptr),
      gpu_graph(nullptr),
      cpu_graph(nullptr),
      grid_subdiv_x(20),
      grid_subdiv_y(10),
      grid(nullptr),
      num_curve_points(1000),
      line_program(nullptr),
      bkg_quad(nullptr),
      bar_quad(nullptr),
      quad_program(nullptr),
      gl3_shaders(false),
      update_thread(0),
      num_monitorable_gpus(0),
      num_gpus_drm(0),
      num_nv_smi_detected(0),
      num_nvml_detected(0),
      gl_version_major(0),
      gl_version_minor(0),
      num_gl_extensions(0),
      gl_extensions(nullptr),
      nvml_lib_handle(nullptr) {
  for (unsigned long i = 0; i < kMaxGpus; ++i) {
    gpus[i] = nullptr;
    nvml_gpus[i] = nullptr;
  }

  set_name("GpuMonitor");
  set_description("GPU monitoring plugin for NVIDIA, AMD and Intel GPUs");
  set_author(kAuthor);
  set_version(0, 1, 0);
  char build_info[128];
  std::memset(build_info, 0, sizeof build_info);
  std::snprintf(build_info, sizeof build_info, "BUILD_DATE: [%s] - BUILD_TIME: [%s]", __DATE__,
                __TIME__);
  set_build_info(build_info);
  set_type(zev::PLUGIN_TYPE_GPU_MONITOR);

  std::memset(cpu_name, 0, sizeof cpu_name);
  std::memset(os_name, 0, sizeof os_name);
  std::memset(gl_vendor, 0, sizeof gl_vendor);
  std::memset(gl_renderer, 0, sizeof gl_renderer);
  std::memset(gl_version, 0, sizeof gl_version);
  std::memset(gl_caps, 0, sizeof gl_caps);
}

// The host calls terminate() before destroying the monitor; destruction
// itself releases nothing else.
// A host may fill the OpenGL snapshot and destroy the monitor without
// terminate: the extension names go with the monitor.
GpuMonitorVorn::~GpuMonitorVorn() { delete[] gl_extensions; }

bool GpuMonitorVorn::initialize() {
  if (initialized) return true;

  _init_system_info();
  init_gpus_linux();
  // A Raspberry Pi's V3D GPU has no PCI identity: on a Pi 3, 4 or 5 its
  // discovery runs after the DRM scan (which still finds a PCI card on a
  // Pi 5), from the board model, which is the CPU name there. On other
  // machines it finds no Pi board and adds nothing.
  linux_arm64_rpi_init_gpus(cpu_name);
  update_all_gpus_marketing_name();
  sort_gpus_by_bus_id();

  tracef("Num GPUs detected: %d", static_cast<int>(get_num_gpus()));
  for (unsigned long i = 0; i < get_num_gpus(); ++i) {
    zev::GPU* gpu = get_gpu(i);
    tracef("> GPU%lu", i);
    tracef("  - name: %s", gpu->use_marketing_name ? gpu->marketing_name : gpu->name);
    if (gpu->vendor_id != 0 && gpu->device_id != 0) {
      tracef("  - PCI codes: 0x%04X-0x%04X", static_cast<unsigned>(gpu->vendor_id),
             static_cast<unsigned>(gpu->device_id));
    }
    if (gpu_record::not_placeholder_bus(gpu->bus_id)) tracef("  - Bus ID: %d", gpu->bus_id);
    if (gpu->vbios_version[0] != '\0') tracef("  - VBIOS: %s", gpu->vbios_version);
    const float celsius = gpu->temperatures[gpu_record::kCoreTemperature].current;
    if (celsius > 0.0f) {
      tracef("  - core temperature: %d degC", static_cast<int>(celsius));
    }
    if (gpu->driver_name[0] != '\0' && gpu->driver_version_short[0] != '\0') {
      tracef("  - driver: %s %s", gpu->driver_name, gpu->driver_version_short);
    } else if (gpu->driver_version[0] != '\0') {
      tracef("  - driver: %s", gpu->driver_version);
    }
  }

  initialized = true;
  return true;
}

bool GpuMonitorVorn::init_gpus_linux() {
  num_monitorable_gpus = 0;

  bool cuda_found = false;
  if (void* cuda = dlopen("libcuda.so", RTLD_LAZY)) {
    dlclose(cuda);
    cuda_found = true;
    tracef("NVIDIA CUDA library detected.");
  }

  if (cuda_found) {
    if (nvml_initialize()) {
      tracef_debug("num GPUs detected by nvidia nvml: %d", static_cast<int>(num_nvml_detected));
      // The first design ended discovery here, so on a laptop whose NVIDIA
      // GPU NVML finds, the AMD or Intel GPU that drives the screen was not
      // listed. The DRM scan runs for the other cards (NVIDIA cards are
      // skipped, as after nvidia-smi), and only when there is one: a machine
      // with NVIDIA cards alone keeps its traces and its order.
      if (drm_has_other_than_nvidia() && linux_drm_init_gpus()) {
        tracef_debug("num GPUs in DRM: %d", static_cast<int>(num_gpus_drm));
      }
      return true;
    }
    if (linux_nv_smi_init_gpus()) {
      tracef_debug("num GPUs detected by nvidia-smi: %d", static_cast<int>(num_nv_smi_detected));
    }
  }

  if (linux_drm_init_gpus()) {
    tracef_debug("num GPUs in DRM: %d", static_cast<int>(num_gpus_drm));
  }
  return get_num_gpus() != 0;
}

bool GpuMonitorVorn::terminate() {
  if (!initialized) return true;
  stop_update_thread();
  delete[] gl_extensions;
  gl_extensions = nullptr;
  cleanup_gpus_list();
  initialized = false;
  return true;
}

bool GpuMonitorVorn::start() {
  if (!started) started = true;
  return true;
}

bool GpuMonitorVorn::stop() {
  if (started) started = false;
  return true;
}
