// What a timer's task is told. The calls are in vos_util.h; only they and the tests of the task
// include this.

#ifndef VOS_UTIL_TIMER_H
#define VOS_UTIL_TIMER_H

#include "vos_util.h"

constexpr uint32_t VOS_TIMER_STOP = 1;
constexpr uint32_t VOS_TIMER_RESTART = 2;
constexpr uint32_t VOS_TIMER_SUSPEND = 3;
constexpr uint32_t VOS_TIMER_CHANGE = 4;

struct VosTimerParams {
    VosTimer *timer; // cleared when the timer stops; null in a message
    uint8_t periodic;
    uint32_t period; // ticks, 0: never
    VosTimerCallback callback;
    uintptr_t argument;
};

struct VosTimerMsg {
    uint32_t kind;
    VosTimerParams params; // VOS_TIMER_CHANGE only: the other messages end before it
};

// Entry of a timer's task; argument is the address of a VosTimerParams block that it frees.
uint32_t vos_util_timer_task(VosTask *task, uintptr_t argument);

#endif
