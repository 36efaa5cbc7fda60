// Snapshot of the host's OpenGL context: strings, version, extensions and 55
// named limits, all asked of the host renderer (the plug-in calls no OpenGL
// function itself). The host fills it once a context exists.
#include <cstring>
#include <initializer_list>
#include <new>

#include "plugin/gpu_monitor_vorn.h"
#include "zev/renderer.h"

namespace {

// A limit's OpenGL name and the gl_caps slots of its values (-1: none).
struct Capability {
  const char* name;
  int slots[3];
};

// In the order names are compared and limits queried. GL_MAX_VIEWPORT_DIMS
// keeps only its first value (the maximum width).
constexpr Capability kCapabilities[] = {
    {"GL_MAX_COMPUTE_WORK_GROUP_COUNT", {7, 8, 9}},
    {"GL_MAX_COMPUTE_WORK_GROUP_SIZE", {10, 11, 12}},
    {"GL_MAX_VIEWPORT_DIMS", {2, -1, -1}},
    {"GL_MAX_VERTEX_TEXTURE_IMAGE_UNITS", {3, -1, -1}},
    {"GL_MAX_COLOR_ATTACHMENTS", {4, -1, -1}},
    {"GL_MAX_DRAW_BUFFERS", {5, -1, -1}},
    {"GL_MAX_TEXTURE_SIZE", {0, -1, -1}},
    {"GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS", {1, -1, -1}},
    {"GL_MAX_ARRAY_TEXTURE_LAYERS", {14, -1, -1}},
    {"GL_MAX_VERTEX_STREAMS", {15, -1, -1}},
    {"GL_MAX_GEOMETRY_SHADER_INVOCATIONS", {16, -1, -1}},
    {"GL_MAX_PATCH_VERTICES", {17, -1, -1}},
    {"GL_MAX_TESS_GEN_LEVEL", {18, -1, -1}},
    {"GL_MAX_TRANSFORM_FEEDBACK_BUFFERS", {19, -1, -1}},
    {"GL_MAX_SUBROUTINES", {13, -1, -1}},
    {"GL_MAX_FRAMEBUFFER_WIDTH", {20, -1, -1}},
    {"GL_MAX_FRAMEBUFFER_HEIGHT", {21, -1, -1}},
    {"GL_MAX_FRAMEBUFFER_LAYERS", {22, -1, -1}},
    {"GL_MAX_FRAMEBUFFER_SAMPLES", {23, -1, -1}},
    {"GL_MAX_WIDTH", {24, -1, -1}},
    {"GL_MAX_HEIGHT", {25, -1, -1}},
    {"GL_MAX_DEPTH", {26, -1, -1}},
    {"GL_MAX_LAYERS", {27, -1, -1}},
    {"GL_MAX_COMBINED_DIMENSIONS", {28, -1, -1}},
    {"GL_MAX_VERTEX_ATTRIB_STRIDE", {29, -1, -1}},
    {"GL_MAX_SAMPLES", {6, -1, -1}},
    {"GL_MAX_UNIFORM_BUFFER_BINDINGS", {39, -1, -1}},
    {"GL_MAX_UNIFORM_BLOCK_SIZE", {40, -1, -1}},
    {"GL_MAX_VERTEX_UNIFORM_BLOCKS", {42, -1, -1}},
    {"GL_MAX_FRAGMENT_UNIFORM_BLOCKS", {43, -1, -1}},
    {"GL_MAX_GEOMETRY_UNIFORM_BLOCKS", {44, -1, -1}},
    {"GL_MAX_TESS_CONTROL_UNIFORM_BLOCKS", {45, -1, -1}},
    {"GL_MAX_TESS_EVALUATION_UNIFORM_BLOCKS", {46, -1, -1}},
    {"GL_MAX_COMPUTE_UNIFORM_BLOCKS", {47, -1, -1}},
    {"GL_MAX_COMBINED_UNIFORM_BLOCKS", {41, -1, -1}},
    {"GL_MAX_SHADER_STORAGE_BLOCK_SIZE", {48, -1, -1}},
    {"GL_MAX_SHADER_STORAGE_BUFFER_BINDINGS", {49, -1, -1}},
    {"GL_MAX_VERTEX_SHADER_STORAGE_BLOCKS", {50, -1, -1}},
    {"GL_MAX_FRAGMENT_SHADER_STORAGE_BLOCKS", {51, -1, -1}},
    {"GL_MAX_GEOMETRY_SHADER_STORAGE_BLOCKS", {52, -1, -1}},
    {"GL_MAX_TESS_CONTROL_SHADER_STORAGE_BLOCKS", {53, -1, -1}},
    {"GL_MAX_TESS_EVALUATION_SHADER_STORAGE_BLOCKS", {54, -1, -1}},
    {"GL_MAX_COMPUTE_SHADER_STORAGE_BLOCKS", {55, -1, -1}},
    {"GL_MAX_COMBINED_SHADER_STORAGE_BLOCKS", {56, -1, -1}},
    {"GL_MAX_ATOMIC_COUNTER_BUFFER_SIZE", {30, -1, -1}},
    {"GL_MAX_ATOMIC_COUNTER_BUFFER_BINDINGS", {31, -1, -1}},
    {"GL_MAX_COMBINED_ATOMIC_COUNTER_BUFFERS", {32, -1, -1}},
    {"GL_MAX_VERTEX_ATOMIC_COUNTERS", {33, -1, -1}},
    {"GL_MAX_FRAGMENT_ATOMIC_COUNTERS", {34, -1, -1}},
    {"GL_MAX_GEOMETRY_ATOMIC_COUNTERS", {35, -1, -1}},
    {"GL_MAX_TESS_CONTROL_ATOMIC_COUNTERS", {36, -1, -1}},
    {"GL_MAX_TESS_EVALUATION_ATOMIC_COUNTERS", {37, -1, -1}},
    {"GL_MAX_COMPUTE_ATOMIC_COUNTERS", {38, -1, -1}},
    {"GL_MAX_CULL_DISTANCES", {57, -1, -1}},
    {"GL_MAX_COMBINED_CLIP_AND_CULL_DISTANCES", {58, -1, -1}},
};
static_assert(sizeof kCapabilities / sizeof kCapabilities[0] == 55, "55 named limits");

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
    for (const Capability& c : kCapabilities) {
      int* out[3];
      for (int k = 0; k < 3; ++k) out[k] = c.slots[k] < 0 ? nullptr : &gl_caps[c.slots[k]];
      renderer->get_capability_4i(c.name, out[0], out[1], out[2], nullptr);
    }
  }
  return true;
}

// An unknown name gives four zeros; the fourth value is always 0.
bool GpuMonitorVorn::opengl_get_capability_4i(const char* name, int* v0, int* v1, int* v2,
                                              int* v3) {
  int values[4] = {0, 0, 0, 0};
  for (const Capability& c : kCapabilities) {
    if (name == nullptr || std::strcmp(name, c.name) != 0) continue;
    for (int k = 0; k < 3; ++k) values[k] = c.slots[k] < 0 ? 0 : gl_caps[c.slots[k]];
    break;
  }
  int* outs[4] = {v0, v1, v2, v3};
  for (int k = 0; k < 4; ++k) {
    if (outs[k] != nullptr) *outs[k] = values[k];
  }
  return true;
}
