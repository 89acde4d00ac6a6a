// The least program that could do the receiving: one PUT resource of the CoAP library, whose
// payload is copied into a queue, and a second thread that writes six constant lines for each.
// Errors end it; it checks nothing else.

#include <coap3/coap.h>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

namespace
{

struct Message {
    Message *next;
    size_t length;
    uint8_t payload[1400];
};

constexpr size_t LINES = 6;
constexpr size_t LINE_SIZE = 100;

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t arrived = PTHREAD_COND_INITIALIZER;
Message *head;
Message **tail = &head;

void post(const uint8_t *payload, size_t length)
{
    auto *message = static_cast<Message *>(malloc(offsetof(Message, payload) + length));
    if (message == nullptr) {
        abort();
    }
    message->next = nullptr;
    message->length = length;
    memcpy(message->payload, payload, length);
    pthread_mutex_lock(&mutex);
    *tail = message;
    tail = &message->next;
    pthread_cond_signal(&arrived);
    pthread_mutex_unlock(&mutex);
}

Message *take()
{
    pthread_mutex_lock(&mutex);
    while (head == nullptr) {
        pthread_cond_wait(&arrived, &mutex);
    }
    Message *message = head;
    head = message->next;
    if (head == nullptr) {
        tail = &head;
    }
    pthread_mutex_unlock(&mutex);
    return message;
}

void *print(void *)
{
    char line[LINE_SIZE];
    memset(line, '#', sizeof line);
    line[LINE_SIZE - 1] = '\n';
    for (;;) {
        free(take());
        for (size_t i = 0; i < LINES; ++i) {
            if (write(STDOUT_FILENO, line, sizeof line) < 0) {
                abort();
            }
        }
    }
}

void handle_put(coap_resource_t * /*resource*/, coap_session_t * /*session*/,
                const coap_pdu_t *request, const coap_string_t * /*query*/, coap_pdu_t *response)
{
    size_t length = 0;
    const uint8_t *data = nullptr;
    coap_get_data(request, &length, &data);
    if (length <= sizeof Message::payload) {
        post(data, length);
    }
    coap_pdu_set_code(response, COAP_RESPONSE_CODE_VALID);
}

} // namespace

int main()
{
    pthread_t printer{};
    if (pthread_create(&printer, nullptr, print, nullptr) != 0) {
        abort();
    }
    coap_address_t address;
    coap_address_init(&address);
    address.size = sizeof address.addr.sin;
    address.addr.sin.sin_family = AF_INET;
    coap_address_set_port(&address, COAP_DEFAULT_PORT);
    coap_context_t *context = coap_new_context(nullptr);
    if (context == nullptr || coap_new_endpoint(context, &address, COAP_PROTO_UDP) == nullptr) {
        abort();
    }
    coap_resource_t *resource = coap_resource_init(coap_make_str_const("rx_msg_req"), 0);
    coap_register_request_handler(resource, COAP_REQUEST_PUT, handle_put);
    coap_add_resource(context, resource);
    while (coap_io_process(context, COAP_IO_WAIT) >= 0) {
    }
    return EXIT_FAILURE;
}
