#include "app_lan_state.h"

#include <cerrno>
#include <cstring>
#include <iterator>
#include <unistd.h>

#include "lan_cursor.h"
#include "vos_trace.h"
#include "vos_util.h"

namespace
{

constexpr char MODULE[] = "app_lan";
constexpr uint32_t INFO_MIN_SIZE = 19;
constexpr uint32_t STATS_MIN_SIZE = 54;
constexpr size_t ADDRESS_TEXT_SIZE = 26;
constexpr uint8_t FW_INSTALLED = 1;

struct RxHeader {
    uint32_t freq;
    uint32_t rtc_seconds;
    uint16_t rtc_milliseconds;
    int16_t freq_offset;
    uint16_t data_length;
    uint8_t rssi;
    uint8_t rf_mod;
    uint8_t rf_receiver;
};

RxHeader read_rx_header(LanReader *reader)
{
    RxHeader header{};
    header.freq = lan_read_u32(reader);
    header.rtc_seconds = lan_read_u32(reader);
    header.rtc_milliseconds = lan_read_u16(reader);
    header.freq_offset = static_cast<int16_t>(lan_read_u16(reader));
    header.data_length = lan_read_u16(reader);
    header.rssi = lan_read_u8(reader);
    header.rf_mod = lan_read_u8(reader);
    header.rf_receiver = lan_read_u8(reader);
    return header;
}

uint32_t limit_receivers(uint32_t count)
{
    if (count > LAN_MAX_RF_RECEIVERS) {
        vos_trace_error(MODULE, __LINE__, "Too much receiver channel :%d", count);
        return LAN_MAX_RF_RECEIVERS;
    }
    return count;
}

// Everything of an info but the protocol, which the caller has read already.
void read_info(LanReader *reader, ModemEntry *modem)
{
    modem->serial_number = lan_read_u32(reader);
    modem->tmsp = lan_read_u32(reader);
    modem->hw_ver = lan_read_u16(reader);
    modem->sw_ver = lan_read_u16(reader);
    modem->type = lan_read_u8(reader);
    modem->location = lan_read_u8(reader);
    modem->state = lan_read_u8(reader);
    modem->wakeup = lan_read_u8(reader);
    // A receiver whose byte did not arrive does not count.
    uint32_t count = 0;
    const uint8_t *receivers = lan_take(reader, limit_receivers(lan_read_u8(reader)), &count);
    if (count != 0) {
        memcpy(modem->rf_receivers, receivers, count);
    }
    modem->rf_receiver_count = static_cast<uint8_t>(count);
}

void trace_info(const ModemEntry *modem)
{
    const uint8_t *rf = modem->rf_receivers;
    vos_trace_info("Modem INFO :protocol:%d, serial number:%x, tmsp:%d, hw_ver:%d.%d, "
                   "sw_ver:%d.%d, type:%d, location:%d, state:%d, wakeup:%d, nb RF receiver:%d, "
                   "RF:%x/%x/%x/%x/%x/%x/%x",
                   modem->protocol, modem->serial_number, modem->tmsp, modem->hw_ver >> 8,
                   modem->hw_ver & 0xFF, modem->sw_ver >> 8, modem->sw_ver & 0xFF, modem->type,
                   modem->location, modem->state, modem->wakeup, modem->rf_receiver_count, rf[0],
                   rf[1], rf[2], rf[3], rf[4], rf[5], rf[6]);
}

// A known modem keeps its previous state, firmware names and statistics.
void refresh_slot(ModemEntry *slot, const ModemEntry *info)
{
    ModemEntry refreshed = *info;
    refreshed.stats_time = slot->stats_time;
    memcpy(refreshed.fw_name, slot->fw_name, sizeof refreshed.fw_name);
    memcpy(refreshed.fw_file_name, slot->fw_file_name, sizeof refreshed.fw_file_name);
    memcpy(refreshed.stats, slot->stats, sizeof refreshed.stats);
    refreshed.previous_state = slot->previous_state;
    *slot = refreshed;
}

// The table fills from its end. Null when it is full.
ModemEntry *register_modem(const ModemEntry *info)
{
    char address[ADDRESS_TEXT_SIZE] = "";
    coap_print_addr(&info->address, reinterpret_cast<unsigned char *>(address), sizeof address);
    vos_trace_info("New modem detected %x (IP:%s)", info->serial_number, address);

    for (uint32_t i = MODEM_TABLE_SIZE; i-- > 0;) {
        ModemEntry *slot = &lan_state.table[i];
        if (slot->present == 0) {
            vos_trace_info("Register new modem %x", info->serial_number);
            *slot = *info;
            return slot;
        }
    }
    vos_trace_error(MODULE, __LINE__, "No more place in modem list!!!!");
    return nullptr;
}

void report_state(ModemEntry *modem)
{
    const bool changed = modem->state != modem->previous_state;
    if (modem->state == MODEM_STATE_READY) {
        if (changed) {
            vos_trace_debug(MODULE, __LINE__, "Modem %x is in READY state", modem->serial_number);
        }
    } else if (modem->state == MODEM_STATE_RUNNING) {
        if (changed) {
            vos_trace_debug(MODULE, __LINE__, "Modem %x is in RUNNING state", modem->serial_number);
        }
    } else {
        vos_trace_error(MODULE, __LINE__, "Unsupported state %d for modem %x", modem->state,
                        modem->serial_number);
    }
    modem->previous_state = modem->state;
}

// False when the table is full.
bool enter_table(const ModemEntry *info)
{
    const VosMutexGuard guard(lan_state.lan_modem);
    ModemEntry *slot = lan_slot_by_serial(info->serial_number);
    if (slot != nullptr) {
        refresh_slot(slot, info);
    } else {
        slot = register_modem(info);
    }
    if (slot != nullptr) {
        report_state(slot);
    }
    return slot != nullptr;
}

// The four arrays follow each other, one element a receiver each; elements that did not arrive
// read as 0.
void read_stats(LanReader *reader, ModemStats *stats, uint32_t count)
{
    for (uint32_t k = 0; k < count; ++k) {
        stats[k].first = lan_read_u16(reader);
    }
    for (uint32_t k = 0; k < count; ++k) {
        stats[k].second = lan_read_u16(reader);
    }
    for (uint32_t k = 0; k < count; ++k) {
        for (uint8_t &byte : stats[k].bytes) {
            byte = lan_read_u8(reader);
        }
    }
    for (uint32_t k = 0; k < count; ++k) {
        stats[k].last = lan_read_u8(reader);
    }
}

// The current directory is the one where the upgrade placed the file. It may be gone already: by a
// report that comes again, say. Without an upgrade the slot holds the name of no file.
void remove_placed_firmware(const ModemEntry *modem)
{
    if (unlink(modem->fw_file_name) != 0 && errno != ENOENT) {
        vos_trace_error(MODULE, __LINE__, "Can't remove firmware file %s : %s", modem->fw_file_name,
                        strerror(errno));
    }
}

} // namespace

