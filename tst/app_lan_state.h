// What the parts of app_lan share; nobody else includes this.

#ifndef APP_LAN_STATE_H
#define APP_LAN_STATE_H

#include "app_lan.h"
#include "vos_util_linux.h"

constexpr uint32_t LAN_COUNTER_TX_REQUESTS = 4;
constexpr uint32_t LAN_COUNTERS = 8;

struct LanState {
    VosMutex *lan;       // held by lan_start
    VosMutex *lan_modem; // guards table
    VosMutex *stats;     // guards counters
    ModemTable table;
    uint32_t counters[LAN_COUNTERS];
    VosTask *itf_task;
    VosTask *modem_task;
    VosTask *rx_thread;
    const LanWatcher *watcher; // null: nobody
    LanOutcome outcome;        // these two belong to the thread that makes the requests
    bool stop_at_failure;
};

extern LanState lan_state;

// Present slot with that serial number, or whose last info came from that address; null when none.
// The caller holds lan_modem.
ModemEntry *lan_slot_by_serial(uint32_t serial);
ModemEntry *lan_slot_by_addr(const coap_address_t *address);

// Copies the slot with that serial number under lan_modem; false when there is none. A copy, so
// that a request goes on with one address while an info refreshes the slot.
bool lan_copy_modem(uint32_t serial, ModemEntry *copy);

// Sends a request and accounts for it. The last response code, 0 also when it was left out.
uint32_t lan_send_request(const coap_address_t *address, const LanRequest &request,
                          const uint8_t *payload, uint32_t length);

// Whether the requests to come are left out.
bool lan_is_action_over();

// lan_send_tx_msg, which tells whether the request was made: false, with a trace, without memory.
bool lan_try_tx_msg(const ModemEntry *modem, uint32_t sec, uint16_t msec, uint32_t mode,
                    uint8_t channel, uint32_t type, uint8_t power, const uint8_t *frame,
                    uint32_t length);

#endif
