// Snapshot of the host's OpenGL context: strings, version, extensions and 55
// named limits, all asked of the host renderer (the plug-in calls no OpenGL
// function itself). The host fills it once a context exists.
#include <cstring>
#include <initializer_list>
#include <new>

#include "plugin/gpu_monitor_vorn.h"
#include "zev/gl_limits.h"
#include "zev/renderer.h"

namespace {

static_assert(sizeof zev::kGlLimits / sizeof zev::kGlLimits[0] == 55, "55 named limits");
static_assert(sizeof(GpuMonitorVorn::gl_caps) / sizeof(int32_t) == zev::kGlLimitSlots,
              "a gl_caps entry for each value kept");

// The gl_caps entry of a limit's k-th value (k < 3), or null where it keeps none.
int32_t* slot_of(int32_t* caps, const zev::GlLimit& limit, int k) {
  return k < limit.kept ? &caps[limit.first_slot + k] : nullptr;
}

}  // namespace

const char* GpuMonitorVorn::opengl_get_vendor() { return gl_vendor; }
const char* GpuMonitorVorn::opengl_get_renderer() { return gl_renderer; }
const char* GpuMonitorVorn::opengl_get_version() { return gl_version; }
int GpuMonitorVorn::opengl_get_version_major() { return gl_version_major; }
int GpuMonitorVorn::opengl_get_version_minor() { return gl_version_minor; }
unsigned long GpuMonitorVorn::opengl_get_num_extensions() { return num_gl_extensions; }

const char* GpuMonitorVorn::opengl_get_extension(unsigned long index) {
  if (gl_extensions == nullptr || index >= num_gl_extensions) return nullptr;
  return gl_extensions[index];
}

// A window needs the renderer: the extension list is asked of it.
bool GpuMonitorVorn::opengl_init(zev::Renderer* renderer, zev::RenderWindow* window) {
  if (renderer == nullptr && window == nullptr) return false;
  if (renderer != nullptr) {
    // The 128th byte stays 0 from construction.
    std::strncpy(gl_vendor, renderer->get_gl_vendor_string(), 127);
    std::strncpy(gl_renderer, renderer->get_gl_renderer_string(), 127);
    std::strncpy(gl_version, renderer->get_gl_version_string(), 127);
    int major = 0;
    int minor = 0;
    renderer->get_gl_version(&major, &minor);
    gl_version_major = major;
    gl_version_minor = minor;
  }
  if (window != nullptr) {
    num_gl_extensions = renderer->get_num_extensions(window);
    delete[] gl_extensions;
    gl_extensions = nullptr;
    gl_extensions = new char[num_gl_extensions][64]();
    for (unsigned long i = 0; i < num_gl_extensions; ++i) {
      const char* name = renderer->get_extension(window, i);
      if (name != nullptr) std::strncpy(gl_extensions[i], name, 63);
    }
  }
  if (renderer != nullptr) {
    // In the order of zev::kGlLimits.
    for (const zev::GlLimit& c : zev::kGlLimits) {
      renderer->get_capability_4i(c.name, slot_of(gl_caps, c, 0), slot_of(gl_caps, c, 1),
                                  slot_of(gl_caps, c, 2), nullptr);
    }
  }
  return true;
}

// An unknown name gives four zeros; the fourth value is always 0.
bool GpuMonitorVorn::opengl_get_capability_4i(const char* name, int* v0, int* v1, int* v2,
                                              int* v3) {
  int values[4] = {0, 0, 0, 0};
  for (const zev::GlLimit& c : zev::kGlLimits) {
    if (name == nullptr || std::strcmp(name, c.name) != 0) continue;
    for (int k = 0; k < 3; ++k) values[k] = k < c.kept ? gl_caps[c.first_slot + k] : 0;
    break;
  }
  int* outs[4] = {v0, v1, v2, v3};
  for (int k = 0; k < 4; ++k) {
    if (outs[k] != nullptr) *outs[k] = values[k];
  }
  return true;
}
