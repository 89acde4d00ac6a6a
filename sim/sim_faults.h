// Faults on purpose: which answers go wrong and how, and payloads that lie.

#ifndef SIM_FAULTS_H
#define SIM_FAULTS_H

#include "sim_wire.h"

#include <coap3/coap.h>
#include <string>
#include <string_view>

namespace sim
{

struct Answer {
    coap_pdu_code_t code;
    Bytes payload;
};

// The longest text that goes into an answer.
constexpr size_t ANSWER_TEXT_MAX = 200;

// An answer whose payload is the text, as far as it goes in.
Answer text_answer(coap_pdu_code_t code, std::string_view text);

// A response code as people write it: "2.04".
std::string code_text(unsigned code);

enum class Fault { none, lost, late, separate, reset, error, malformed };

const char *fault_name(Fault fault);

// What the options ask for: the fault, for every every-th request, limit times (0: no limit).
struct FaultPlan {
    Fault fault = Fault::none;
    Milliseconds delay{0};
    Answer error{};
    uint32_t every = 1;
    uint32_t limit = 0;
};

// Goes through a plan, request by request.
class FaultCounter
{
public:
    explicit FaultCounter(const FaultPlan &plan) : m_plan(plan) {}

    const FaultPlan &plan() const { return m_plan; }

    // Counts one request; the fault it meets.
    Fault next();

private:
    FaultPlan m_plan;
    uint32_t m_requests = 0;
    uint32_t m_faults = 0;
};

// The answer with a payload that is too short or whose lengths lie; the variants take turns.
Answer spoil_answer(std::string_view resource, const Answer &answer, unsigned turn);

// The same for what a modem reports by itself.
Bytes spoil_info(const Bytes &info, unsigned turn);
Bytes spoil_frame_report(const Bytes &report, unsigned turn);

} // namespace sim

#endif
