// The daemon's input feeds: sockets the loop reads, each message handled as
// soon as it is read. Nothing else waits for a command, so nothing needs
// to be queued in the daemon; when a spool directory must wait for its
// archive, the feeds are held and their input waits in the kernel (a
// blocking sender waits, a non-blocking one is told its send failed).
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

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
  uint64_t deferred;  // times the feed was held with its input left in the kernel
  uint64_t overruns;  // receives that failed with ENOBUFS (netlink)
};

// Adds a feed and registers its socket's read callback with the loop,
// which serves the feed. Its index, or -1 when there is no room or the
// loop refused the socket.
int feed_add_source(const feed_source_desc &desc);
int feed_source_count();
const char *feed_source_name(int index);
const feed_counters &feed_counters_of(int index);

// The read callback's work: takes up to FEED_BATCH messages from the socket
// and handles each at once; stops early once yield (if set) says so, so
// that the loop can run what a handler made due before the next message.
// How many it took.
int feed_serve(int index);
void feed_set_yield(bool (*yield)());
// Holds every feed (its socket is not read, its input waits in the kernel)
// or lets them be read again.
void feed_hold(bool hold);
// Reads and handles whatever waits in the feeds' sockets now, for a daemon
// about to stop: what the kernel holds is taken too, within a bound.
void feed_take_all();
// Closes every feed's socket (a daemon about to stop, after take_all).
void feed_close_sources();

// Logs one WARN line when any feed was held or overran since the last
// report, with the counts since then. Called by the 5-s tick.
void feed_report();
// Forgets all feeds (tests).
void feed_reset();
