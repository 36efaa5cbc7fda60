// Meshes of the reference host: the quad and the grid.
#include <algorithm>

#include "gl_renderer.h"
#include "zev/scene.h"

namespace zev {

namespace {

void put(float* to, float a, float b, float c, float d) {
  to[0] = a;
  to[1] = b;
  to[2] = c;
  to[3] = d;
}

void put(float* to, const vec4& v) { put(to, v.x, v.y, v.z, v.w); }

}  // namespace

void Mesh::set_vertex_color(unsigned long vertex, const vec4& color) {
  if (vertex >= kMaxCorners) return;
  corner_colors_[vertex] = color;
  // A built quad takes the colour at once.
  if (!lines_ && num_vertices_ == 6) build(nullptr);
}

bool Mesh::draw(Renderer* renderer, int) {
  auto* gl = static_cast<GlRenderer*>(renderer);
  if (gl == nullptr || num_vertices_ == 0) return false;
  float model[16];
  get_model_matrix(model);
  gl->draw_vertices(&vertices_[0].position[0], num_vertices_, false,
                    lines_ ? GL_LINES : GL_TRIANGLES, model);
  return true;
}

void MeshQuad::set_build_params(float w, float h) {
  w_ = w;
  h_ = h;
}

void MeshQuad::update_params(float w, float h) {
  set_build_params(w, h);
  build(nullptr);
}

// Two triangles; corners 0 to 3 counter-clockwise from the lower left.
bool MeshQuad::build(Renderer*) {
  const float x = w_ / 2.0f;
  const float y = h_ / 2.0f;
  const float corners[4][2] = {{-x, -y}, {x, -y}, {x, y}, {-x, y}};
  const int order[6] = {0, 1, 2, 0, 2, 3};
  for (int i = 0; i < 6; ++i) {
    const int c = order[i];
    put(vertices_[i].position, corners[c][0], corners[c][1], 0.0f, 1.0f);
    put(vertices_[i].color, corner_colors_[c]);
  }
  num_vertices_ = 6;
  lines_ = false;
  return true;
}

void Grid::set_size(float w, float h) {
  if (w == w_ && h == h_) return;
  w_ = w;
  h_ = h;
  changed_ = true;
}

void Grid::set_num_subdiv(int x, int y) {
  if (x == subdiv_x_ && y == subdiv_y_) return;
  subdiv_x_ = x;
  subdiv_y_ = y;
  changed_ = true;
}

void Grid::set_lines_color(float r, float g, float b, float a) {
  lines_color_.set(r, g, b, a);
  changed_ = true;
}
void Grid::set_main_lines_color(float r, float g, float b, float a) {
  main_lines_color_.set(r, g, b, a);
  changed_ = true;
}
void Grid::set_main_x_axis_color(float r, float g, float b, float a) {
  x_axis_color_.set(r, g, b, a);
  changed_ = true;
}
void Grid::set_main_z_axis_color(float r, float g, float b, float a) {
  z_axis_color_.set(r, g, b, a);
  changed_ = true;
}
void Grid::set_display_lines_options(bool lines, bool main_lines) {
  show_lines_ = lines;
  show_main_lines_ = main_lines;
  changed_ = true;
}

// Lines along z at each x step and along x at each z step, in the x-z plane;
// the middle ones are the main lines (the x and z axes). As many lines as the
// vertex store holds.
void Grid::rebuild() {
  changed_ = false;
  num_vertices_ = 0;
  lines_ = true;
  const int sx = std::max(1, std::min(subdiv_x_, kMaxVertices / 4 - 1));
  const int sz = std::max(1, std::min(subdiv_y_, kMaxVertices / 4 - 1));
  const float hw = w_ / 2.0f;
  const float hh = h_ / 2.0f;
  auto line = [this](float x0, float z0, float x1, float z1, const vec4& color) {
    put(vertices_[num_vertices_].position, x0, 0.0f, z0, 1.0f);
    put(vertices_[num_vertices_++].color, color);
    put(vertices_[num_vertices_].position, x1, 0.0f, z1, 1.0f);
    put(vertices_[num_vertices_++].color, color);
  };
  for (int i = 0; i <= sx; ++i) {
    const bool main = 2 * i == sx;
    if (main ? !show_main_lines_ : !show_lines_) continue;
    const float x = -hw + w_ * static_cast<float>(i) / static_cast<float>(sx);
    line(x, -hh, x, hh, main ? z_axis_color_ : lines_color_);
  }
  for (int i = 0; i <= sz; ++i) {
    const bool main = 2 * i == sz;
    if (main ? !show_main_lines_ : !show_lines_) continue;
    const float z = -hh + h_ * static_cast<float>(i) / static_cast<float>(sz);
    line(-hw, z, hw, z, main ? x_axis_color_ : lines_color_);
  }
}

bool Grid::draw(Renderer* renderer, int flags) {
  if (changed_) rebuild();
  return Mesh::draw(renderer, flags);
}

}  // namespace zev
