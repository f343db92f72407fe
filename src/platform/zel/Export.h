// Symbol visibility for the seam and for the module: everything is built hidden, and only what carries
// ZEL_API leaves a shared library. The version script of each library repeats the same decision.
#pragma once

#define ZEL_API __attribute__((visibility("default")))

// For what is nested in such a class and stays inside: it would inherit the class's visibility.
#define ZEL_HIDDEN __attribute__((visibility("hidden")))
