// The overlay's resources: viewport and camera, grid, the GPU and CPU graphs,
// the background and bar quads, the "line" and "quad" programs, and the
// colour setters. The host creates them with graph2d_init and releases them
// with graph2d_cleanup, on its rendering thread.
#include "overlay/shader_sources.h"
#include "plugin/gpu_monitor_vorn.h"
#include "zev/gpu_program.h"
#include "zev/renderer.h"
#include "zev/scene.h"

namespace {

// Creates a program from a vertex and a fragment source; the five further
// stages are none.
zev::GpuProgram* make_program(zev::Renderer* renderer, const char* vertex, const char* fragment) {
  return zev::GpuProgramMgr::get()->create_gpu_program_from_shaders(
      renderer, vertex, fragment, nullptr, nullptr, nullptr, nullptr, nullptr);
}

// Puts a valid program in use once and gives it a white "color".
bool prepare_program(zev::Renderer* renderer, zev::GpuProgram* program) {
  if (!program->activate(renderer)) return false;
  program->unbind(renderer);
  program->bind(renderer);
  program->set_uniform_4f(renderer, "color", 1.0f, 1.0f, 1.0f, 1.0f);
  program->unbind(renderer);
  return true;
}

template <typename T>
void release_node(zev::Renderer* renderer, T*& node) {
  if (node == nullptr) return;
  node->release(renderer, nullptr);
  node = nullptr;
}

}  // namespace

void GpuMonitorVorn::set_viewport(int x, int y, int w, int h) {
  viewport.set(x, y, w, h);
  // Overlay coordinates: origin at the viewport's centre, x right, y up.
  if (camera != nullptr) {
    camera->set_viewport(x, y, w, h);
    const float half_w = static_cast<float>(w) / 2.0f;
    const float half_h = static_cast<float>(h) / 2.0f;
    camera->build_projection_ortho(-half_w, half_w, -half_h, half_h, 1.0f, 10.0f, true);
    camera->set_view_params(zev::vec4(0, 0, 4, 0), zev::vec4(0, 0, 0, 1), zev::vec4(0, 1, 0, 0),
                            true);
  }
  if (gpu_graph != nullptr) gpu_graph->set_viewport(x, y, w, h);
  if (cpu_graph != nullptr) cpu_graph->set_viewport(x, y, w, h);
  if (grid != nullptr) grid->set_size(static_cast<float>(w), static_cast<float>(h));
}

zev::Viewport GpuMonitorVorn::get_viewport() { return viewport; }

bool GpuMonitorVorn::graph2d_init(zev::Renderer* renderer) {
  if (gpu_graph != nullptr) return true;
  if (renderer == nullptr || get_num_monitorable_gpus() == 0) return false;

  camera = new zev::Camera();

  grid = new zev::Grid();
  grid->set_size(200.0f, 100.0f);
  // Both axes get the x subdivision here; the first draw sets them from the
  // rectangle before the grid is drawn.
  grid->set_num_subdiv(static_cast<int>(grid_subdiv_x), static_cast<int>(grid_subdiv_x));
  grid->set_lines_color(0.1f, 0.2f, 0.15f, 0.5f);
  grid->set_main_lines_color(0.1f, 0.2f, 0.15f, 0.5f);
  grid->set_main_x_axis_color(0.1f, 0.2f, 0.15f, 0.5f);
  grid->set_main_z_axis_color(0.1f, 0.2f, 0.15f, 0.5f);
  grid->set_display_lines_options(true, true);

  num_curve_points = 600;
  // Curve k belongs to the k-th monitorable GPU.
  gpu_graph = new zev::Graph2d();
  for (unsigned long i = 0; i < get_num_gpus(); ++i) {
    if (get_gpu(i)->monitorable) gpu_graph->create_curve(num_curve_points);
  }

  bkg_quad = new zev::MeshQuad();
  bkg_quad->set_build_params(300.0f, 160.0f);
  bkg_quad->build(nullptr);
  bar_quad = new zev::MeshQuad();
  bar_quad->set_build_params(100.0f, 10.0f);
  bar_quad->build(nullptr);

  cpu_graph = new zev::Graph2d();
  cpu_graph->create_curve(num_curve_points);
  set_cpu_data_color(0, 0.0f, 1.0f, 0.0f, 1.0f);

  int major = 0;
  int minor = 0;
  renderer->get_gl_version(&major, &minor);
  gl3_shaders = major > 2;

  if (line_program == nullptr) {
    line_program = gl3_shaders ? make_program(renderer, overlay_shaders::kLineVertex150,
                                              overlay_shaders::kLineFragment150)
                               : make_program(renderer, overlay_shaders::kLineVertex120,
                                              overlay_shaders::kLineFragment120);
    if (line_program != nullptr) {
      if (line_program->is_valid()) {
        if (!prepare_program(renderer, line_program)) return false;
      } else if (const char* log = line_program->get_shaders_info_log()) {
        tracef_error("line GPU program error: %s", log);
      } else {
        tracef_error("- line GPU program has erros");
      }
    }
  }

  if (quad_program != nullptr) return true;
  quad_program = gl3_shaders ? make_program(renderer, overlay_shaders::kQuadVertex150,
                                            overlay_shaders::kQuadFragment150)
                             : make_program(renderer, overlay_shaders::kQuadVertex120,
                                            overlay_shaders::kQuadFragment120);
  if (quad_program == nullptr) return true;
  if (!quad_program->is_valid()) {
    if (const char* log = quad_program->get_shaders_info_log()) {
      tracef_error("- quad GPU program error: %s", log);
    } else {
      tracef_error("- quad GPU program has erros");
    }
    return true;
  }
  return prepare_program(renderer, quad_program);
}

bool GpuMonitorVorn::graph2d_cleanup(zev::Renderer* renderer) {
  for (zev::GpuProgram** program : {&line_program, &quad_program}) {
    if (*program == nullptr) continue;
    zev::GpuProgramMgr::get()->release_gpu_program(renderer, *program, false);
    *program = nullptr;
  }
  release_node(renderer, camera);
  release_node(renderer, bkg_quad);
  release_node(renderer, bar_quad);
  release_node(renderer, grid);
  release_node(renderer, gpu_graph);
  release_node(renderer, cpu_graph);
  return true;
}

void GpuMonitorVorn::draw_set_bkg_quad_color(float r, float g, float b, float a) {
  bkg_quad_color.set(r, g, b, a);
}

void GpuMonitorVorn::draw_set_bkg_quad_vertex_color(unsigned long vertex, float r, float g, float b,
                                                    float a) {
  if (bkg_quad != nullptr) bkg_quad->set_vertex_color(vertex, zev::vec4(r, g, b, a));
}

// Curve i and GPU i: the same index addresses both (curves count
// monitorable GPUs only).
int GpuMonitorVorn::set_gpu_data_color(unsigned long index, float r, float g, float b, float a) {
  if (gpu_graph != nullptr) gpu_graph->set_curve_color(index, r, g, b, a);
  if (index < get_num_gpus()) get_gpu(index)->color.set(r, g, b, a);
  return 0;
}

int GpuMonitorVorn::set_cpu_data_color(unsigned long index, float r, float g, float b, float a) {
  if (cpu_graph != nullptr) cpu_graph->set_curve_color(index, r, g, b, a);
  return 0;
}
