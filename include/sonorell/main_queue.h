/// The engine's main queue, where the media player's state is read and changed. By default an
/// engine-owned thread serves it; a host with its own main loop adopts it instead, before the
/// engine first uses it, by running or pumping it on its main thread. Safe from any thread.
/// @file
#pragma once

#include <cstddef>

#include "sonorell/export.h"

namespace sonorell {

/// Serves the main queue on the calling thread until QSOStopMainQueue(); the calling thread is
/// the main thread from then on. Returns at once when another thread already serves it.
SONORELL_EXPORT void QSORunMainQueue();
/// Ends QSORunMainQueue(); a stop that arrives before the loop starts is kept for it.
SONORELL_EXPORT void QSOStopMainQueue();
/// For hosts that poll: runs what is queued now on the calling thread and returns how many blocks
/// ran. The first call adopts the main queue for this thread; on any other thread it returns 0.
SONORELL_EXPORT size_t QSOPumpMainQueue();
/// True on the thread that serves the main queue.
SONORELL_EXPORT bool QSOIsMainThread();

}  // namespace sonorell
