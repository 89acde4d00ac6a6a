// What the CoAP library says and does by itself: its messages go to standard error, one line each;
// when it ends the process for want of memory, that is told in a FATAL line (on standard error when
// nobody reads standard output), with status 1.

#ifndef COAP_REPORT_H
#define COAP_REPORT_H

// Takes over the library's log (warnings and what is worse), and its way out, for the whole
// process; once, before a second thread uses the library. A line never waits for its reader: one
// that standard error does not take at once is lost, so that the server goes on answering in front
// of a stopped terminal.
void coap_report_start();

#endif
