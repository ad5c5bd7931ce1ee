// The daemon's input feeds (sockets read by the loop) and the bounded queue
// that holds their input while a shell command runs or a backlog is being
// handled. Each feed has its own fixed share of the queue: a feed whose
// share is full is not read, so its input waits in the kernel (a blocking
// sender waits, a non-blocking one is told its send failed), and nothing
// that was read is ever dropped.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

// Queue bytes each feed may hold (messages plus 4 bytes each); the queue's
// whole bound is this times the number of feeds.
constexpr size_t FEED_SHARE_BYTES = 512 * 1024;
constexpr int FEED_MAX_SOURCES = 4;
// Largest message a feed may take.
constexpr size_t FEED_MESSAGE_MAX = 4096;
// Messages a feed's read callback takes from its socket per wake-up.
constexpr int FEED_BATCH = 32;

// Receives one message without blocking into buf (cap bytes): the result
// and errno of recv(2).
using feed_receive_fn = ssize_t (*)(int fd, uint8_t *buf, size_t cap);
// Handles one received message; len is what the receive returned. False
// when the message was refused as unusable.
using feed_process_fn = bool (*)(const uint8_t *data, size_t len);
// Reports a failed receive: its result, the descriptor and errno.
using feed_error_fn = void (*)(int ret, int fd, int err);

struct feed_source_desc {
  const char *name;  // for reports, e.g. "online_offline"
  int fd;
  size_t max_len;  // bytes asked of each receive, at most FEED_MESSAGE_MAX
  // A receive of 0 bytes is a failure (netlink) rather than an empty message.
  bool empty_is_failure;
  feed_receive_fn receive;
  feed_process_fn process;
  feed_error_fn fail;  // may be null
};

// Counted since start.
struct feed_counters {
  uint64_t received;  // messages read from the socket
  uint64_t handled;   // messages given to process
  uint64_t refused;   // of those, refused as unusable
  uint64_t deferred;  // times a full share left input in the kernel
  uint64_t overruns;  // receives that failed with ENOBUFS (netlink)
  size_t queue_peak_bytes;
};

// Registers a feed. Its index, or -1 when the table is full or max_len too
// large.
// Adds a feed and registers its socket's read callback with the loop,
// which serves the feed. Its index, or -1 when there is no room or the
// loop refused the socket.
int feed_queue_add_source(const feed_source_desc &desc);
int feed_queue_source_count();
int feed_queue_source_fd(int index);
const char *feed_queue_source_name(int index);
const feed_counters &feed_queue_counters(int index);

// The read callback's work: takes up to FEED_BATCH messages from the socket
// and handles each at once; stops early when a command run by a handler
// queued input, which is older and goes first.
void feed_queue_serve(int index);
// True when the feed's share can take one more message of its largest size.
bool feed_queue_has_room(int index);
// Reads the feed's socket into the queue until it is empty or the share is
// full (non-blocking). For the command runner.
void feed_queue_pull(int index);
// Handles the queued messages, one from each feed in turn. Meanwhile new
// input is read only into free room and more slowly than it is handled, so
// the backlog ends. Safe against re-entry. Stops early, leaving the rest
// queued, once pause (if given) returns true.
void feed_queue_drain(bool (*pause)() = nullptr);
bool feed_queue_empty();
// Reads and handles whatever waits in the feeds' sockets now, for a daemon
// about to stop: what the kernel holds is taken too, within a few shares.
void feed_queue_take_all();
// Closes every feed's socket (a daemon about to stop, after take_all).
void feed_queue_close_sources();

// Logs one WARN line when any feed deferred input or overran since the last
// report, with the counts since then. Called by the 5-s tick.
void feed_queue_report();
// Forgets all feeds and queued messages (tests).
void feed_queue_reset();
