#include "bus.h"

#include "log.h"
#include "process_handles.h"
#include "tarn/tarn.h"

Bus::Bus(Answer answer) : answer_(answer), transport_(tarn_lib_init(send, this, get_log_handle())) {
    exchange_network_tarn_handle(transport_);
}

Bus::~Bus() {
    exchange_network_tarn_handle(nullptr);
    tarn_lib_exit(transport_);
}

int Bus::send(void *data, const char *topic, const char *text) {
    const auto *const bus = static_cast<const Bus *>(data);
    const auto answer = bus->answer_(topic, text);
    std::string response = topic;
    const size_t verb = response.find("/req/network/");
    if (!answer || verb == response.npos)
        return 0;
    const std::string peer = response.substr(5, verb - 5);  // behind "tarn/"
    response = "tarn/network/resp/" + peer + response.substr(response.rfind('/'));
    if (tarn_req *request = tarn_get_req_handle_using_topic(bus->transport_, response.c_str()))
        tarn_complete_transfer(request, answer->c_str());
    return 0;
}
