// Holds input that arrives on the feed sockets while a shell command runs,
// so that no event is lost to the kernel's small socket queues. Queued
// events are handled, in arrival order, once control is back in the loop.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

// Payload bytes (plus a 4-byte header each) the queue may hold; beyond it
// events are read and dropped, and counted.
constexpr size_t FEED_QUEUE_MAX_BYTES = 2 * 1024 * 1024;
constexpr int FEED_MAX_SOURCES = 4;
// Messages a feed's read callback takes from its socket per wake-up.
constexpr int FEED_BATCH = 32;

// Handles one received message; len is what recv returned (0 or more).
using feed_process_fn = void (*)(const uint8_t *data, size_t len);
// Reports a receive error (errno err) on the source's socket fd.
using feed_error_fn = void (*)(int fd, int err);

// Registers a feed socket: while a command runs, messages of at most
// max_len bytes are taken from fd and later given to process; receive
// errors, which a read consumes (a netlink overrun is reported once), are
// queued in their place and later given to fail. -1 when full.
int feed_queue_add_source(int fd, size_t max_len, feed_process_fn process, feed_error_fn fail);
// Number of sources and their descriptors, for the command runner's poll.
int feed_queue_source_count();
int feed_queue_source_fd(int index);
// Reads every message waiting on source index into the queue (non-blocking).
void feed_queue_pull(int index);
// Handles the queued messages in arrival order. Safe against re-entry.
void feed_queue_drain();
bool feed_queue_empty();
// Messages dropped since the last call, because the queue was full.
size_t feed_queue_take_dropped();
// Forgets all sources and queued messages (tests).
void feed_queue_reset();
