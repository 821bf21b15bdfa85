// A request to another process and its response, without a broker in between: what the library and
// the change of threads cost on top of it.
#include "tarn/tarn.h"

#include <benchmark/benchmark.h>

#include <array>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr int kNetwork = 6;
constexpr int kCorehub = 12;

// The other process: takes the requests on its own thread, as the broker's thread would, and hands
// the responses in.
class Peer {
  public:
    explicit Peer(bool answers_at_once) : answers_at_once_(answers_at_once) {
        lib_ = tarn_lib_init(&Peer::take, this, nullptr);
        if (!answers_at_once_)
            thread_ = std::thread([this] { serve(); });
    }
    ~Peer() {
        hand_over("");
        if (thread_.joinable())
            thread_.join();
        tarn_lib_exit(lib_);
    }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    tarn_lib *lib() const { return lib_; }

  private:
    static int take(void *self, const char *topic, const char *) {
        auto &peer = *static_cast<Peer *>(self);
        if (peer.answers_at_once_)
            peer.respond(topic);
        else
            peer.hand_over(topic);
        return 0;
    }
    void hand_over(const char *topic) {
        const std::lock_guard guard(lock_);
        topic_ = topic;
        is_full_ = true;
        filled_.notify_one();
    }
    void serve() {
        for (;;) {
            std::unique_lock guard(lock_);
            filled_.wait(guard, [this] { return is_full_; });
            is_full_ = false;
            if (topic_.empty())
                return;
            respond(topic_);
        }
    }
    // tarn/corehub/req/network/ID is answered on tarn/network/resp/corehub/ID.
    void respond(const std::string &topic) const {
        const std::string answer = "tarn/network/resp/corehub" + topic.substr(topic.rfind('/'));
        if (tarn_req *request = tarn_get_req_handle_using_topic(lib_, answer.c_str()))
            tarn_complete_transfer(request, R"({"nextCleaning":4711})");
    }

    const bool answers_at_once_;
    tarn_lib *lib_;
    std::mutex lock_;
    std::condition_variable filled_;
    std::string topic_;
    bool is_full_ = false;
    std::thread thread_;
};

void Transfer(benchmark::State &state, bool answers_at_once) {
    const Peer peer(answers_at_once);
    tarn_req *request = tarn_alloc_req_handle(peer.lib());
    std::array<char, 128> response;
    for (auto _ : state)
        if (tarn_transfer(request, kNetwork, kCorehub, R"({"get":"nextCleaning"})", response.data(),
                          response.size(), 1) != 0)
            state.SkipWithError("no response");
    tarn_free_req_handle(request);
}
BENCHMARK_CAPTURE(Transfer, answered_by_another_thread, false)->UseRealTime();
BENCHMARK_CAPTURE(Transfer, library_alone, true);

}  // namespace
