// The thread and lock calls the module is written against, on POSIX threads.
// Code above this header uses these names only, never pthread_* directly.
#pragma once
#include <pthread.h>
#include <semaphore.h>
#include <cerrno>
#include <ctime>

namespace vrta {

using thread_t = pthread_t;
using thread_key_t = pthread_key_t;
using mutex_t = pthread_mutex_t;
using rwlock_t = pthread_rwlock_t;
using cond_t = pthread_cond_t;
using sema_t = sem_t;

// Flags of thr_create; only the ones with a POSIX meaning are honoured.
constexpr long THR_BOUND = 0x1;
constexpr long THR_DETACHED = 0x40;
constexpr long THR_NEW_LWP = 0x2;
// Type argument of mutex_init/cond_init/rwlock_init/sema_init.
constexpr int USYNC_THREAD = 0;
constexpr int USYNC_PROCESS = 1;
constexpr int LOCK_RECURSIVE = 4;

// Starts a thread running fn(arg). stack and stacksize follow the Solaris call:
// a null stack with size 0 means defaults.
inline int thr_create(void* stack, size_t stacksize, void* (*fn)(void*), void* arg, long flags, thread_t* newthread) {
    pthread_attr_t attr;
    if (int rc = pthread_attr_init(&attr)) return rc;
    if (stack && stacksize) pthread_attr_setstack(&attr, stack, stacksize);
    else if (stacksize) pthread_attr_setstacksize(&attr, stacksize);
    if (flags & THR_DETACHED) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    thread_t tid;
    int rc = pthread_create(&tid, &attr, fn, arg);
    pthread_attr_destroy(&attr);
    if (rc == 0 && newthread) *newthread = tid;
    return rc;
}
[[noreturn]] inline void thr_exit(void* status) { pthread_exit(status); }
inline thread_t thr_self() { return pthread_self(); }
inline int thr_join(thread_t tid, void** status) { return pthread_join(tid, status); }
inline int thr_keycreate(thread_key_t* key, void (*destructor)(void*)) { return pthread_key_create(key, destructor); }
inline int thr_keydelete(thread_key_t key) { return pthread_key_delete(key); }
inline int thr_setspecific(thread_key_t key, void* value) { return pthread_setspecific(key, value); }
inline int thr_getspecific(thread_key_t key, void** value) {
    *value = pthread_getspecific(key);
    return 0;
}

inline int mutex_init(mutex_t* mp, int type = USYNC_THREAD, void* = nullptr) {
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    if (type & LOCK_RECURSIVE) pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE);
    if (type & USYNC_PROCESS) pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    int rc = pthread_mutex_init(mp, &a);
    pthread_mutexattr_destroy(&a);
    return rc;
}
inline int mutex_lock(mutex_t* mp) { return pthread_mutex_lock(mp); }
inline int mutex_trylock(mutex_t* mp) { return pthread_mutex_trylock(mp); }
inline int mutex_unlock(mutex_t* mp) { return pthread_mutex_unlock(mp); }
inline int mutex_destroy(mutex_t* mp) { return pthread_mutex_destroy(mp); }

// Writers are preferred, as the module's locking was designed for: a steady
// stream of readers must not starve an updater.
inline int rwlock_init(rwlock_t* rw, int type = USYNC_THREAD, void* = nullptr) {
    pthread_rwlockattr_t a;
    pthread_rwlockattr_init(&a);
    pthread_rwlockattr_setkind_np(&a, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    if (type & USYNC_PROCESS) pthread_rwlockattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    int rc = pthread_rwlock_init(rw, &a);
    pthread_rwlockattr_destroy(&a);
    return rc;
}
inline int rw_rdlock(rwlock_t* rw) { return pthread_rwlock_rdlock(rw); }
inline int rw_wrlock(rwlock_t* rw) { return pthread_rwlock_wrlock(rw); }
inline int rw_tryrdlock(rwlock_t* rw) { return pthread_rwlock_tryrdlock(rw); }
inline int rw_trywrlock(rwlock_t* rw) { return pthread_rwlock_trywrlock(rw); }
inline int rw_unlock(rwlock_t* rw) { return pthread_rwlock_unlock(rw); }
inline int rwlock_destroy(rwlock_t* rw) { return pthread_rwlock_destroy(rw); }

inline int cond_init(cond_t* cv, int = USYNC_THREAD, void* = nullptr) { return pthread_cond_init(cv, nullptr); }
inline int cond_wait(cond_t* cv, mutex_t* mp) { return pthread_cond_wait(cv, mp); }
inline int cond_timedwait(cond_t* cv, mutex_t* mp, const timespec* abstime) { return pthread_cond_timedwait(cv, mp, abstime); }
inline int cond_signal(cond_t* cv) { return pthread_cond_signal(cv); }
inline int cond_broadcast(cond_t* cv) { return pthread_cond_broadcast(cv); }
inline int cond_destroy(cond_t* cv) { return pthread_cond_destroy(cv); }

// Solaris semaphores return the error number instead of setting errno.
inline int sema_init(sema_t* sp, unsigned count, int type = USYNC_THREAD, void* = nullptr) {
    return sem_init(sp, type == USYNC_PROCESS, count) ? errno : 0;
}
inline int sema_wait(sema_t* sp) {
    int rc;
    while ((rc = sem_wait(sp)) != 0 && errno == EINTR) {}
    return rc ? errno : 0;
}
inline int sema_trywait(sema_t* sp) { return sem_trywait(sp) ? errno : 0; }
inline int sema_post(sema_t* sp) { return sem_post(sp) ? errno : 0; }
inline int sema_destroy(sema_t* sp) { return sem_destroy(sp) ? errno : 0; }

// Scoped hold of a mutex for code that has no hsabort between lock and unlock.
class MutexGuard {
public:
    explicit MutexGuard(mutex_t* m) : m_(m) { mutex_lock(m_); }
    ~MutexGuard() { mutex_unlock(m_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
private:
    mutex_t* m_;
};

}  // namespace vrta
