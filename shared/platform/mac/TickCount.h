// A clock of coarse ticks.
#pragma once

#include <stdint.h>

/// The time since the system started, without the time that it slept, in whole ticks of a sixtieth
/// of a second.
int64_t TickCount_Modernized();
