// The modem side: the table of modems that announced themselves, the two tasks that digest what
// modems send, and the requests to a modem.
//
// Results are 1 for success and -1 for failure unless a call says otherwise. Requests run on the
// caller's thread and block until the exchange has ended, at most 20 seconds each; one thread at a
// time makes them. A failed exchange is reported where it fails (coap_client.h).
//
// Locks: lan (start-up), lan_modem (the table), stats (the counters). No two of them are held at
// once; memory and mailbox locks may be taken inside one, never the other way round.

#ifndef APP_LAN_H
#define APP_LAN_H

#include <coap3/coap.h>
#include <cstdint>

#include "lan_protocol.h"
#include "vos_task_linux.h"

constexpr uint32_t MODEM_TABLE_SIZE = 5;

// Counters of one receiver of a modem, as the modem reports them.
struct ModemStats {
    uint16_t first;
    uint16_t second;
    uint8_t bytes[3];
    uint8_t last;
};

// A modem that announced itself. A slot's fields change only under lan_modem; slots never move
// and are never freed again.
struct ModemEntry { // NOLINT(clang-analyzer-optin.performance.Padding): in the order of its use
    coap_address_t address; // where the last info came from
    uint8_t present;        // 1 while the slot holds a modem
    uint32_t info_time;     // last accepted info, seconds since the epoch
    uint32_t stats_time;    // last statistics, seconds since the epoch
    char fw_name[50];       // name of the last firmware upgrade
    char fw_file_name[100]; // file placed for it, relative to the firmware directory
    ModemStats stats[LAN_MAX_RF_RECEIVERS];
    uint32_t serial_number;
    uint32_t protocol;
    uint32_t tmsp; // the modem's own time stamp
    uint16_t hw_ver;
    uint16_t sw_ver; // versions: high byte major, low byte minor
    uint8_t type;
    uint8_t location;
    uint8_t state;          // MODEM_STATE_READY, MODEM_STATE_RUNNING or a value unknown here
    uint8_t previous_state; // 0 in a new entry
    uint8_t wakeup;
    uint8_t rf_receiver_count;
    uint8_t rf_receivers[LAN_MAX_RF_RECEIVERS];
};

using ModemTable = ModemEntry[MODEM_TABLE_SIZE];

enum LanMsgType : uint32_t {
    LAN_MSG_STOP = 0,
    LAN_MSG_RX_FRAME = 1,
    LAN_MSG_INFO = 2,
    LAN_MSG_FW_INSTALL = 3,
    LAN_MSG_STATS = 4,
    LAN_MSG_PARAM = 5,
};

// What a LAN task gets: it owns the message and its payload and frees both.
struct LanMsg {
    uint32_t type;
    uint8_t *payload; // null when length is 0
    uint32_t length;
    coap_address_t from;
};

// Who wants to know what _lan_modem_task made of a message; called there, once it is printed, with
// no lock held. Must not wait.
struct LanWatcher {
    void (*info)(uint32_t serial, uint8_t state); // an info of a modem of the table
    void (*install)(uint32_t serial, bool done);  // the report of a firmware installation
};

// Start-up. Creates the mutexes, clears table and counters and starts the two tasks and the thread
// that runs the CoAP server; once, from main, before any other call of this header but
// lan_set_watcher. Always 1.
int lan_start();

// The same without the server: nothing is heard but the answers to requests.
int lan_start_tasks();

// Before lan_start: has a server that can't be started end the process, with a FATAL line. Without
// it the tool goes on, deaf.
void lan_require_server();

// Before lan_start; the watcher stays the caller's.
void lan_set_watcher(const LanWatcher *watcher);

// Blocks until the two tasks have digested all that was posted before the call. One thread at a
// time.
void lan_drain();

// From here on lan_post_msg takes nothing more, so that a last lan_drain leaves nothing behind.
void lan_close();

// Asks the server thread to end; it does within its 2-second turn. Always 1.
int lan_stop();

// Copies sender and payload into a LanMsg and posts it to the task that digests its type. 1, or 0
// when the message was not taken (the mailbox is full, 16 MiB wait already, memory is out, or after
// lan_close): nothing is kept then.
// Any thread; never waits for the task.
int lan_post_msg(uint32_t type, const coap_address_t *from, const uint8_t *payload,
                 uint32_t length);

// The table. Each call takes lan_modem itself; any thread.

// Serial number of the modem that registered first. 1, or -1 (the variable untouched) without one.
int lan_get_modem(uint32_t *serial);
int lan_count_modems(); // number of known modems

// Copies all slots, the empty ones too; copy is an array of MODEM_TABLE_SIZE entries.
void lan_get_modem_table(ModemEntry *copy);

// Serial number of the modem whose last info came from that address and port; 0 when none.
uint32_t lan_find_modem_by_addr(const coap_address_t *address);

// Handlers, called by the LAN tasks with the sender and a payload that is theirs only during the
// call. They trace what they make of it. A payload may be of any length and content.
int lan_handle_rx_msg(const coap_address_t *from, const uint8_t *payload, uint32_t length);
int lan_handle_info(const coap_address_t *from, const uint8_t *payload, uint32_t length);
int lan_handle_fw_install(const coap_address_t *from, const uint8_t *payload, uint32_t length);
int lan_handle_stats(const coap_address_t *from, const uint8_t *payload, uint32_t length);
int lan_handle_param(const coap_address_t *from, const uint8_t *payload, uint32_t length);