char *lan_format_endpoint(const uint8_t *data, uint32_t length, char *text)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    constexpr uint32_t FIRST = 2;
    constexpr uint32_t COUNT = 8;
    constexpr uint32_t MANUFACTURER_SIZE = 2;

    char *next = text;
    for (uint32_t i = 0; i < COUNT && FIRST + i < length; ++i) {
        if (i == MANUFACTURER_SIZE) {
            *next++ = ' ';
            *next++ = '/';
        }
        if (i != 0) {
            *next++ = ' ';
        }
        *next++ = DIGITS[data[FIRST + i] >> 4];
        *next++ = DIGITS[data[FIRST + i] & 15];
    }
    *next = '\0';
    return text;
}

int lan_handle_rx_msg(const coap_address_t *from, const uint8_t *payload, uint32_t length)
{
    if (payload == nullptr || length < LAN_RX_HEADER_SIZE) {
        vos_trace_error(MODULE, __LINE__, "Receive bad rx_msg, size:%d", length);
        return 1;
    }
    LanReader reader{payload, length};
    const RxHeader header = read_rx_header(&reader);
    vos_trace_debug(MODULE, __LINE__,
                    "\n################\n PACKET RECEIVED \n################\n RTC:%d,%03d, "
                    "FREQ:%d, RSSI:-%d, FREQ_OFFSET:%d, RF_MOD:%d, RF_RECEIVER:%d",
                    header.rtc_seconds, header.rtc_milliseconds, header.freq, header.rssi,
                    header.freq_offset, header.rf_mod, header.rf_receiver);
    if (length == LAN_RX_HEADER_SIZE) {
        vos_trace_error(MODULE, __LINE__, "Receive bad rx_msg, size:%d", length);
        return 1;
    }
    vos_trace_debug(MODULE, __LINE__, "WMBUS Data len : %d", header.data_length);
    uint32_t data_length = 0;
    const uint8_t *data = lan_take(&reader, header.data_length, &data_length);
    if (data_length < header.data_length) {
        vos_trace_warning(MODULE, __LINE__, "WMBUS Data cut, announced:%d received:%d",
                          header.data_length, data_length);
    }
    vos_trace_dump(MODULE, __LINE__, data, data_length);

    char endpoint[LAN_ENDPOINT_SIZE];
    vos_trace_debug(MODULE, __LINE__, "Receive RF frame from EndPoint [%s] on modem [%x]",
                    lan_format_endpoint(data, data_length, endpoint), lan_find_modem_by_addr(from));
    vos_trace_debug(MODULE, __LINE__, "\n################\n################");
    return 1;
}

