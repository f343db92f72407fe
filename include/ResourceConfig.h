// The start-up limits of a process, as read from its resource configuration file.
#pragma once

#include <cstdint>

/// Plain record that the module fills and the sampling class takes. Field order is shared layout.
struct ResourceConfig {
    int32_t maxCpu = 0;         ///< percent
    int32_t maxMemory = 0;      ///< MB
    int32_t maxFd = 0;          ///< open file descriptors
    int32_t auxValueA = 5;      ///< passed through to the sampling class; no key sets it
    int32_t auxValueB = 0;      ///< passed through; the start of the monitor sets 1000
    int32_t maxReadIo = 0;      ///< KB/s
    int32_t maxWriteIo = 0;     ///< KB/s
    int32_t maxPidCheck = 100;  ///< watched processes
    bool cpuAll = false;        ///< percentages are of the whole machine
};
