// gpumon's OpenGL commands: one frame of the monitor's overlay rendered into
// a PNG, and the OpenGL snapshot of a context.
#pragma once

#include <vector>

#include "options.h"
#include "zev/gpu_monitor.h"

// Core usage of each GPU at every refresh, oldest first.
using UsageHistory = std::vector<std::vector<float>>;

void record_usages(zev::GpuMonitor* monitor, UsageHistory* history);

// Exit codes: kExitOk written, kExitNotFound no GPU to show, kExitOpenGl no
// context, kExitFile the file cannot be written (nothing is left half-written).
int render_overlay(zev::GpuMonitor* monitor, const Options& options, const UsageHistory& history);

// Vendor, renderer, version, the named limits and the extensions, as text or
// JSON. kExitOpenGl when no context can be made.
int show_gl_info(zev::GpuMonitor* monitor, const Options& options);
