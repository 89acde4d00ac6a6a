// Where the CoAP library's own messages go: to standard error, one line each.

#ifndef COAP_REPORT_H
#define COAP_REPORT_H

// Takes over the library's log for the whole process; once, before a second thread uses the
// library. A line never waits for its reader: one that standard error does not take at once is
// lost, so that the server goes on answering in front of a stopped terminal.
void coap_report_start();

#endif
