// The three conversions between configured maxima and the limits that are applied. Pure.
#pragma once

/// Widens the pair handed to the unified mode, in place. Units: percent (64 bits), MB (32 bits).
/// Memory: the smallest of x 3/2, + 100 and INT_MAX. CPU, unless `cpuAll`: the smallest of x 3/2, + 5 and INT_MAX.
/// Values below 1 stay.
void RelaxMultiCgroupLimits(long& cpu, int& memMb, bool cpuAll);

/// Units: MB in, KB out. 0 below 1 MB, INT_MAX from 2 GB x 1024 on.
int MbToKb(int mb);

/// MbToKb plus one half, saturated at INT_MAX.
int MbToKbWithHeadroom(int mb);
