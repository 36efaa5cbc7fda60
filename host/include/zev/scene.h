// Scene classes of the framework: nodes a plug-in creates, places, draws and
// gives back. They draw with the renderer's OpenGL context, which must be
// current on the calling thread for build, draw and release.
#pragma once

#include <cstddef>

#include "zev/math.h"

namespace zev {

class Renderer;

// Anything the framework can build, draw and give back.
class Node {
 public:
  Node();
  virtual ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  // Creates the node's geometry; with a renderer, its GPU buffers too (they
  // are otherwise made on the first draw).
  virtual bool build(Renderer* renderer);
  // Draws with the program in use, which gets the node's model, view and
  // projection matrix as "tulva_ModelViewProjectionMatrix".
  virtual bool draw(Renderer* renderer, int flags);
  // Gives the node back to the framework, which frees it (with its GPU
  // buffers when a renderer is given); `parent` is the node it hangs from.
  virtual void release(Renderer* renderer, Node* parent);
};

// A node with a place: position, orientation (degrees, x then y then z) and
// scale make its model matrix.
class Object : public Node {
 public:
  const float* get_scale() const { return scale_; }
  void set_position(float x, float y, float z);
  void set_orientation_euler_xyz(float x, float y, float z);
  void set_scale(float x, float y, float z);
  // Column-major 4x4 model matrix.
  void get_model_matrix(float* m16) const;

 protected:
  float position_[3] = {0.0f, 0.0f, 0.0f};
  float orientation_[3] = {0.0f, 0.0f, 0.0f};
  float scale_[3] = {1.0f, 1.0f, 1.0f};
};

class Camera : public Object {
 public:
  void set_viewport(int x, int y, int w, int h);
  void build_projection_ortho(float left, float right, float bottom, float top, float z_near,
                              float z_far, bool update);
  void set_view_params(const vec4& position, const vec4& target, const vec4& up, bool update);
  // Makes this camera the one nodes are drawn with. The switches:
  //   set_viewport      the OpenGL viewport becomes the camera's;
  //   clear             the colour and depth buffers are cleared;
  //   use_projection    its projection matrix is used;
  //   use_view          its view matrix is used;
  //   fixed_function    both are also loaded as the fixed-function matrices
  //                     (GL_PROJECTION, GL_MODELVIEW) that GLSL 1.20 programs
  //                     read as gl_ModelViewProjectionMatrix; ignored by a
  //                     core-profile context.
  void bind(Renderer* renderer, bool set_viewport, bool clear, bool use_projection, bool use_view,
            bool fixed_function);
  const float* projection() const { return projection_; }
  const float* view() const { return view_; }

