// Whether a board model text names a Raspberry Pi the monitor knows (3, 4 or 5).
#pragma once

bool raspberry_pi_model(const char* text);
