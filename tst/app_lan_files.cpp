#include "app_lan_state.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "coap_client.h"
#include "coap_server.h"
#include "lan_cursor.h"
#include "vos_fs.h"
#include "vos_mem.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "app_lan";
constexpr char FIRMWARE_DIRECTORY[] = "/var/ftp/";
constexpr uint32_t PLACED_PATH_SIZE = 29;

constexpr uint32_t PACKET_RADIO_MODE = 16;
constexpr uint8_t PACKET_CHANNEL = 2;
constexpr uint32_t PACKET_TYPE = 0;
constexpr uint8_t PACKET_POWER = 27;

// Largest packet whose request goes out whole: a message less the CoAP header (4), the resource's
// name and its option byte, the payload marker (1) and the tx frame header.
constexpr uint32_t MAX_PACKET_SIZE =
    COAP_MAX_MESSAGE_SIZE - 4 - (1 + LAN_TX_MSG_REQ.name_length) - 1 - LAN_TX_HEADER_SIZE;

// 0 when nothing is there.
mode_t type_of(const char *path)
{
    struct statx status = {};
    const bool found = statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status) == 0;
    return found ? status.stx_mode & S_IFMT : 0;
}

void remove_entry(const char *path)
{
    if (unlink(path) != 0) {
        vos_trace_error(MODULE, __LINE__, "Can't remove file %s : %s", path, strerror(errno));
    }
}

// The file of an upgrade that can't be done is consumed too. It may be gone already; a device or a
// pipe named by mistake stays.
bool is_consumed(const char *path)
{
    const mode_t type = type_of(path);
    return type == S_IFREG || type == S_IFLNK;
}

void remove_file(const char *path)
{
    if (is_consumed(path)) {
        remove_entry(path);
    }
}

void consume(const char *path, bool keep)
{
    if (!keep) {
        remove_file(path);
    }
}

template<size_t N> void copy_cut(char (&field)[N], const char *text)
{
    snprintf(field, N, "%s", text);
}

// Notes the upgrade in the modem's slot before the modem is asked, so that a quick report of the
// outcome finds it. False without such a modem.
bool note_upgrade(uint32_t serial, const char *name, const char *file_name, ModemEntry *copy)
{
    const VosMutexGuard guard(lan_state.lan_modem);
    ModemEntry *slot = lan_slot_by_serial(serial);
    if (slot == nullptr) {
        return false;
    }
    copy_cut(slot->fw_name, name);
    copy_cut(slot->fw_file_name, file_name);
    *copy = *slot;
    return true;
}

void announce_firmware(const ModemEntry *modem, uint32_t size, const char *file_name)
{
    const auto name_length = static_cast<uint16_t>(strlen(file_name));
    uint8_t payload[4 + 2 + PLACED_PATH_SIZE];
    LanWriter writer{payload, sizeof payload, false};
    lan_write_u32(&writer, size);
    lan_write_u16(&writer, name_length);
    lan_write_bytes(&writer, file_name, name_length + 1U);
    lan_send_request(&modem->address, LAN_FIRMWARE_UPGRADE_REQ, payload,
                     sizeof payload - writer.room);
}

// Checks before the first packet that the file can go out in such packets.
bool can_download(const char *path, uint32_t packet_size)
{
    uint32_t size = 0;
    vos_fs_get_file_size(path, &size);
    if (size == 0) {
        vos_trace_error(MODULE, __LINE__, "Empty file for download(%s)", path);
        return false;
    }
    if (packet_size == 0 || size % packet_size != 0) {
        vos_trace_error(MODULE, __LINE__, "file not wellformed, size %d is not modulo %d ", size,
                        packet_size);
        return false;
    }
    if (packet_size > MAX_PACKET_SIZE) {
        vos_trace_error(MODULE, __LINE__, "packet size %u too large for a request, at most %u",
                        packet_size, MAX_PACKET_SIZE);
        return false;
    }
    return true;
}

// The modem is looked up for every packet: it may announce itself from another address meanwhile.
// False, with a trace, when one was left out; the others are sent.
bool send_packets(uint32_t serial, FILE *file, uint32_t packet_size, uint32_t delay)
{
    uint8_t packet[MAX_PACKET_SIZE];
    ModemEntry modem;
    uint16_t counter = 1;
    bool all = true;
    while (!lan_is_action_over() && fread(packet, 1, packet_size, file) == packet_size &&
           lan_copy_modem(serial, &modem)) {
        vos_trace_debug(MODULE, __LINE__, "Send packet n %d", counter);
        all &= lan_try_tx_msg(&modem, 0, 0, PACKET_RADIO_MODE, PACKET_CHANNEL, PACKET_TYPE,
                              PACKET_POWER, packet, packet_size);
        vos_util_sleep(delay);
        ++counter;
    }
    return all;
}

// The file that a link names is copied, and the link goes: moved itself, it would lead astray. It
// may lead through a link in the place, or be that one.
int copy_link(const char *path, const char *placed)
{
    char source[PATH_MAX];
    if (realpath(path, source) == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Can't follow link %s : %s", path, strerror(errno));
        return VOS_FS_FAILED;
    }
    if (type_of(placed) != S_IFREG) {
        unlink(placed);
    }
    const int result = vos_fs_copy_file(source, placed);
    if (result == VOS_FS_OK && type_of(path) == S_IFLNK) { // it was not the one in place
        remove_entry(path);
    }
    return result;
}

