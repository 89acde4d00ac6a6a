#include "app_lan_state.h"

#include <cstring>

LanState lan_state;

ModemEntry *lan_slot_by_serial(uint32_t serial)
{
    for (ModemEntry &slot : lan_state.table) {
        if (slot.present == 1 && slot.serial_number == serial) {
            return &slot;
        }
    }
    return nullptr;
}

ModemEntry *lan_slot_by_addr(const coap_address_t *address)
{
    ModemEntry *last = nullptr;
    for (ModemEntry &slot : lan_state.table) {
        if (slot.present == 1 && coap_address_equals(&slot.address, address) != 0) {
            last = &slot;
        }
    }
    return last;
}

bool lan_copy_modem(uint32_t serial, ModemEntry *copy)
{
    const VosMutexGuard guard(lan_state.lan_modem);
    const ModemEntry *slot = lan_slot_by_serial(serial);
    if (slot != nullptr) {
        *copy = *slot;
    }
    return slot != nullptr;
}

int lan_get_modem(uint32_t *serial)
{
    const VosMutexGuard guard(lan_state.lan_modem);
    int result = -1;
    for (const ModemEntry &slot : lan_state.table) {
        if (slot.present == 1) {
            *serial = slot.serial_number; // the table fills from its end: the last is the oldest
            result = 1;
        }
    }
    return result;
}

int lan_count_modems()
{
    const VosMutexGuard guard(lan_state.lan_modem);
    int count = 0;
    for (const ModemEntry &slot : lan_state.table) {
        count += slot.present == 1 ? 1 : 0;
    }
    return count;
}

void lan_get_modem_table(ModemEntry *copy)
{
    const VosMutexGuard guard(lan_state.lan_modem);
    memcpy(copy, lan_state.table, sizeof lan_state.table);
}

uint32_t lan_find_modem_by_addr(const coap_address_t *address)
{
    const VosMutexGuard guard(lan_state.lan_modem);
    const ModemEntry *slot = lan_slot_by_addr(address);
    return slot != nullptr ? slot->serial_number : 0;
}
