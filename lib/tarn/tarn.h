// Requests with their responses, one-way events and their acknowledgements between the processes
// of the robot. Knows no broker: what it sends goes through a callback, and what arrives is handed
// in by topic. NAME is a process by name or number, ID a decimal number:
//
//   request          tarn/DEST/req/SOURCE/ID     the request's text
//   response         tarn/SOURCE/resp/DEST/ID    the response's text
//   event            tarn/DEST/event/SOURCE/ID   the event's text
//   acknowledgement  tarn/SOURCE/ack/DEST/ID     empty
//
// All functions: any thread, unless said otherwise.
#pragma once

#include <cstddef>

struct json_t;
struct log_handle;
struct tarn_lib;
struct tarn_req;

// What get_tarn_message_type tells.
enum tarn_message_type : int {
    TARN_REQUEST = 0,
    TARN_RESPONSE = 1,
    TARN_EVENT = 2,
    TARN_ACK = 3,
};

// Publishes `text` on `topic`; 0 when it was taken. Called on the thread that sends; must not wait
// for a response.
using tarn_send_cb = int (*)(void *fn_data, const char *topic, const char *text);

// The library for one process, at first 6, `network`. `log` may be null and must outlive it. Null
// for a null callback or no memory.
tarn_lib *tarn_lib_init(tarn_send_cb send, void *fn_data, log_handle *log);

// Makes it the library of another process; before anything else is called on it.
void tarn_lib_set_process(tarn_lib *lib, int process);

// Ends all transfers with -1, waits until no thread uses the callback any more, and frees. Null and
// a library that has ended are ignored, the other calls refuse the latter, and request handles stay
// valid: threads may go on with theirs. Not from a callback.
void tarn_lib_exit(tarn_lib *lib);

// A handle for one transfer at a time; null for a null library or no memory.
tarn_req *tarn_alloc_req_handle(tarn_lib *lib);
// Null is ignored.
void tarn_free_req_handle(tarn_req *request);

// Sends a request and waits up to `wait_s` seconds for the response, copied terminated and as far
// as it fits. 0, or -1: no response in time, a bad argument, or a source that is not our process.
// Never on the thread that delivers the responses.
int tarn_transfer(tarn_req *request, int source, int destination, const char *text, char *response,
                  size_t response_size, int wait_s);

// Sends an event, once. `value` has no effect. 0, or -1 when it could not be sent.
int tarn_event_transfer(tarn_req *request, int source, int destination, const char *text,
                        int value);

// 0 and the type when the topic is exactly one of the four above and addressed to us; else
// non-zero and `type` untouched.
int get_tarn_message_type(tarn_lib *lib, const char *topic, int *type);

// The request that this topic answers, once, or null. What is not null goes to
// tarn_complete_transfer, which may come as late as it likes.
tarn_req *tarn_get_req_handle_using_topic(tarn_lib *lib, const char *topic);

// Hands the response to the transfer and gives the handle back. 0, or -1 when the transfer has
// given up in the meantime.
int tarn_complete_transfer(tarn_req *request, const char *payload);

// Answers the request that came on `request_topic`. 0, or -1.
int tarn_send_resp(tarn_lib *lib, const char *request_topic, const char *text);

// Acknowledges the event that came on `event_topic`. 0, or -1.
int tarn_event_ack(tarn_lib *lib, const char *event_topic);

// Sets the log to `level`, a JSON text with one of the five level words, and answers the request
// that came on `topic` with the level, or null for a level that is none. 0, or -1.
int tarn_handle_set_log_level_request(tarn_lib *lib, log_handle *log, const char *topic,
                                      json_t *level);
