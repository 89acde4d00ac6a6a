// The action of a run, done to one modem.

#ifndef APP_ACTION_H
#define APP_ACTION_H

#include "app_options.h"

// Does what was asked for to the modem with that serial number; blocks until its last exchange has
// ended. True when it was done: a file it needs could be used, and every request was answered with
// a code of class 2. With all or once of the options, a request that isn't is the last one. The
// thread that makes the requests.
bool app_perform_action(uint32_t serial, const AppOptions *options);

#endif
