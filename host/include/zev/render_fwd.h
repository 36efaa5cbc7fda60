// Renderer and scene classes of the framework, as far as a plug-in's
// interface needs to name them.
#pragma once

namespace zev {

class Renderer;
class RenderWindow;
class Font;
class FreeTypeGLPluginInterface;
class GpuProgramMgr;
class GpuProgram;
class Camera;
class Graph2d;
class Curve;
class Grid;
class MeshQuad;
class Mesh;
class Object;
class Node;

}  // namespace zev
