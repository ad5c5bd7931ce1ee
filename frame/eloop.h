// The daemon's single-threaded event loop: read/write/exception socket
// tables and a sorted list of one-shot timeouts, served by select().
#pragma once

#include <cstdint>

using eloop_sock_handler = void (*)(int sock, void *eloop_data, void *user_data);
using eloop_timeout_handler = void (*)(void *eloop_data, void *user_data);

enum eloop_event_type { EVENT_TYPE_READ = 0, EVENT_TYPE_WRITE = 1, EVENT_TYPE_EXCEPTION = 2 };

// Clears all loop state. Always 0.
int eloop_init();
// Registers a handler for a descriptor in table 0, 1 or 2. -1 for a bad type,
// a descriptor that does not fit an fd_set (1024 or more) or no memory.
int eloop_add_sock(int sock, int type, eloop_sock_handler handler, void *eloop_data,
                   void *user_data);
int eloop_add_reader(int sock, eloop_sock_handler handler, void *eloop_data, void *user_data);
// Removes every entry of the descriptor from the table of that type; the
// dispatch of that table ends for the pass under way.
void eloop_remove_sock(int sock, int type);
// Registers a one-shot timeout; equal expiries run in registration order.
// -1 when no memory or no clock.
int eloop_add_timeout(unsigned int secs, unsigned int usecs, eloop_timeout_handler handler,
                      void *eloop_data, void *user_data);
// Removes the pending timeouts of that handler and data without calling
// them; returns how many.
int eloop_cancel_timeout(eloop_timeout_handler handler, void *eloop_data, void *user_data);
// Runs until no timeout and no socket is left, or select() fails.
void eloop_run();
// One pass of the loop (wait, at most one timeout, socket dispatch).
// Returns 0 to go on, 1 when the loop has nothing left or select() failed.
int eloop_run_once();
// Frees every timeout (without calling it) and the socket tables.
void eloop_destroy();

// Called after every handler the loop runs, and before each wait, so that
// work deferred while a handler was busy is done before the loop waits
// again. Null for none.
void eloop_set_after_handler(void (*hook)());

// Termination, for a daemon that stops on a signal. After
// eloop_enable_terminate (0, or -1 when no pipe could be made),
// eloop_terminate, which is safe in a signal handler, ends the loop once
// the pass under way is done, and wakes a wait at once.
int eloop_enable_terminate();
void eloop_terminate();
bool eloop_terminated();
// Readable once eloop_terminate was called, for waits outside the loop
// (the command runner's); -1 unless enabled.
int eloop_terminate_fd();

// Loop clock: monotonic, falling back to realtime once monotonic fails.
// Replaceable for tests. Returns 0, or -1 when no clock can be read.
using eloop_clock_fn = int (*)(int64_t *sec, int64_t *usec);
int monotonic_now(int64_t *sec, int64_t *usec);
void eloop_set_clock(eloop_clock_fn fn);
// Reads the loop clock (as replaced for tests).
int eloop_now(int64_t *sec, int64_t *usec);
