// A scoped tn_mutex lock. The library's dispatchers must report a failed
// lock, so the guard does not hide it: check held() before going on.
#ifndef TN_SRC_EVENT_LOCK_H
#define TN_SRC_EVENT_LOCK_H

#include <tarnel_util/tn_mutex.h>

namespace tn {

class lock_guard {
public:
    explicit lock_guard(tn_mutex *m) : mutex_(m), held_(tn_mutex_lock(m) != 0) {}
    ~lock_guard()
    {
        if (held_) tn_mutex_unlock(mutex_);
    }
    lock_guard(const lock_guard &) = delete;
    lock_guard &operator=(const lock_guard &) = delete;

    bool held() const { return held_; }

private:
    tn_mutex *mutex_;
    bool held_;
};

} // namespace tn

#endif
