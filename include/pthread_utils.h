// Named, detached threads, and what they wait on.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cerrno>

// Starts a detached thread; the name has at most 15 characters (the kernel's limit). 0, or -1; a
// thread that could not be named runs all the same. `id` may be null.
int pthread_create_detached_thread(pthread_t *id, void *(*routine)(void *), void *argument,
                                   const char *name);

// A counting semaphore. Any thread. POSIX, as the standard library's of GCC 12 can sleep through a
// release; and one may be destroyed as soon as the wait for it has returned.
class Semaphore {
  public:
    explicit Semaphore(unsigned count) { sem_init(&semaphore_, 0, count); }
    Semaphore(const Semaphore &) = delete;
    Semaphore &operator=(const Semaphore &) = delete;
    void acquire() {
        while (sem_wait(&semaphore_) != 0 && errno == EINTR)
            ;
    }
    void release() { sem_post(&semaphore_); }

  private:
    sem_t semaphore_;
};
