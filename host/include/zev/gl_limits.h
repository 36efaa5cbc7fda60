// The 55 OpenGL limits a monitor asks the host's renderer for
// (Renderer::get_capability_4i), written once: the renderer queries them,
// the monitor keeps them in its gl_caps and answers opengl_get_capability_4i
// with them, and gpumon shows them.
//
// ZEV_GL_LIMITS(X) calls X(NAME, QUERY, READ, SLOT, KEPT) once per limit, in
// the order the monitor compares names and queries the limits:
//   NAME   the OpenGL enumerant as a token: #NAME is the name the renderer is
//          asked with, NAME itself the value where OpenGL's headers are
//          included;
//   QUERY  how the renderer reads it (a GlLimitQuery);
//   READ   how many values the renderer reads;
//   SLOT   the first gl_caps entry that keeps its values;
//   KEPT   how many values the monitor keeps (of GL_MAX_VIEWPORT_DIMS only
//          the width), in gl_caps[SLOT] onwards.
// The gl_caps entries, 0 to 58, are in the order gpumon shows the limits.
#pragma once

namespace zev {

enum class GlLimitQuery {
  kPlain,           // glGetIntegerv
  kIndexed,         // glGetIntegeri_v, one query per value
  kInternalFormat,  // glGetInternalformativ of the RGBA8 2D texture format
};

}  // namespace zev

