#include "pthread_utils.h"

#include <cstring>

#include "log.h"

#define LOG_SOURCE "src/pthread_utils"

namespace {

constexpr size_t kNameSize = 16;  // the kernel's, with the terminator

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
    if (strlen(name) >= kNameSize) {
        LOGE("Thread name too long");
        return -1;
    }
    pthread_t thread;
    if (pthread_create(&thread, attributes.get(), routine, argument) != 0) {
        LOGE("Failed to create thread");
        return -1;
    }
    if (id != nullptr)
        *id = thread;
    if (pthread_setname_np(thread, name) != 0) {
        LOGE("Failed to name thread");
        return -1;
    }
    return 0;
}
