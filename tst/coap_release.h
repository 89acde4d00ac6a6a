// Where the releases of the CoAP library differ in what they declare, by the names of the newest.
// Where they differ in what they do, coap_system.cpp has them do the same.

#ifndef COAP_RELEASE_H
#define COAP_RELEASE_H

#include <coap3/coap.h>

#if LIBCOAP_VERSION < 4003002U // has the log levels by the names of syslog only
constexpr coap_log_t COAP_LOG_EMERG = LOG_EMERG;
constexpr coap_log_t COAP_LOG_WARN = LOG_WARNING;
constexpr coap_log_t COAP_LOG_INFO = LOG_INFO;
constexpr coap_log_t COAP_LOG_DEBUG = LOG_DEBUG;
#endif

#endif
