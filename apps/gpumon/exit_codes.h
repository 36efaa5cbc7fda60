// What gpumon exits with.
#pragma once

enum ExitCode {
  kExitOk = 0,
  kExitNotFound = 1,  // unknown --lookup id or --gpu, no GPU to draw
  kExitUsage = 2,     // bad command line, a plug-in that cannot be loaded
  kExitMachine = 3,   // the fake machine could not be set up
  kExitOpenGl = 4,    // no OpenGL context, an overlay that cannot be written
  kExitFile = 4,      // a file or folder that cannot be written (overlay, --record)
  kExitServe = 5,     // --serve cannot listen on its address
  kExitWrite = 6,     // standard output could not be written
};
