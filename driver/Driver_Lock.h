// Scoped locking of the driver's QMutex members.
//
// QMutex's contended path lives in QtCore, which is not built with
// ThreadSanitizer; under TSan the lock and unlock are annotated so that the
// sanitizer sees the mutex and its happens-before edges.
#ifndef PLCDRIVER_DRIVER_LOCK_H
#define PLCDRIVER_DRIVER_LOCK_H

#include <QMutex>

#if defined(__SANITIZE_THREAD__)
#define PLCDRIVER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PLCDRIVER_TSAN 1
#endif
#endif

#ifdef PLCDRIVER_TSAN
#include <sanitizer/tsan_interface.h>
#endif

inline void driver_lock(QMutex &m)
{
#ifdef PLCDRIVER_TSAN
    __tsan_mutex_pre_lock(&m, 0);
    m.lock();
    __tsan_mutex_post_lock(&m, 0, 0);
#else
    m.lock();
#endif
}

inline void driver_unlock(QMutex &m)
{
#ifdef PLCDRIVER_TSAN
    __tsan_mutex_pre_unlock(&m, 0);
    m.unlock();
    __tsan_mutex_post_unlock(&m, 0);
#else
    m.unlock();
#endif
}

// Holds a mutex for a scope; unlock() releases it early.
class DriverLock {
public:
    explicit DriverLock(QMutex &m) : m_(&m) { driver_lock(m); }
    ~DriverLock() { unlock(); }
    void unlock()
    {
        if (m_) {
            driver_unlock(*m_);
            m_ = nullptr;
        }
    }
    DriverLock(const DriverLock &) = delete;
    DriverLock &operator=(const DriverLock &) = delete;

private:
    QMutex *m_;
};

#endif // PLCDRIVER_DRIVER_LOCK_H
