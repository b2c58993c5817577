#include "core/worker_priority.h"

#include <sys/resource.h>
#include <unistd.h>

namespace zeptick {

void raiseWorkerPriority() {
  // A nice value of -2 matches "highest" among normal priorities; failures
  // (no CAP_SYS_NICE, RLIMIT_NICE) are expected and harmless.
  const auto thread_id = static_cast<id_t>(gettid());
  const int current = getpriority(PRIO_PROCESS, thread_id);
  (void)setpriority(PRIO_PROCESS, thread_id, current - 2);
}

}  // namespace zeptick
