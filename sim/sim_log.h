// The simulator's own log: one line an event on standard error, written with one write.
//
//   20:41:28.093 a1b2c3 command_req 2: started

#ifndef SIM_LOG_H
#define SIM_LOG_H

#include <string>

#define SIM_PRINTF_LIKE(at, first) __attribute__((format(printf, at, first)))

namespace sim
{

// Lets log_detail through from now on.
void log_set_verbose(bool verbose);

// Writes a line with the UTC time and who it is about: a modem's serial number, or "sim".
// Control characters become '?', a text over about 1000 characters is cut.
void log_event(const std::string &who, const char *format, ...) SIM_PRINTF_LIKE(2, 3);

// The same for what is of interest only now and then: written in verbose mode alone.
void log_detail(const std::string &who, const char *format, ...) SIM_PRINTF_LIKE(2, 3);

// A text made the printf way, cut at about 1000 characters.
std::string make_text(const char *format, ...) SIM_PRINTF_LIKE(1, 2);

} // namespace sim

#endif
