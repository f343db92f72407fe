// A component that is any other program: this process joins the component's groups and then becomes that program.
#pragma once

#include "Options.h"

namespace agent {

/// Returns only on failure, with an exit code: a shell's 126 or 127 when the program cannot be run.
int ExecComponent(const Options& options);

}  // namespace agent
