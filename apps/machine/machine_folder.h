// Checks that a folder is a machine (see machine.h) before it is entered.
#pragma once

#include <string>

namespace machine {

// True when `dir` is a folder holding at least one of sys/, proc/, dev/,
// bin/ and lib/, and, when it has a "fakes" file, some of the fakes it lists
// (a machine that needs fake NVIDIA software is run from the copy the build
// assembles under build/machines/, not from its source folder). Otherwise
// false with the reason in *error.
bool check_machine_folder(const std::string& dir, std::string* error);

}  // namespace machine