 private:
  int viewport_[4] = {0, 0, 0, 0};
  float projection_[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  float view_[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
};

// Geometry with one colour per vertex, drawn as triangles or lines. Its
// vertices go to the GPU on each draw, through the renderer's stream buffer.
class Mesh : public Object {
 public:
  // Vertex i of the mesh's own corners (a quad has four), white unless set.
  void set_vertex_color(unsigned long vertex, const vec4& color);
  bool draw(Renderer* renderer, int flags) override;

 protected:
  static constexpr int kMaxVertices = 1024;
  static constexpr int kMaxCorners = 4;
  struct Vertex {
    float position[4];
    float color[4];
  };
  Vertex vertices_[kMaxVertices];
  int num_vertices_ = 0;
  bool lines_ = false;
  vec4 corner_colors_[kMaxCorners] = {{1, 1, 1, 1}, {1, 1, 1, 1}, {1, 1, 1, 1}, {1, 1, 1, 1}};
};

// A rectangle of w x h centred on its position, in the x-y plane.
class MeshQuad : public Mesh {
 public:
  void set_build_params(float w, float h);
  // Resizes the quad already built (no allocation: the vertices are reused).
  void update_params(float w, float h);
  bool build(Renderer* renderer) override;

 private:
  float w_ = 1.0f, h_ = 1.0f;
};

// A grid of lines of size w x h in the x-z plane, centred on its position,
// with its two middle lines as main lines (x axis and z axis).
class Grid : public Mesh {
 public:
  void set_size(float w, float h);
  void set_num_subdiv(int x, int y);
  void set_lines_color(float r, float g, float b, float a);
  void set_main_lines_color(float r, float g, float b, float a);
  void set_main_x_axis_color(float r, float g, float b, float a);
  void set_main_z_axis_color(float r, float g, float b, float a);
  void set_display_lines_options(bool lines, bool main_lines);
  bool draw(Renderer* renderer, int flags) override;

 private:
  void rebuild();
  float w_ = 1.0f, h_ = 1.0f;
  int subdiv_x_ = 1, subdiv_y_ = 1;
  vec4 lines_color_{1, 1, 1, 1}, main_lines_color_{1, 1, 1, 1};
  vec4 x_axis_color_{1, 1, 1, 1}, z_axis_color_{1, 1, 1, 1};
  bool show_lines_ = true, show_main_lines_ = true;
  bool changed_ = true;
};

// The samples of one curve, oldest first, up to its number of points.
class Curve {
 public:
  explicit Curve(unsigned long capacity);
  ~Curve();
  Curve(const Curve&) = delete;
  Curve& operator=(const Curve&) = delete;
  // Samples held so far (at most the capacity).
  unsigned long get_num_points() const { return num_points_; }
  unsigned long get_capacity() const { return capacity_; }
  // Adds a sample (percent of the graph's height, 0 to 100); the oldest
  // goes when the curve is full.
  void add_point(float value);
  float get_point(unsigned long i) const;
  void clear() { num_points_ = 0; }
  vec4 color{1, 1, 1, 1};

 private:
  float* values_;
  unsigned long capacity_;
  unsigned long first_ = 0;
  unsigned long num_points_ = 0;
};

// Curves drawn inside the rectangle their axes span: the x axis holds the
// curve's capacity of samples, newest on the right; the y axis goes from 0 %
// at the x axis to 100 % at its top. Axis positions are pixels of the
// graph's viewport, origin at its lower-left corner.
class Graph2d : public Object {
 public:
  Graph2d();
  ~Graph2d() override;
  static constexpr unsigned long kMaxCurves = 16;
  Curve* create_curve(unsigned long num_points);
  Curve* get_curve(unsigned long index);
  unsigned long get_num_curves() const { return num_curves_; }
  void set_curve_color(unsigned long curve, float r, float g, float b, float a);
  void set_viewport(int x, int y, int w, int h);
  void set_x_axis_positions(const vec4& start, const vec4& end);
  void set_y_axis_positions(const vec4& start, const vec4& end);
  void set_x_axis_color(const vec4& start, const vec4& end);
  void set_y_axis_color(const vec4& start, const vec4& end);
  // Draws the axes and every curve, or one curve alone.
  bool draw(Renderer* renderer, int flags) override;
  bool draw_curve(Renderer* renderer, unsigned long curve);

  // The graphs alive, in the order they were made, so that the embedding
  // program can feed the curves of graphs a plug-in made; null past the last.
  static Graph2d* created(unsigned long index);

 private:
  // The overlay position of a pixel of the graph's viewport.
  float to_x(float px) const;
  float to_y(float py) const;
  int viewport_[4] = {0, 0, 0, 0};
  vec4 x_axis_[2], y_axis_[2];
  vec4 x_axis_color_[2] = {{1, 1, 1, 1}, {1, 1, 1, 1}};
  vec4 y_axis_color_[2] = {{1, 1, 1, 1}, {1, 1, 1, 1}};
  Curve* curves_[kMaxCurves] = {};
  unsigned long num_curves_ = 0;
  // Vertices of the line being drawn, 8 floats each, sized by create_curve
  // so that a draw allocates nothing.
  float* scratch_ = nullptr;
  unsigned long scratch_vertices_ = 0;
};

}  // namespace zev
