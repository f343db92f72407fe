// The run of a test program.
#pragma once

namespace support {

/// Runs the tests that the program's flags choose. A run without a test has proved nothing: a filter that matches
/// nothing is a failure. Requires: InitGoogleTest. Returns: the exit code.
int RunTests();

}  // namespace support