// Before a copy across file systems: there may be no room for the image of an earlier upgrade as
// well. It stays when the copy can't even begin. What is no image, a pipe, would be written to.
void remove_earlier(const char *path, const char *placed)
{
    FILE *source = vos_fs_fopen(path, "rb");
    if (source != nullptr) {
        unlink(placed);
    }
    vos_fs_fclose(&source);
}

// Leaves the process in the firmware directory. The system refuses to rename anything to ".", a
// link here, but says first when that would lead to another file system.
int move_firmware(const char *path, const char *placed)
{
    if (vos_fs_enter_dir(FIRMWARE_DIRECTORY) != VOS_FS_OK) {
        return VOS_FS_FAILED;
    }
    const bool is_link = type_of(path) == S_IFLNK;
    if (rename(path, is_link ? "." : placed) == 0) {
        return VOS_FS_OK;
    }
    const bool crosses = errno == EXDEV;
    const bool is_same = vos_fs_is_same_file(path, placed);
    if (is_same && type_of(placed) == S_IFREG) {
        if (is_link) {
            remove_entry(path);
        }
        return VOS_FS_OK;
    }
    if (is_link && (is_same || !crosses)) {
        return copy_link(path, placed);
    }
    if (crosses || type_of(placed) != S_IFREG) {
        remove_earlier(path, placed);
    }
    return vos_fs_move_file(path, placed);
}

// The file in place goes when its installation is reported, so it can't be the one that stays.
int copy_firmware(const char *path, const char *placed)
{
    if (vos_fs_enter_dir(FIRMWARE_DIRECTORY) != VOS_FS_OK) {
        return VOS_FS_FAILED;
    }
    if (vos_fs_is_same_file(path, placed)) {
        vos_trace_error(MODULE, __LINE__, "Can't keep %s : it is the file in place", path);
        return VOS_FS_FAILED;
    }
    remove_earlier(path, placed);
    return vos_fs_copy_file(path, placed);
}

// Size of the file once it is in its place: it may have changed since it was first looked at. 0,
// with a trace, when it can't be announced.
uint32_t place_firmware(const char *path, const char *placed, const char *name, bool keep)
{
    const int result = keep ? copy_firmware(path, placed) : move_firmware(path, placed);
    if (result != VOS_FS_OK) {
        vos_trace_error(MODULE, __LINE__, "Can not %s fw file %s to %s", keep ? "copy" : "move",
                        path, placed);
        if (type_of(placed) != S_IFREG) {
            consume(path, keep);
        } else if (!keep && is_consumed(path)) {
            unlink(path); // if that is what failed, it has been told
        }
        return 0;
    }
    uint32_t size = 0;
    vos_fs_get_file_size(placed, &size);
    if (size == 0) {
        vos_trace_error(MODULE, __LINE__, "Empty firmware for upgrade(%s), name:%s", placed, name);
        remove_file(placed);
        consume(path, keep);
    }
    return size;
}

} // namespace

int lan_fw_upgrade(uint32_t serial, const char *path, const char *name, bool keep)
{
    vos_trace_debug(MODULE, __LINE__, "Request fw upgrade of Modem %x (%s)", serial, path);
    uint32_t size = 0;
    vos_fs_get_file_size(path, &size);
    if (size == 0) {
        vos_trace_error(MODULE, __LINE__, "Empty firmware for upgrade(%s), name:%s", path, name);
        consume(path, keep);
        return -1;
    }
    char placed[PLACED_PATH_SIZE];
    snprintf(placed, sizeof placed, "%s%x", FIRMWARE_DIRECTORY, serial);
    size = place_firmware(path, placed, name, keep);
    if (size == 0) {
        return -1;
    }
    // The move has left the process in the firmware directory.
    const char *file_name = placed + strlen(FIRMWARE_DIRECTORY);
    ModemEntry modem;
    if (!note_upgrade(serial, name, file_name, &modem)) {
        vos_trace_error(MODULE, __LINE__, "No Modem %x for fw upgrade(%s), name:%s", serial,
                        file_name, name);
        remove_file(file_name);
        consume(path, keep);
        return -1;
    }
    vos_trace_debug(MODULE, __LINE__, "Request fw upgrade of Modem %x (%s), name:%s, size:%d",
                    serial, file_name, name, size);
    announce_firmware(&modem, size, file_name);
    return 1;
}

int lan_download_file(uint32_t serial, const char *path, uint32_t packet_size, uint32_t delay)
{
    vos_trace_debug(MODULE, __LINE__, "Request donwnload  file %s", path);
    if (!can_download(path, packet_size)) {
        return -1;
    }
    ModemEntry modem;
    if (!lan_copy_modem(serial, &modem)) {
        vos_trace_error(MODULE, __LINE__, "No Modem %x for fw download(%s)", serial, path);
        return -1;
    }
    FILE *file = vos_fs_fopen(path, "rb");
    if (file == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Can't open file for download(%s) : %s", path,
                        strerror(errno));
        return -1;
    }
    bool failed = !send_packets(serial, file, packet_size, delay);
    if (ferror(file) != 0) {
        failed = true;
        vos_trace_error(MODULE, __LINE__, "Can't read file for download(%s) : %s", path,
                        strerror(errno));
    }
    vos_fs_fclose(&file);
    return failed ? -1 : 1;
}
