// The per-thread chain of walks that call the module back.
#include "core/walk_guard.h"

namespace asorch {

constinit thread_local WalkFrame *t_walk = nullptr;

}  // namespace asorch
