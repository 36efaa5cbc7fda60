// Nodes, placed objects and the camera of the reference host.
#include <cmath>
#include <cstring>

#include "gl_renderer.h"
#include "zev/scene.h"

namespace zev {

Node::Node() = default;
Node::~Node() = default;
bool Node::build(Renderer*) { return true; }
bool Node::draw(Renderer*, int) { return true; }
void Node::release(Renderer*, Node*) { delete this; }

void Object::set_position(float x, float y, float z) {
  position_[0] = x;
  position_[1] = y;
  position_[2] = z;
}

void Object::set_orientation_euler_xyz(float x, float y, float z) {
  orientation_[0] = x;
  orientation_[1] = y;
  orientation_[2] = z;
}

void Object::set_scale(float x, float y, float z) {
  scale_[0] = x;
  scale_[1] = y;
  scale_[2] = z;
}

// translation * rotation x * rotation y * rotation z * scale
void Object::get_model_matrix(float* m) const {
  const float kRadians = 3.14159265358979f / 180.0f;
  float r[16];
  zev_gl::identity(m);
  for (int axis = 0; axis < 3; ++axis) {
    const float a = orientation_[axis] * kRadians;
    if (a == 0.0f) continue;
    const float c = std::cos(a);
    const float s = std::sin(a);
    zev_gl::identity(r);
    const int i = (axis + 1) % 3;  // the two axes the rotation turns
    const int j = (axis + 2) % 3;
    r[i * 4 + i] = c;
    r[i * 4 + j] = s;
    r[j * 4 + i] = -s;
    r[j * 4 + j] = c;
    zev_gl::multiply(m, r, m);
  }
  for (int col = 0; col < 3; ++col)
    for (int row = 0; row < 3; ++row) m[col * 4 + row] *= scale_[col];
  m[12] = position_[0];
  m[13] = position_[1];
  m[14] = position_[2];
}

void Camera::set_viewport(int x, int y, int w, int h) {
  viewport_[0] = x;
  viewport_[1] = y;
  viewport_[2] = w;
  viewport_[3] = h;
}

void Camera::build_projection_ortho(float left, float right, float bottom, float top, float z_near,
                                    float z_far, bool) {
  zev_gl::identity(projection_);
  if (right == left || top == bottom || z_far == z_near) return;
  projection_[0] = 2.0f / (right - left);
  projection_[5] = 2.0f / (top - bottom);
  projection_[10] = -2.0f / (z_far - z_near);
  projection_[12] = -(right + left) / (right - left);
  projection_[13] = -(top + bottom) / (top - bottom);
  projection_[14] = -(z_far + z_near) / (z_far - z_near);
}

// A look-at view: the camera at `position` looking at `target`.
void Camera::set_view_params(const vec4& position, const vec4& target, const vec4& up, bool) {
  float f[3] = {target.x - position.x, target.y - position.y, target.z - position.z};
  const auto normalize = [](float* v) {
    const float n = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    if (n > 0.0f)
      for (int i = 0; i < 3; ++i) v[i] /= n;
  };
  normalize(f);
  float s[3] = {f[1] * up.z - f[2] * up.y, f[2] * up.x - f[0] * up.z, f[0] * up.y - f[1] * up.x};
  normalize(s);
  const float u[3] = {s[1] * f[2] - s[2] * f[1], s[2] * f[0] - s[0] * f[2],
                      s[0] * f[1] - s[1] * f[0]};
  zev_gl::identity(view_);
  for (int i = 0; i < 3; ++i) {
    view_[i * 4 + 0] = s[i];
    view_[i * 4 + 1] = u[i];
    view_[i * 4 + 2] = -f[i];
  }
  view_[12] = -(s[0] * position.x + s[1] * position.y + s[2] * position.z);
  view_[13] = -(u[0] * position.x + u[1] * position.y + u[2] * position.z);
  view_[14] = f[0] * position.x + f[1] * position.y + f[2] * position.z;
}

void Camera::bind(Renderer* renderer, bool set_viewport, bool clear, bool use_projection,
                  bool use_view, bool fixed_function) {
  auto* gl = static_cast<GlRenderer*>(renderer);
  if (gl == nullptr) return;
  if (set_viewport) glViewport(viewport_[0], viewport_[1], viewport_[2], viewport_[3]);
  if (clear) glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
  float identity[16];
  zev_gl::identity(identity);
  gl->set_camera(use_projection ? projection_ : identity, use_view ? view_ : identity,
                 fixed_function);
}

}  // namespace zev
