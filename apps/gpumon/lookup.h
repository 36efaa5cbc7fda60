// gpumon --lookup: what the GPU database compiled into the plug-in knows of a
// PCI id, without loading the plug-in or touching the machine.
#pragma once

#include <string>

// Parses "VENDOR:DEVICE[:REV]" (hex) and prints the database's answer, as
// text or as a JSON document. Returns the process exit code: kExitOk found,
// kExitNotFound unknown id, kExitUsage malformed argument.
int run_lookup(const std::string& id, bool json);
