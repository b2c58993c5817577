#pragma once

namespace zeptick {

/// Raises the calling thread's scheduling priority a little above normal so
/// that workers keep up with the instrument. Silently does nothing when the
/// process may not raise priorities.
void raiseWorkerPriority();

}  // namespace zeptick
