// Walks of the library that call the module back (a queue drain, the records of one message)
// hold pointers into what ASOrchDestroy releases. A destroy called from such a callback, on the
// walk's own thread, is therefore carried out when the outermost walk of that orchestrator
// returns; until then the walks stop calling the module. Not exported.
#ifndef RIX_AS_CORE_WALK_GUARD_H
#define RIX_AS_CORE_WALK_GUARD_H

#include "rix_as_common.h"

namespace asorch {

struct WalkFrame {
    ASOrchHandle *handle;
    WalkFrame *outer;
    bool destroyDeferred;
};

// Per thread; initial-exec keeps each access one load on every target.
extern constinit thread_local WalkFrame *t_walk __attribute__((tls_model("initial-exec"), visibility("hidden")));

// Carries out ASOrchDestroy on a handle whose walks are all over.
void DestroyNow(ASOrchHandle *handle);

class WalkScope {
public:
    explicit WalkScope(ASOrchHandle *handle) : frame_{handle, t_walk, false} { t_walk = &frame_; }
    ~WalkScope()
    {
        t_walk = frame_.outer;
        if (frame_.destroyDeferred) {
            // An outer walk of the same orchestrator still holds its pointers: it finishes the job.
            for (WalkFrame *f = frame_.outer; f != nullptr; f = f->outer) {
                if (f->handle == frame_.handle) {
                    f->destroyDeferred = true;
                    return;
                }
            }
            DestroyNow(frame_.handle);
        }
    }
    WalkScope(const WalkScope &) = delete;
    WalkScope &operator=(const WalkScope &) = delete;

private:
    WalkFrame frame_;
};

// The innermost walk of this orchestrator on this thread, or null. A loop may look it up once:
// a deferral in a nested walk is handed out to it.
inline const WalkFrame *WalkOf(const ASOrchHandle *handle)
{
    for (const WalkFrame *f = t_walk; f != nullptr; f = f->outer) {
        if (f->handle == handle) {
            return f;
        }
    }
    return nullptr;
}

// True when a destroy of this orchestrator is waiting for a walk on this thread to return:
// the walk must not call the module again.
inline bool Closing(const ASOrchHandle *handle)
{
    const WalkFrame *walk = WalkOf(handle);
    return walk != nullptr && walk->destroyDeferred;
}

// Called by ASOrchDestroy: true when it runs inside a walk of this orchestrator on this thread
// and has been deferred to the walk's end.
inline bool DeferDestroy(ASOrchHandle *handle)
{
    for (WalkFrame *f = t_walk; f != nullptr; f = f->outer) {
        if (f->handle == handle) {
            f->destroyDeferred = true;
            return true;
        }
    }
    return false;
}

}  // namespace asorch

#endif