int lan_handle_info(const coap_address_t *from, const uint8_t *payload, uint32_t length)
{
    if (payload == nullptr || length < INFO_MIN_SIZE) {
        vos_trace_error(MODULE, __LINE__, "Malformed info msg");
        return -1;
    }
    LanReader reader{payload, length};
    ModemEntry info{};
    info.present = 1;
    info.address = *from;
    info.info_time = vos_util_get_time();
    info.protocol = lan_read_u32(&reader);
    if (info.protocol != LAN_PROTOCOL_VERSION) {
        vos_trace_error(MODULE, __LINE__, "Not supported LAN protocol version:%d", info.protocol);
        return -1;
    }
    read_info(&reader, &info);
    trace_info(&info);
    if (!enter_table(&info)) {
        return -1;
    }
    if (lan_state.watcher != nullptr) {
        lan_state.watcher->info(info.serial_number, info.state);
    }
    return 1;
}

int lan_handle_fw_install(const coap_address_t *from, const uint8_t *payload, uint32_t length)
{
    if (payload == nullptr || length == 0) {
        vos_trace_error(MODULE, __LINE__, "Malformed fw install ind msg");
        return -1;
    }
    LanReader reader{payload, length};
    const uint8_t result = lan_read_u8(&reader);
    char name[sizeof ModemEntry::fw_name];
    uint32_t serial = 0;
    {
        const VosMutexGuard guard(lan_state.lan_modem);
        const ModemEntry *slot = lan_slot_by_addr(from);
        if (slot == nullptr) {
            vos_trace_error(MODULE, __LINE__, "Firmware install of an unknown modem");
            return -1;
        }
        serial = slot->serial_number;
        memcpy(name, slot->fw_name, sizeof name);
        remove_placed_firmware(slot);
    }
    vos_trace_debug(MODULE, __LINE__, "Firmware install (name:%s) of modem %x is %s ", name, serial,
                    result == FW_INSTALLED ? "OK" : "KO");
    if (lan_state.watcher != nullptr) {
        lan_state.watcher->install(serial, result == FW_INSTALLED);
    }
    return 1;
}

int lan_handle_stats(const coap_address_t *from, const uint8_t *payload, uint32_t length)
{
    if (payload == nullptr || length < STATS_MIN_SIZE) {
        vos_trace_error(MODULE, __LINE__, "Malformed stats msg");
        return -1;
    }
    LanReader reader{payload, length};
    lan_read_u8(&reader);
    ModemStats stats[LAN_MAX_RF_RECEIVERS] = {};
    read_stats(&reader, stats, limit_receivers(lan_read_u8(&reader)));

    const VosMutexGuard guard(lan_state.lan_modem);
    ModemEntry *slot = lan_slot_by_addr(from);
    if (slot == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Statistics of an unknown modem");
        return -1;
    }
    vos_trace_debug(MODULE, __LINE__, "Update statistics of Modem %x", slot->serial_number);
    slot->stats_time = vos_util_get_time();
    memcpy(slot->stats, stats, sizeof stats);
    return 1;
}

int lan_handle_param(const coap_address_t * /*from*/, const uint8_t *payload, uint32_t length)
{
    if (payload == nullptr || length < LAN_PARAM_HEADER_SIZE) {
        vos_trace_error(MODULE, __LINE__, "Malformed param msg");
        return -1;
    }
    LanReader reader{payload, length};
    const uint16_t id = lan_read_u16(&reader);
    const uint8_t announced = lan_read_u8(&reader);
    vos_trace_info("Param req : 0x%x len:%d, value:", id, announced);
    uint32_t value_length = 0;
    const uint8_t *value = lan_take(&reader, announced, &value_length);
    if (value_length < announced) {
        vos_trace_warning(MODULE, __LINE__, "Param value cut, announced:%d received:%d", announced,
                          value_length);
    }
    vos_trace_dump(MODULE, __LINE__, value, value_length);
    return 1;
}
