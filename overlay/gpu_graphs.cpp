// The graph overlay: background quad, grid, axes, the GPU curves, the CPU
// curve and one usage bar per GPU, in a rectangle of the overlay viewport
// (pixels, origin at its lower-left corner). Called once a frame: nothing is
// allocated, every object comes from graph2d_init.
#include "plugin/gpu_monitor_vorn.h"
#include "record/record_slots.h"
#include "zev/gpu_program.h"
#include "zev/renderer.h"
#include "zev/scene.h"

namespace {

const zev::vec4 kAxisBlue(0.0f, 0.8f, 1.0f, 1.0f);
const zev::vec4 kAxisRed(1.0f, 0.0f, 0.0f, 1.0f);

// Both axes start one cell in from the left and bottom edges.
void set_axes(zev::Graph2d* graph, int x, int y, int w, int h, float cw, float ch) {
  const float left = static_cast<float>(x) + cw;
  const float bottom = static_cast<float>(y) + ch;
  graph->set_x_axis_positions(zev::vec4(left, bottom, 0, 1),
                              zev::vec4(static_cast<float>(x + w) - cw, bottom, 0, 1));
  graph->set_y_axis_positions(zev::vec4(left, bottom, 0, 1),
                              zev::vec4(left, static_cast<float>(y + h) - ch, 0, 1));
}

// A cell of the grid: size / subdivisions as unsigned 64-bit integers. A
// subdivision of 0 (a rectangle under 20 x 10 pixels on the previous call)
// gives a cell of 0 instead of a division by zero.
float cell(int size, uint64_t subdiv) {
  if (subdiv == 0) return 0.0f;
  return static_cast<float>(static_cast<uint64_t>(static_cast<int64_t>(size)) / subdiv);
}

}  // namespace

bool GpuMonitorVorn::draw_gpu_data_v1(zev::Renderer* renderer, int x, int y, int w, int h,
                                      bool show_usage_bars) {
  const unsigned long n = get_num_gpus();
  if (n == 0 || renderer == nullptr || camera == nullptr || gpu_graph == nullptr ||
      line_program == nullptr)
    return false;

  // The subdivisions are the ones the previous call left (step below).
  const float cw = cell(w, grid_subdiv_x);
  const float ch = cell(h, grid_subdiv_y);
  set_axes(gpu_graph, x, y, w, h, cw, ch);
  gpu_graph->set_x_axis_color(kAxisBlue, kAxisBlue);
  gpu_graph->set_y_axis_color(kAxisBlue, kAxisRed);

  camera->bind(renderer, true, false, true, true, !gl3_shaders);
  renderer->set_depth_test(false);

  // Overlay pixel (px, py) sits at (px - W/2, py - H/2), W/2 and H/2 being
  // integer halves of the viewport.
  const float half_vw = static_cast<float>(viewport.width / 2);
  const float half_vh = static_cast<float>(viewport.height / 2);
  const float center_x = -half_vw + static_cast<float>(w) / 2.0f + static_cast<float>(x);
  const float center_y = -half_vh + static_cast<float>(h) / 2.0f + static_cast<float>(y);

  if (bkg_quad != nullptr) {
    renderer->set_blending(true);
    renderer->set_blending_factors(0, 8);
    bkg_quad->update_params(static_cast<float>(w), static_cast<float>(h));
    if (quad_program != nullptr) {
      quad_program->bind(renderer);
      quad_program->set_uniform_4f(renderer, "color", bkg_quad_color.x, bkg_quad_color.y,
                                   bkg_quad_color.z, bkg_quad_color.w);
    }
    bkg_quad->set_position(center_x, center_y, 0.0f);
    bkg_quad->draw(renderer, 0);

    renderer->set_blending_factors(2, 1);
    if (quad_program != nullptr) quad_program->set_uniform_4f(renderer, "color", 1, 1, 1, 1);

    // Cells of about 20 x 10 pixels; the grid lies in the x-z plane and is
    // turned to face the camera.
    grid_subdiv_x = static_cast<uint64_t>(static_cast<float>(w) / 20.0f);
    grid_subdiv_y = static_cast<uint64_t>(static_cast<float>(h) / 10.0f);
    if (grid != nullptr) {
      grid->set_size(static_cast<float>(w), static_cast<float>(h));
      grid->set_num_subdiv(static_cast<int>(grid_subdiv_x), static_cast<int>(grid_subdiv_y));
      grid->set_position(center_x, center_y, 0.0f);
      grid->set_orientation_euler_xyz(90.0f, 0.0f, 0.0f);
      grid->draw(renderer, 0);
    }

    renderer->set_blending(false);

    // One row a GPU, 30 pixels apart; the column moves up 10 pixels a GPU.
    if (show_usage_bars) {
      renderer->set_blending(true);
      const float base = static_cast<float>(n * 10);
      for (unsigned long i = 0; i < n; ++i) {
        const zev::GPU* gpu = get_gpu(i);
        if (!gpu->monitorable || !gpu->sensor_available[gpu_record::kUsageFlag]) continue;
        const float row_y = -half_vh + static_cast<float>(h) + static_cast<float>(y) +
                            (base - 30.0f * static_cast<float>(i)) - 85.0f;
        bar_quad->update_params(100.0f, 10.0f);
        bar_quad->set_position(-half_vw + 50.0f + static_cast<float>(x) + 10.0f, row_y, 0.0f);
        if (quad_program != nullptr)
          quad_program->set_uniform_4f(renderer, "color", 0.1f, 0.2f, 0.4f, 1.0f);
        renderer->set_blending_factors(1, 1);
        bar_quad->draw(renderer, 0);

        // Not clamped: 150 % is 150 pixels long.
        const float length = gpu->core_usage[0] / 100.0f * 100.0f;
        bar_quad->update_params(length, 6.0f);
        bar_quad->set_position(-half_vw + length / 2.0f + static_cast<float>(x) + 10.0f, row_y,
                               0.0f);
        if (quad_program != nullptr)
          quad_program->set_uniform_4f(renderer, "color", 0.0f, 1.0f, 0.0f, 1.0f);
        renderer->set_blending_factors(8, 0);
        bar_quad->draw(renderer, 0);
      }
      renderer->set_blending(false);
    }
  }

  line_program->bind(renderer);
  gpu_graph->draw(renderer, 0);

  // Only curve 0 of the CPU graph is drawn, and only once it has a point.
  if (cpu_graph != nullptr) {
    const zev::Curve* cpu_curve = cpu_graph->get_curve(0);
    if (cpu_curve != nullptr && cpu_curve->get_num_points() > 0) {
      set_axes(cpu_graph, x, y, w, h, cw, ch);
      cpu_graph->draw_curve(renderer, 0);
    }
  }

  renderer->set_depth_test(true);
  return true;
}
