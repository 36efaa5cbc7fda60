// Small value types shared by the framework and its plug-ins.
#pragma once

namespace zev {

class vec4 {
 public:
  float x, y, z, w;

  vec4() : x(0.0f), y(0.0f), z(0.0f), w(0.0f) {}
  vec4(float x_, float y_, float z_, float w_) : x(x_), y(y_), z(z_), w(w_) {}
  void set(float x_, float y_, float z_, float w_) {
    x = x_;
    y = y_;
    z = z_;
    w = w_;
  }
};

class Viewport {
 public:
  int x, y, width, height;

  Viewport() : x(0), y(0), width(0), height(0) {}
  void set(int x_, int y_, int w_, int h_) {
    x = x_;
    y = y_;
    width = w_;
    height = h_;
  }
};

}  // namespace zev
