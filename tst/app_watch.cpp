#include "app_watch.h"

#include <cerrno>
#include <ctime>
#include <pthread.h>

#include "app_lan.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "app_watch";

struct Watched {
    uint32_t serial;
    uint8_t state;     // of the last announcement
    bool acting;       // its action runs
    bool failed;       // its last action
    bool again;        // the last action, or the one that runs, was due to the one before
    bool came_back;    // during the action that runs
    uint64_t due;      // number of the announcement that made it due; 0: it is not
    AppInstall report; // of its last installation
};

struct Watch {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER; // guards all of it
    pthread_cond_t changed;
    Watched modems[MODEM_TABLE_SIZE];
    uint32_t count;
    uint64_t announcements;
};

Watch watch;

struct WatchGuard {
    WatchGuard() { pthread_mutex_lock(&watch.mutex); }
    ~WatchGuard() { pthread_mutex_unlock(&watch.mutex); }
    WatchGuard(const WatchGuard &) = delete;
    WatchGuard &operator=(const WatchGuard &) = delete;
};

// Null when there is none.
Watched *find_modem(uint32_t serial)
{
    for (uint32_t i = 0; i < watch.count; ++i) {
        if (watch.modems[i].serial == serial) {
            return &watch.modems[i];
        }
    }
    return nullptr;
}

void make_due(Watched *modem)
{
    if (modem->due == 0) {
        modem->due = watch.announcements;
    }
}

// The table of modems, which is as long, has taken it.
void add_modem(uint32_t serial, uint8_t state)
{
    if (watch.count == MODEM_TABLE_SIZE) {
        return;
    }
    Watched *modem = &watch.modems[watch.count++];
    *modem = {serial, state, false, false, false, false, 0, APP_INSTALL_NONE};
    make_due(modem);
}

void on_info(uint32_t serial, uint8_t state)
{
    const WatchGuard guard;
    ++watch.announcements;
    Watched *modem = find_modem(serial);
    if (modem == nullptr) {
        add_modem(serial, state);
    } else {
        const bool came_back = state == MODEM_STATE_READY && modem->state != MODEM_STATE_READY;
        modem->state = state;
        if (modem->acting) {
            modem->came_back |= came_back;
        } else if (came_back || modem->failed) {
            make_due(modem);
        }
    }
    pthread_cond_signal(&watch.changed);
}

void on_install(uint32_t serial, bool done)
{
    const WatchGuard guard;
    Watched *modem = find_modem(serial);
    if (modem != nullptr) {
        modem->report = done ? APP_INSTALL_OK : APP_INSTALL_KO;
        pthread_cond_signal(&watch.changed);
    }
}

constexpr LanWatcher WATCHER = {on_info, on_install};

timespec deadline_in(uint32_t seconds)
{
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(seconds);
    return deadline;
}

// Under the lock; false when the deadline has passed. Null: no limit.
bool wait_for_change(const timespec *deadline)
{
    if (deadline == nullptr) {
        pthread_cond_wait(&watch.changed, &watch.mutex);
        return true;
    }
    return pthread_cond_timedwait(&watch.changed, &watch.mutex, deadline) != ETIMEDOUT;
}

Watched *find_first_due()
{
    Watched *first = nullptr;
    for (uint32_t i = 0; i < watch.count; ++i) {
        Watched *modem = &watch.modems[i];
        if (modem->due != 0 && (first == nullptr || modem->due < first->due)) {
            first = modem;
        }
    }
    return first;
}

} // namespace

void app_watch_start()
{
    pthread_condattr_t monotonic;
    if (pthread_condattr_init(&monotonic) != 0 ||
        pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC) != 0 ||
        pthread_cond_init(&watch.changed, &monotonic) != 0) {
        vos_trace_fatal(MODULE, __LINE__, "Can't watch for modems");
    }
    pthread_condattr_destroy(&monotonic);
    lan_set_watcher(&WATCHER);
}

bool app_watch_wait_for_modem(uint32_t *serial, uint32_t seconds)
{
    const timespec deadline = deadline_in(seconds);
    const WatchGuard guard;
    for (;;) {
        Watched *first = watch.count != 0 ? &watch.modems[0] : nullptr;
        Watched *modem = *serial == 0 ? first : find_modem(*serial);
        if (modem != nullptr) {
            modem->report = APP_INSTALL_NONE;
            *serial = modem->serial;
            return true;
        }
        if (!wait_for_change(seconds != 0 ? &deadline : nullptr)) {
            return false;
        }
    }
}

uint32_t app_watch_take_due()
{
    const WatchGuard guard;
    Watched *modem = find_first_due();
    while (modem == nullptr) {
        wait_for_change(nullptr);
        modem = find_first_due();
    }
    modem->due = 0;
    modem->acting = true;
    return modem->serial;
}

void app_watch_end_action(uint32_t serial, bool done)
{
    const WatchGuard guard;
    Watched *modem = find_modem(serial);
    modem->acting = false;
    modem->failed = !done;
    modem->again = modem->came_back && !modem->again;
    modem->came_back = false;
    if (modem->again) {
        make_due(modem);
    }
}

AppInstall app_watch_wait_for_install(uint32_t serial, uint32_t seconds)
{
    const timespec deadline = deadline_in(seconds);
    const WatchGuard guard;
    const Watched *modem = find_modem(serial);
    while (modem->report == APP_INSTALL_NONE && wait_for_change(&deadline)) {
    }
    return modem->report;
}
