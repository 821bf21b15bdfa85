#include "pthread_utils.h"

#include <cstring>

#include "log.h"

#define LOG_SOURCE "src/pthread_utils"

namespace {

constexpr size_t kNameSize = 16;  // the kernel's, with the terminator

// Room for Jansson, which descends 2048 levels into a message at most (700 KiB with 64-bit
// pointers); the system's 8 MiB for each of a sweep's workers are more than a small processor can
// address.
constexpr size_t kStackSize = size_t{1} << 20;

class Attributes {
  public:
    Attributes() : valid_(pthread_attr_init(&attributes_) == 0) {}
    ~Attributes() {
        if (valid_)
            pthread_attr_destroy(&attributes_);
    }
    Attributes(const Attributes &) = delete;
    Attributes &operator=(const Attributes &) = delete;
    explicit operator bool() const { return valid_; }
    pthread_attr_t *get() { return &attributes_; }

  private:
    pthread_attr_t attributes_{};
    bool valid_;
};

// A detached thread may end, and its handle with it, before its creator looks again: so it names
// itself, and the creator waits for the outcome.
struct Start {
    void *(*routine)(void *);
    void *argument;
    const char *name;
    int named = 0;  // of pthread_setname_np
    Semaphore running{0};
};

void *run(void *data) {
    auto *const start = static_cast<Start *>(data);
    auto *const routine = start->routine;
    void *const argument = start->argument;
    start->named = pthread_setname_np(pthread_self(), start->name);
    start->running.release();
    return routine(argument);
}

}  // namespace

int pthread_create_detached_thread(pthread_t *id, void *(*routine)(void *), void *argument,
                                   const char *name) {
    Attributes attributes;
    if (!attributes) {
        LOGE("Failed to initialize thread attributes");
        return -1;
    }
    if (pthread_attr_setdetachstate(attributes.get(), PTHREAD_CREATE_DETACHED) != 0) {
        LOGE("Failed to set thread detached state");
        return -1;
    }
    if (pthread_attr_setstacksize(attributes.get(), kStackSize) != 0)
        LOGW("Failed to set thread stack size");
    if (strlen(name) >= kNameSize) {
        LOGE("Thread name too long");
        return -1;
    }
    pthread_t unused;
    Start start{routine, argument, name};
    errno = pthread_create(id != nullptr ? id : &unused, attributes.get(), run, &start);
    if (errno != 0) {
        LOGE("Failed to create thread");
        return -1;
    }
    start.running.acquire();
    if (start.named != 0) {
        LOGE("Failed to name thread");
        return -1;
    }
    return 0;
}
