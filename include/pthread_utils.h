// Named, detached threads.
#pragma once

#include <pthread.h>

// Starts a detached thread; the name has at most 15 characters (the kernel's limit). 0, or -1; a
// thread that could not be named runs all the same. `id` may be null.
int pthread_create_detached_thread(pthread_t *id, void *(*routine)(void *), void *argument,
                                   const char *name);
