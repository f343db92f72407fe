// The run of a test program.
#pragma once

namespace support {

/// Runs the tests that the program's flags choose. A run without a test has proved nothing: a filter of which
/// one pattern fits no test is a failure, so that a list of tests cannot shrink by a renaming. Requires:
/// InitGoogleTest. Returns: the exit code.
int RunTests();

}  // namespace support
