// The mode of the relay's program in which it stands between a console and the broker: JSON lines in and out.
#pragma once

namespace fleet {

/// Serves the console on standard input and output until the input ends. `argv`: options behind the first element.
/// Returns: what the program ends with: 1 where it cannot start, with a sentence on standard error.
int RunConsole(int argc, char** argv);

}  // namespace fleet
