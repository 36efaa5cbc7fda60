// Discovery of the sensors of real DRM cards beyond the classic hwmon set
// (see drm_backend.h); their refreshes are drm_backend's. Every value here is
// one the classic set leaves unread on real cards, so each only adds to a
// record: a field the classic readers fill is never written here.
#pragma once

#include "backends/drm/drm_backend.h"

namespace drm_extra {

using drm_backend::CardSensors;
using drm_backend::IntelClock;
using drm_backend::PowerLimit;

// Finds what card `card` (hwmon folder `hwmon`, -1 for none) offers beyond
// the classic set, stores first readings into `gpu` (setting its sensor
// flags and `monitorable` where a value reads) and writes trace lines through
// `tracer`, in the style of the scan's block.
void discover(int card, int hwmon, zev::GPU* gpu, CardSensors* sensors, zev::Plugin* tracer);

}  // namespace drm_extra
