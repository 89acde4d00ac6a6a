// Ends the tool when nobody reads its output any more.

#ifndef APP_READER_H
#define APP_READER_H

// Starts a thread that waits until the reader of standard output has gone (the other end of a pipe
// or socket is closed, a terminal is hung up) and then ends the process with status 1 and a line on
// standard error, whatever the other threads do: nothing is acknowledged after that. That a TCP
// connection was closed shows with the next line only. A file or /dev/null has no reader that could
// go. From main, after vos_mem_init.
void app_reader_watch();

#endif
