// A clock that counts sixtieths of a second.
#pragma once

#include <stdint.h>

/// Returns the time since the system started, without the time that it slept, in whole ticks of a
/// sixtieth of a second.
int64_t TickCount_Modernized();
