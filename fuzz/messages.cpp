// Messages of several modems. The frames among them come back from what is traced.
#include "support.h"
#include "wmbusctl_frames_parse.h"

void fuzz(FuzzedDataProvider &&input)
{
    std::string received;
    while (input.remaining_bytes() != 0) {
        const auto type = input.ConsumeIntegralInRange<uint32_t>(LAN_MSG_RX_FRAME, LAN_MSG_PARAM);
        const coap_address_t from = modem_address(input.ConsumeIntegralInRange(0U, 7U));
        const auto bytes = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange(0U, 1400U));
        lan_post_msg(type, &from, bytes.data(), static_cast<uint32_t>(bytes.size()));
        run_task(type == LAN_MSG_RX_FRAME ? _lan_itf_task : _lan_modem_task);
        const size_t size = bytes.size() > LAN_RX_HEADER_SIZE ? 256U * bytes[13] + bytes[12] : 0;
        if (type == LAN_MSG_RX_FRAME && size != 0 && size <= bytes.size() - LAN_RX_HEADER_SIZE) {
            const uint8_t *frame = &bytes[LAN_RX_HEADER_SIZE];
            received.append(frame, frame + size) += std::to_string(lan_find_modem_by_addr(&from));
        }
        for (ModemEntry &slot : lan_state.table) { // an upgrade may begin at any time
            assert(slot.present == 0 || lan_slot_by_serial(slot.serial_number) == &slot);
            strcpy(slot.fw_file_name, "/proc/none");
        }
    }
    std::string found;
    frames::Parser parser([&found](const frames::Frame &frame) {
        found.append(frame.bytes, frame.bytes + frame.size) += std::to_string(frame.modem);
    });
    parser.feed(traced);
    assert(found == received && parser.counts().stray_lines == 0);
}
