// Whether this machine could be a Raspberry Pi, decided from /proc/cpuinfo
// without starting a process. The board model is the first line holding
// "Model" (a Pi's "Model : Raspberry Pi 4 Model B Rev 1.4"); PCs and servers
// have no such line, or one naming no Pi, and then the pipeline that reads
// the model for the Pi's discovery need not run: it could only find no Pi.
#pragma once

namespace board_model {

bool could_be_raspberry_pi();

// Whether a board model text names a Raspberry Pi the monitor knows (3, 4 or 5).
bool raspberry_pi_model(const char* text);

// The board model of a Raspberry Pi the monitor knows into `model` (128
// bytes), read only where could_be_raspberry_pi(); false elsewhere.
bool read_raspberry_pi_model(char* model);

}  // namespace board_model
