// Curves and the graph of the reference host.
#include <new>

#include "gl_renderer.h"
#include "zev/scene.h"

namespace zev {

Curve::Curve(unsigned long capacity)
    : values_(new float[capacity == 0 ? 1 : capacity]), capacity_(capacity == 0 ? 1 : capacity) {}

Curve::~Curve() { delete[] values_; }

void Curve::add_point(float value) {
  if (num_points_ < capacity_) {
    values_[(first_ + num_points_++) % capacity_] = value;
  } else {
    values_[first_] = value;
    first_ = (first_ + 1) % capacity_;
  }
}

float Curve::get_point(unsigned long i) const {
  return i < num_points_ ? values_[(first_ + i) % capacity_] : 0.0f;
}

namespace {

// The graphs alive, oldest first (rendering thread only).
constexpr unsigned long kMaxGraphs = 64;
Graph2d* g_graphs[kMaxGraphs];
unsigned long g_num_graphs = 0;

}  // namespace

Graph2d::Graph2d() {
  if (g_num_graphs < kMaxGraphs) g_graphs[g_num_graphs++] = this;
}

Graph2d::~Graph2d() {
  for (unsigned long i = 0; i < g_num_graphs; ++i) {
    if (g_graphs[i] != this) continue;
    for (unsigned long j = i + 1; j < g_num_graphs; ++j) g_graphs[j - 1] = g_graphs[j];
    --g_num_graphs;
    break;
  }
  for (unsigned long i = 0; i < num_curves_; ++i) delete curves_[i];
  delete[] scratch_;
}

Graph2d* Graph2d::created(unsigned long index) {
  return index < g_num_graphs ? g_graphs[index] : nullptr;
}

Curve* Graph2d::create_curve(unsigned long num_points) {
  if (num_curves_ == kMaxCurves) return nullptr;
  Curve* curve = new Curve(num_points);
  curves_[num_curves_++] = curve;
  if (curve->get_capacity() > scratch_vertices_) {
    delete[] scratch_;
    scratch_vertices_ = curve->get_capacity();
    scratch_ = new float[scratch_vertices_ * 8];
  }
  return curve;
}

Curve* Graph2d::get_curve(unsigned long index) {
  return index < num_curves_ ? curves_[index] : nullptr;
}

void Graph2d::set_curve_color(unsigned long curve, float r, float g, float b, float a) {
  if (curve < num_curves_) curves_[curve]->color.set(r, g, b, a);
}

void Graph2d::set_viewport(int x, int y, int w, int h) {
  viewport_[0] = x;
  viewport_[1] = y;
  viewport_[2] = w;
  viewport_[3] = h;
}

void Graph2d::set_x_axis_positions(const vec4& start, const vec4& end) {
  x_axis_[0] = start;
  x_axis_[1] = end;
}
void Graph2d::set_y_axis_positions(const vec4& start, const vec4& end) {
  y_axis_[0] = start;
  y_axis_[1] = end;
}
void Graph2d::set_x_axis_color(const vec4& start, const vec4& end) {
  x_axis_color_[0] = start;
  x_axis_color_[1] = end;
}
void Graph2d::set_y_axis_color(const vec4& start, const vec4& end) {
  y_axis_color_[0] = start;
  y_axis_color_[1] = end;
}

// Pixels of the viewport, origin lower-left, to overlay coordinates (origin
// at the viewport's centre), as the overlay's camera sees them.
float Graph2d::to_x(float px) const { return px - static_cast<float>(viewport_[2] / 2); }
float Graph2d::to_y(float py) const { return py - static_cast<float>(viewport_[3] / 2); }

namespace {

void vertex(float* v, float x, float y, const vec4& c) {
  const float values[8] = {x, y, 0.0f, 1.0f, c.x, c.y, c.z, c.w};
  for (int i = 0; i < 8; ++i) v[i] = values[i];
}

}  // namespace

bool Graph2d::draw(Renderer* renderer, int) {
  auto* gl = static_cast<GlRenderer*>(renderer);
  if (gl == nullptr || scratch_vertices_ < 4) return false;
  float model[16];
  get_model_matrix(model);
  vertex(scratch_, to_x(x_axis_[0].x), to_y(x_axis_[0].y), x_axis_color_[0]);
  vertex(scratch_ + 8, to_x(x_axis_[1].x), to_y(x_axis_[1].y), x_axis_color_[1]);
  vertex(scratch_ + 16, to_x(y_axis_[0].x), to_y(y_axis_[0].y), y_axis_color_[0]);
  vertex(scratch_ + 24, to_x(y_axis_[1].x), to_y(y_axis_[1].y), y_axis_color_[1]);
  gl->draw_vertices(scratch_, 4, false, GL_LINES, model);
  for (unsigned long i = 0; i < num_curves_; ++i) draw_curve(renderer, i);
  return true;
}

// Sample k of a curve of capacity c sits at k / (c - 1) of the x axis, so a
// full curve spans it; the newest sample is always at the right end.
bool Graph2d::draw_curve(Renderer* renderer, unsigned long index) {
  auto* gl = static_cast<GlRenderer*>(renderer);
  const Curve* curve = get_curve(index);
  if (gl == nullptr || curve == nullptr || curve->get_num_points() == 0) return false;
  const unsigned long n = curve->get_num_points();
  const unsigned long c = curve->get_capacity();
  const float x0 = x_axis_[0].x;
  const float x1 = x_axis_[1].x;
  const float y0 = y_axis_[0].y;
  const float y1 = y_axis_[1].y;
  const float step = c > 1 ? (x1 - x0) / static_cast<float>(c - 1) : 0.0f;
  for (unsigned long k = 0; k < n; ++k) {
    const float x = x1 - step * static_cast<float>(n - 1 - k);
    const float y = y0 + (y1 - y0) * curve->get_point(k) / 100.0f;
    vertex(scratch_ + 8 * k, to_x(x), to_y(y), curve->color);
  }
  float model[16];
  get_model_matrix(model);
  gl->draw_vertices(scratch_, static_cast<int>(n), false, n == 1 ? GL_POINTS : GL_LINE_STRIP,
                    model);
  return true;
}

}  // namespace zev
