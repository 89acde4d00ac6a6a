#include "sim_faults.h"

#include "sim_log.h"

#include <algorithm>

namespace sim
{

namespace
{

struct InfoLayout {
    static constexpr size_t STATE = 18;
    static constexpr size_t RECEIVER_COUNT = 20;
};

struct FrameReportLayout {
    static constexpr size_t DATA_LENGTH = 12;
    static constexpr size_t HEADER_SIZE = 17;
    static constexpr size_t ADDRESS_END = HEADER_SIZE + 10;
};

Bytes cut(const Bytes &bytes, size_t size)
{
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(std::min(size, bytes.size()))};
}

// The bytes with those at offset replaced, as far as they reach.
Bytes with_bytes(Bytes bytes, size_t offset, const Bytes &replacement)
{
    for (size_t i = 0; i < replacement.size() && offset + i < bytes.size(); ++i) {
        bytes[offset + i] = replacement[i];
    }
    return bytes;
}

Bytes spoil_statistics(const Bytes &statistics, unsigned turn)
{
    switch (turn % 4) {
    case 0:
        return cut(statistics, 53);
    case 1: // seven receivers take 58 bytes
        return cut(with_bytes(statistics, 1, {7}), 54);
    case 2:
        return with_bytes(statistics, 1, {200});
    default:
        return cut(statistics, 1);
    }
}

Bytes spoil_parameter(const Bytes &parameter, unsigned turn)
{
    switch (turn % 4) {
    case 0:
        return with_bytes(parameter, 2, {255});
    case 1:
        return cut(parameter, 2);
    case 2:
        return cut(parameter, parameter.size() - 1);
    default:
        return cut(parameter, 1);
    }
}

} // namespace

Answer text_answer(coap_pdu_code_t code, std::string_view text)
{
    text = text.substr(0, ANSWER_TEXT_MAX);
    return {code, Bytes(text.begin(), text.end())};
}

std::string code_text(unsigned code)
{
    return make_text("%u.%02u", code >> 5, code & 0x1F);
}

const char *fault_name(Fault fault)
{
    constexpr const char *NAMES[] = {"none",  "lost",  "late",     "separate",
                                     "reset", "error", "malformed"};
    return NAMES[static_cast<size_t>(fault)];
}

Fault FaultCounter::next()
{
    const bool spent = m_plan.limit != 0 && m_faults == m_plan.limit;
    if (m_plan.fault == Fault::none || spent || ++m_requests % m_plan.every != 0) {
        return Fault::none;
    }
    ++m_faults;
    return m_plan.fault;
}

Answer spoil_answer(std::string_view resource, const Answer &answer, unsigned turn)
{
    if (answer.code != COAP_RESPONSE_CODE_CONTENT || answer.payload.empty()) {
        return {answer.code, Bytes{0xFF, 0xFF, 0x00, 0x80, 0x7F}};
    }
    if (resource == "info_req") {
        return {answer.code, spoil_info(answer.payload, turn)};
    }
    if (resource == "statistics_req") {
        return {answer.code, spoil_statistics(answer.payload, turn)};
    }
    if (resource == "config_get_param_req") {
        return {answer.code, spoil_parameter(answer.payload, turn)};
    }
    return {answer.code, Bytes{0x00, 0xFF, 0xFE, 0x1B}};
}

Bytes spoil_info(const Bytes &info, unsigned turn)
{
    switch (turn % 6) {
    case 0:
        return cut(info, InfoLayout::STATE);
    case 1:
        return with_bytes(info, InfoLayout::RECEIVER_COUNT, {200});
    case 2: // ends before the receivers it announces
        return cut(with_bytes(info, InfoLayout::RECEIVER_COUNT, {7}), 22);
    case 3:
        return cut(info, InfoLayout::RECEIVER_COUNT - 1);
    case 4: // a protocol version of the future
        return with_bytes(info, 0, {2});
    default:
        return {};
    }
}

Bytes spoil_frame_report(const Bytes &report, unsigned turn)
{
    switch (turn % 6) {
    case 0:
        return with_bytes(report, FrameReportLayout::DATA_LENGTH, {0xFF, 0xFF});
    case 1:
        return cut(report, FrameReportLayout::HEADER_SIZE);
    case 2:
        return with_bytes(report, FrameReportLayout::DATA_LENGTH, {1, 0});
    case 3: // ends within the endpoint's address
        return cut(report, FrameReportLayout::ADDRESS_END - 4);
    case 4:
        return cut(report, FrameReportLayout::HEADER_SIZE - 1);
    default:
        return {};
    }
}

} // namespace sim