constexpr uint32_t LAN_ENDPOINT_SIZE = 26; // "2d 2c / 78 56 34 12 01 07" and the NUL

// Writes the endpoint of a wireless M-Bus frame (manufacturer / identification, version, device
// type) into text, of LAN_ENDPOINT_SIZE characters, and returns text. A frame of fewer than 10
// bytes gives the part of the endpoint that is there.
char *lan_format_endpoint(const uint8_t *data, uint32_t length, char *text);

// Task entries: run until they receive a LAN_MSG_STOP, which they leave to its sender.
uint32_t _lan_itf_task(VosTask *task, uintptr_t argument);
uint32_t _lan_modem_task(VosTask *task, uintptr_t argument);

// How the requests of an action went. One counts as answered with a code of class 2; one that was
// not made for want of memory counts as a request.
struct LanOutcome {
    uint32_t requests;
    uint32_t answered;
};

// Begins a new account. With stop_at_failure a request that isn't answered is the last one: those
// behind it are not sent, and count for nothing. Calling thread of the requests, as
// lan_get_outcome.
void lan_begin_action(bool stop_at_failure);
LanOutcome lan_get_outcome();

// Asks whoever is at the address, whose port is not looked at, for its info; the answer is digested
// by _lan_modem_task, which registers the modem. The last response code, as below.
uint32_t lan_request_info(const coap_address_t *address);

// Requests to the modem with that serial number. Without such a modem nothing is sent and nothing
// traced.

int lan_command(uint32_t serial, uint32_t command); // the low 8 bits are sent; -1: no such modem

// configuration: pairs of radio mode and channel, one pair a receiver. -1: no such modem.
int lan_rx_mode_config(uint32_t serial, const uint8_t *configuration, uint32_t length);

// Has the modem transmit a frame at a time (0: at once).
void lan_tx_frame(uint32_t serial, uint32_t sec, uint16_t msec, uint32_t mode, uint8_t channel,
                  uint32_t type, uint8_t power, const uint8_t *frame, uint32_t length);

// value: at most LAN_PARAM_MAX_SIZE - 3 bytes; more are refused with an ERROR line and -1.
int lan_set_param(uint32_t serial, uint16_t id, const uint8_t *value, uint32_t length);

int lan_get_param(uint32_t serial, uint16_t id); // the answer is printed by _lan_modem_task

// Asks every known modem in slot order, holding lan_modem until the last exchange has ended; the
// answers are stored by _lan_modem_task after that.
int lan_request_statistics(uint8_t value);

// Requests to a modem given by its entry, a slot or a copy of one. Results are the last response
// code (class * 32 + detail), 0 when none came.

uint32_t lan_send_command(const ModemEntry *modem, uint32_t command);
uint32_t lan_rx_mode_off(const ModemEntry *modem);
uint32_t lan_request_log(const ModemEntry *modem);
void lan_send_tx_msg(const ModemEntry *modem, uint32_t sec, uint16_t msec, uint32_t mode,
                     uint8_t channel, uint32_t type, uint8_t power, const uint8_t *frame,
                     uint32_t length);

// buffer: a whole tx frame payload, of which the first six bytes are overwritten with the time.
// A buffer that has no room for them is refused with an ERROR line and 0.
uint32_t lan_send_tx_prepared(const ModemEntry *modem, uint32_t sec, uint16_t msec, uint8_t *buffer,
                              uint32_t length);

// The fields of an extended transmission, by their number in the call's argument list.
struct LanTxExt {
    uint32_t arg1;
    uint16_t arg2;
    uint32_t arg3;
    uint32_t arg4;
    uint8_t arg5;
    uint8_t arg6;
    uint32_t arg7;
    uint8_t arg8;
    uint8_t arg9;
    uint16_t arg10;
    uint8_t arg11;
    uint16_t arg12;
    uint8_t arg13;
    uint8_t arg14;
};

void lan_send_tx_msg_ext(const ModemEntry *modem, const LanTxExt *args, const uint8_t *string_b,
                         uint16_t length_b, const uint8_t *string_a, uint8_t length_a);

// Tx frame requests made since the start.
uint32_t lan_get_tx_count();

// Moves the firmware file at path (absolute) to the firmware directory, under the modem's serial
// number, and tells the modem its size; name is kept with the modem for the report of the outcome.
// The file given is consumed: it is moved, or removed when the upgrade can't be done. The image of
// an earlier upgrade is replaced; before a copy (from another file system, or with keep) it is
// removed, once the file given is found to be readable. Changes the current directory of the
// process to the firmware directory. With keep the file given is copied instead, and stays whatever
// happens; it must not be the one in the place. 1 when the modem was asked (whatever it answered),
// -1 with an ERROR line.
int lan_fw_upgrade(uint32_t serial, const char *path, const char *name, bool keep);

// Sends the file at path in packets of packet_size bytes, each as a radio frame to transmit, with
// a pause of delay ticks after each. The file stays. 1 when every packet was sent, -1 with an
// ERROR line; after one that there was no memory for, the others are sent all the same.
int lan_download_file(uint32_t serial, const char *path, uint32_t packet_size, uint32_t delay);

#endif
