#pragma once

#include <condition_variable>
#include <mutex>

// Internal to the library; public only because the measurement base, a public class, keeps its
// state under such a mutex. Clang's thread-safety analysis checks at compile time that data marked
// ZT_GUARDED_BY(m) is only touched with m held, and that functions marked
// ZT_REQUIRES(m) are only called with it held. Other compilers ignore the marks.
#if defined(__clang__)
#define ZT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZT_THREAD_ANNOTATION(x)
#endif

#define ZT_CAPABILITY(name) ZT_THREAD_ANNOTATION(capability(name))
#define ZT_SCOPED_CAPABILITY ZT_THREAD_ANNOTATION(scoped_lockable)
#define ZT_GUARDED_BY(m) ZT_THREAD_ANNOTATION(guarded_by(m))
#define ZT_PT_GUARDED_BY(m) ZT_THREAD_ANNOTATION(pt_guarded_by(m))
#define ZT_REQUIRES(...) ZT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZT_EXCLUDES(...) ZT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZT_ACQUIRE(...) ZT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZT_RELEASE(...) ZT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZT_TRY_ACQUIRE(...) ZT_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZT_RETURN_CAPABILITY(m) ZT_THREAD_ANNOTATION(lock_returned(m))
#define ZT_ASSERT_CAPABILITY(m) ZT_THREAD_ANNOTATION(assert_capability(m))
#define ZT_NO_THREAD_SAFETY_ANALYSIS ZT_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace zeptick::detail {

/// A std::mutex the analysis knows as a capability.
class ZT_CAPABILITY("mutex") Mutex {
 public:
  void lock() ZT_ACQUIRE() { mutex.lock(); }
  void unlock() ZT_RELEASE() { mutex.unlock(); }
  bool try_lock() ZT_TRY_ACQUIRE(true) { return mutex.try_lock(); }
  /// The plain mutex, for a std::unique_lock handed from function to function,
  /// which the analysis cannot follow: whoever locks it so says assertHeld().
  std::mutex& native() { return mutex; }
  /// Tells the analysis that the calling thread holds this mutex (locked
  /// through native(), or by a caller the analysis cannot see). Checks nothing.
  void assertHeld() const ZT_ASSERT_CAPABILITY(this) {}

 private:
  friend class MutexLock;
  std::mutex mutex;
};

/// Holds a Mutex for its scope; `wait` lets a std::condition_variable release
/// and retake it, which the analysis treats as held throughout.
class ZT_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ZT_ACQUIRE(mutex) : lock(mutex.mutex) {}
  ~MutexLock() ZT_RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  template <class Predicate>
  void wait(std::condition_variable& cv, Predicate ready) {
    cv.wait(lock, ready);
  }
  template <class Duration, class Predicate>
  bool waitFor(std::condition_variable& cv, const Duration& timeout, Predicate ready) {
    return cv.wait_for(lock, timeout, ready);
  }

 private:
  std::unique_lock<std::mutex> lock;
};

}  // namespace zeptick::detail
