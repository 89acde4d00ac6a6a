#include "wmbusctl_frames_unique.h"

#include <bit>
#include <cerrno>
#include <cstring>
#include <sys/random.h>

namespace frames
{

namespace
{

constexpr uint32_t NONE = UINT32_MAX;
constexpr uint64_t SPREAD = 0x9E3779B97F4A7C15;
static_assert(std::has_single_bit(UNIQUE_CHAINS));

struct State {
    uint64_t v[4];
};

void mix(State &state)
{
    auto &[a, b, c, d] = state.v;
    a += b;
    b = std::rotl(b, 13) ^ a;
    a = std::rotl(a, 32);
    c += d;
    d = std::rotl(d, 16) ^ c;
    a += d;
    d = std::rotl(d, 21) ^ a;
    c += b;
    b = std::rotl(b, 17) ^ c;
    c = std::rotl(c, 32);
}

// SipHash-2-4.
uint64_t hash_of(const uint64_t (&key)[2], const uint8_t *bytes, size_t size)
{
    State state{{key[0] ^ 0x736F6D6570736575, key[1] ^ 0x646F72616E646F6D,
                 key[0] ^ 0x6C7967656E657261, key[1] ^ 0x7465646279746573}};
    for (size_t at = 0; at <= size; at += 8) {
        uint8_t block[8] = {};
        const size_t left = size - at;
        memcpy(block, bytes + at, left < 8 ? left : 8);
        if (left < 8) {
            block[7] = static_cast<uint8_t>(size);
        }
        uint64_t word = 0;
        for (unsigned i = 0; i < 8; ++i) {
            word |= uint64_t{block[i]} << 8 * i;
        }
        state.v[3] ^= word;
        mix(state);
        mix(state);
        state.v[0] ^= word;
    }
    state.v[2] ^= 0xFF;
    for (int i = 0; i < 4; ++i) {
        mix(state);
    }
    return state.v[0] ^ state.v[1] ^ state.v[2] ^ state.v[3];
}

uint32_t distance(uint32_t a, uint32_t b)
{
    return a < b ? b - a : a - b;
}

// Each span has chains of its own, and none holds a frame twice: so they are short, whatever comes.
uint32_t &chain_of(Unique &unique, uint64_t hash, uint64_t span_number)
{
    return unique.chains[(hash + span_number * SPREAD) >> 32 & (UNIQUE_CHAINS - 1)];
}

bool is_known(Unique &unique, uint64_t hash, uint32_t seconds)
{
    const uint64_t span_number = seconds / unique.span;
    for (uint64_t number = span_number - 1; number != span_number + 2; ++number) {
        for (uint32_t at = chain_of(unique, hash, number); at != NONE;) {
            const Unique::Entry &entry = unique.entries[at];
            if (entry.hash == hash && distance(entry.seconds, seconds) <= unique.span) {
                return true;
            }
            at = entry.next;
        }
    }
    return false;
}

void forget(Unique &unique, uint32_t at, uint32_t now)
{
    const Unique::Entry &entry = unique.entries[at];
    uint32_t *link = &chain_of(unique, entry.hash, entry.seconds / unique.span);
    while (*link != at) {
        link = &unique.entries[*link].next;
    }
    *link = entry.next;
    unique.forgotten += distance(entry.seconds, now) <= unique.span;
}

void remember(Unique &unique, uint64_t hash, uint32_t seconds)
{
    const size_t at = unique.oldest;
    if (unique.entries.size() == UNIQUE_MAX) {
        forget(unique, static_cast<uint32_t>(at), seconds);
    } else {
        unique.entries.emplace_back();
    }
    uint32_t &chain = chain_of(unique, hash, seconds / unique.span);
    unique.entries[at] = {hash, seconds, chain};
    chain = static_cast<uint32_t>(at);
    unique.oldest = (at + 1) % UNIQUE_MAX;
}

} // namespace

bool prepare_unique(Unique &unique, uint32_t span)
{
    unique.span = span;
    unique.entries.reserve(UNIQUE_MAX);
    unique.chains.assign(UNIQUE_CHAINS, NONE);
    ssize_t got = 0;
    do {
        got = getrandom(unique.key, sizeof unique.key, 0);
    } while (got < 0 && errno == EINTR);
    return got == ssize_t{sizeof unique.key};
}

bool is_new(Unique &unique, const Frame &frame)
{
    const uint64_t hash = hash_of(unique.key, frame.bytes, frame.size);
    const bool by_gateway = frame.received >= 0 && frame.received <= int64_t{UINT32_MAX};
    const uint32_t seconds = by_gateway ? static_cast<uint32_t>(frame.received) : frame.seconds;
    if (is_known(unique, hash, seconds)) {
        ++unique.left_out;
        return false;
    }
    remember(unique, hash, seconds);
    return true;
}

} // namespace frames