// clang-format off
#define ZEV_GL_LIMITS(X)                                                   \
  X(GL_MAX_COMPUTE_WORK_GROUP_COUNT, kIndexed, 3, 7, 3)                    \
  X(GL_MAX_COMPUTE_WORK_GROUP_SIZE, kIndexed, 3, 10, 3)                    \
  X(GL_MAX_VIEWPORT_DIMS, kPlain, 2, 2, 1)                                 \
  X(GL_MAX_VERTEX_TEXTURE_IMAGE_UNITS, kPlain, 1, 3, 1)                    \
  X(GL_MAX_COLOR_ATTACHMENTS, kPlain, 1, 4, 1)                             \
  X(GL_MAX_DRAW_BUFFERS, kPlain, 1, 5, 1)                                  \
  X(GL_MAX_TEXTURE_SIZE, kPlain, 1, 0, 1)                                  \
  X(GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS, kPlain, 1, 1, 1)                  \
  X(GL_MAX_ARRAY_TEXTURE_LAYERS, kPlain, 1, 14, 1)                         \
  X(GL_MAX_VERTEX_STREAMS, kPlain, 1, 15, 1)                               \
  X(GL_MAX_GEOMETRY_SHADER_INVOCATIONS, kPlain, 1, 16, 1)                  \
  X(GL_MAX_PATCH_VERTICES, kPlain, 1, 17, 1)                               \
  X(GL_MAX_TESS_GEN_LEVEL, kPlain, 1, 18, 1)                               \
  X(GL_MAX_TRANSFORM_FEEDBACK_BUFFERS, kPlain, 1, 19, 1)                   \
  X(GL_MAX_SUBROUTINES, kPlain, 1, 13, 1)                                  \
  X(GL_MAX_FRAMEBUFFER_WIDTH, kPlain, 1, 20, 1)                            \
  X(GL_MAX_FRAMEBUFFER_HEIGHT, kPlain, 1, 21, 1)                           \
  X(GL_MAX_FRAMEBUFFER_LAYERS, kPlain, 1, 22, 1)                           \
  X(GL_MAX_FRAMEBUFFER_SAMPLES, kPlain, 1, 23, 1)                          \
  X(GL_MAX_WIDTH, kInternalFormat, 1, 24, 1)                               \
  X(GL_MAX_HEIGHT, kInternalFormat, 1, 25, 1)                              \
  X(GL_MAX_DEPTH, kInternalFormat, 1, 26, 1)                               \
  X(GL_MAX_LAYERS, kInternalFormat, 1, 27, 1)                              \
  X(GL_MAX_COMBINED_DIMENSIONS, kInternalFormat, 1, 28, 1)                 \
  X(GL_MAX_VERTEX_ATTRIB_STRIDE, kPlain, 1, 29, 1)                         \
  X(GL_MAX_SAMPLES, kPlain, 1, 6, 1)                                       \
  X(GL_MAX_UNIFORM_BUFFER_BINDINGS, kPlain, 1, 39, 1)                      \
  X(GL_MAX_UNIFORM_BLOCK_SIZE, kPlain, 1, 40, 1)                           \
  X(GL_MAX_VERTEX_UNIFORM_BLOCKS, kPlain, 1, 42, 1)                        \
  X(GL_MAX_FRAGMENT_UNIFORM_BLOCKS, kPlain, 1, 43, 1)                      \
  X(GL_MAX_GEOMETRY_UNIFORM_BLOCKS, kPlain, 1, 44, 1)                      \
  X(GL_MAX_TESS_CONTROL_UNIFORM_BLOCKS, kPlain, 1, 45, 1)                  \
  X(GL_MAX_TESS_EVALUATION_UNIFORM_BLOCKS, kPlain, 1, 46, 1)               \
  X(GL_MAX_COMPUTE_UNIFORM_BLOCKS, kPlain, 1, 47, 1)                       \
  X(GL_MAX_COMBINED_UNIFORM_BLOCKS, kPlain, 1, 41, 1)                      \
  X(GL_MAX_SHADER_STORAGE_BLOCK_SIZE, kPlain, 1, 48, 1)                    \
  X(GL_MAX_SHADER_STORAGE_BUFFER_BINDINGS, kPlain, 1, 49, 1)               \
  X(GL_MAX_VERTEX_SHADER_STORAGE_BLOCKS, kPlain, 1, 50, 1)                 \
  X(GL_MAX_FRAGMENT_SHADER_STORAGE_BLOCKS, kPlain, 1, 51, 1)               \
  X(GL_MAX_GEOMETRY_SHADER_STORAGE_BLOCKS, kPlain, 1, 52, 1)               \
  X(GL_MAX_TESS_CONTROL_SHADER_STORAGE_BLOCKS, kPlain, 1, 53, 1)           \
  X(GL_MAX_TESS_EVALUATION_SHADER_STORAGE_BLOCKS, kPlain, 1, 54, 1)        \
  X(GL_MAX_COMPUTE_SHADER_STORAGE_BLOCKS, kPlain, 1, 55, 1)                \
  X(GL_MAX_COMBINED_SHADER_STORAGE_BLOCKS, kPlain, 1, 56, 1)               \
  X(GL_MAX_ATOMIC_COUNTER_BUFFER_SIZE, kPlain, 1, 30, 1)                   \
  X(GL_MAX_ATOMIC_COUNTER_BUFFER_BINDINGS, kPlain, 1, 31, 1)               \
  X(GL_MAX_COMBINED_ATOMIC_COUNTER_BUFFERS, kPlain, 1, 32, 1)              \
  X(GL_MAX_VERTEX_ATOMIC_COUNTERS, kPlain, 1, 33, 1)                       \
  X(GL_MAX_FRAGMENT_ATOMIC_COUNTERS, kPlain, 1, 34, 1)                     \
  X(GL_MAX_GEOMETRY_ATOMIC_COUNTERS, kPlain, 1, 35, 1)                     \
  X(GL_MAX_TESS_CONTROL_ATOMIC_COUNTERS, kPlain, 1, 36, 1)                 \
  X(GL_MAX_TESS_EVALUATION_ATOMIC_COUNTERS, kPlain, 1, 37, 1)              \
  X(GL_MAX_COMPUTE_ATOMIC_COUNTERS, kPlain, 1, 38, 1)                      \
  X(GL_MAX_CULL_DISTANCES, kPlain, 1, 57, 1)                               \
  X(GL_MAX_COMBINED_CLIP_AND_CULL_DISTANCES, kPlain, 1, 58, 1)
// clang-format on

namespace zev {

// How many gl_caps entries the limits fill.
constexpr int kGlLimitSlots = 59;

// A limit as a monitor keeps it: its name, and the gl_caps entries of its
// values (first_slot onwards, `kept` of them).
struct GlLimit {
  const char* name;
  int first_slot;
  int kept;
};

#define ZEV_GL_LIMIT_KEPT(name, query, read, first_slot, kept) {#name, first_slot, kept},
// The limits in the order a monitor compares names and queries them.
inline constexpr GlLimit kGlLimits[] = {ZEV_GL_LIMITS(ZEV_GL_LIMIT_KEPT)};
#undef ZEV_GL_LIMIT_KEPT

}  // namespace zev
