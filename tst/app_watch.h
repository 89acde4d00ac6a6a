// Watches what modems announce, for the main thread to wait for: which modem is there, which is due
// for the action of --all, how an installation ended.
//
// _lan_modem_task tells of each announcement and report; one thread waits. The lock of the watch is
// held for moments only; no other is taken inside it.

#ifndef APP_WATCH_H
#define APP_WATCH_H

#include <cstdint>

// Once, from main, before lan_start.
void app_watch_start();

// Blocks until the modem with the serial number, or any for 0, has announced itself, at most so
// many seconds (0: no limit), and stores which it is. False when the time passed, *serial
// untouched. What the modem reported of installations so far is forgotten.
bool app_watch_wait_for_modem(uint32_t *serial, uint32_t seconds);

// Blocks until a modem is due for the action, and takes it; the others stay due, in the order in
// which they became so. A modem becomes due
//   - by its first announcement,
//   - when it announces READY, and another state before,
//   - by the first announcement after an action that failed.
// An action may have the modem pass through READY by itself, so what it announces meanwhile makes
// it due again only once in a row: it may as well have started anew in the middle of the action.
uint32_t app_watch_take_due();

// The action on the modem that was taken has ended.
void app_watch_end_action(uint32_t serial, bool done);

enum AppInstall { APP_INSTALL_NONE, APP_INSTALL_OK, APP_INSTALL_KO };

// Blocks until the modem has reported how its installation ended, at most so many seconds.
AppInstall app_watch_wait_for_install(uint32_t serial, uint32_t seconds);

#endif
