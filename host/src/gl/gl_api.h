// OpenGL and EGL as the reference host uses them: desktop OpenGL through
// glvnd's libOpenGL, contexts through EGL. Only the host library includes
// this; plug-ins never see OpenGL.
#pragma once

#define GL_GLEXT_PROTOTYPES 1
#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GL/gl.h>
#include <GL/glext.h>

namespace zev_gl {

// Attribute slots of every program the host links.
constexpr GLuint kPositionSlot = 0;
constexpr GLuint kColorSlot = 1;
constexpr GLuint kTexCoordSlot = 2;

// 4x4 column-major matrices.
void identity(float* m);
void multiply(const float* a, const float* b, float* out);  // out = a * b

}  // namespace zev_gl
