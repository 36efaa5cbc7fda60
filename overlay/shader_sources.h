// GLSL sources of the overlay's two programs, "quad" (background, bars and
// grid) and "line" (graphs), for GLSL 1.50 (OpenGL 3.2 and later) and GLSL
// 1.20 (OpenGL 2.1). The "color" uniform multiplies the vertex colour; the
// host supplies tulva_Position, tulva_Color and tulva_ModelViewProjectionMatrix.
#pragma once

// The overlay is the layer above the plug-in core: the core never includes it.
#ifdef ZEV_PLUGIN_CORE
#error "overlay/ is the layer above the plug-in core"
#endif

namespace overlay_shaders {

inline constexpr const char* kQuadVertex150 =
    "#version 150\nin vec4 tulva_Position;\nin vec4 tulva_Color;\nout vec4 Vertex_Color;\n"
    "uniform mat4 tulva_ModelViewProjectionMatrix;\nvoid main()\n{\n"
    "gl_Position = tulva_ModelViewProjectionMatrix * tulva_Position;\n"
    "Vertex_Color = tulva_Color;\n}";
inline constexpr const char* kQuadFragment150 =
    "#version 150\nin vec4 Vertex_Color;\nout vec4 Out_Color;\nuniform vec4 color;\n"
    "void main(void)\n{\n    Out_Color = color * Vertex_Color;\t\n}";
inline constexpr const char* kQuadVertex120 =
    "#version 120\nvarying vec4 Vertex_Color;\nuniform mat4 tulva_ModelViewProjectionMatrix;\n"
    "void main()\n{\ngl_Position = tulva_ModelViewProjectionMatrix * gl_Vertex;\n"
    "Vertex_Color = gl_Color;\n}";
inline constexpr const char* kQuadFragment120 =
    "#version 120\nvarying vec4 Vertex_Color;\nuniform vec4 color;\nvoid main(void)\n{\n"
    "    gl_FragColor = color * Vertex_Color;\t\n}";

// The 1.50 line shaders declare Vertex_UV and time, which nothing uses.
inline constexpr const char* kLineVertex150 =
    "#version 150\nin vec4 tulva_Position;\nin vec4 tulva_Color;\nout vec4 Vertex_Color;\n"
    "out vec4 Vertex_UV;\nuniform mat4 tulva_ModelViewProjectionMatrix;\nvoid main()\n{\n"
    "gl_Position = tulva_ModelViewProjectionMatrix * tulva_Position;\n"
    "Vertex_Color = tulva_Color;\n}";
inline constexpr const char* kLineFragment150 =
    "#version 150\nin vec4 Vertex_Color;\nout vec4 Out_Color;\nuniform float time;\n"
    "uniform vec4 color;\nvoid main(void)\n{\n    Out_Color = color * Vertex_Color;\t\n}";
inline constexpr const char* kLineVertex120 =
    "#version 120\nvoid main()\n{\t\n  gl_Position = gl_ModelViewProjectionMatrix * gl_Vertex;\n"
    "  gl_FrontColor = gl_Color;\n}";
inline constexpr const char* kLineFragment120 =
    "#version 120\nuniform float time;\nuniform vec4 color;\nvoid main(void)\n{\n"
    "    gl_FragColor = color * gl_Color;\t\n}";

}  // namespace overlay_shaders
