#include "frame/feed_queue.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/eloop.h"
#include "frame/log.h"

namespace {

// The queue lives in fixed chunks mapped while input waits and unmapped as
// soon as they are handled: nothing is copied to grow it, and an idle
// daemon holds none.
constexpr size_t CHUNK_BYTES = 64 * 1024;

struct feed_chunk {
  feed_chunk *next;
  uint32_t head;  // first unhandled entry
  uint32_t tail;  // end of the entries
};
constexpr size_t CHUNK_DATA_OFFSET = 64;  // entries start here, aligned
static_assert(sizeof(feed_chunk) <= CHUNK_DATA_OFFSET, "chunk header fits");
constexpr size_t CHUNK_DATA = CHUNK_BYTES - CHUNK_DATA_OFFSET;

// An entry is a 4-byte header (kind, unused, length) and its bytes: a
// message, or the result and errno of a failed receive. Entries start at
// multiples of 4.
constexpr size_t HEADER_SIZE = 4;
enum : uint8_t { ENTRY_MESSAGE, ENTRY_FAILURE };
constexpr size_t FAILURE_SIZE = 2 * sizeof(int32_t);

// While a backlog is handled: after every DRAIN_PULL_EVERY messages handled,
// each feed may read up to DRAIN_PULL_MAX more, so that its kernel queue
// keeps draining while the backlog shrinks (two feeds read 6 per 8 handled).
constexpr unsigned DRAIN_PULL_EVERY = 8;
constexpr unsigned DRAIN_PULL_MAX = 3;
constexpr unsigned PULL_ALL = ~0u;
constexpr int TAKE_ALL_ROUNDS = 16;

struct feed_source {
  feed_source_desc desc;
  feed_chunk *first;
  feed_chunk *last;
  size_t bytes;  // of queued entries, headers included
  // Reading stopped at a full share: the next receive tells whether input
  // was left in the kernel meanwhile.
  bool stopped_full;
  feed_counters counters;
  uint64_t reported_deferred;
  uint64_t reported_overruns;
};

feed_source sources[FEED_MAX_SOURCES];
int source_count;
bool draining;

size_t entry_size(size_t len) { return (HEADER_SIZE + len + 3) & ~static_cast<size_t>(3); }

uint8_t *chunk_data(feed_chunk *c) { return reinterpret_cast<uint8_t *>(c) + CHUNK_DATA_OFFSET; }

feed_chunk *chunk_new() {
  void *p = mmap(nullptr, CHUNK_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED)
    return nullptr;
  auto *c = static_cast<feed_chunk *>(p);
  c->next = nullptr;
  c->head = 0;
  c->tail = 0;
  return c;
}

void chunk_free(feed_chunk *c) { munmap(c, CHUNK_BYTES); }

void free_chunks(feed_source &s) {
  while (s.first) {
    feed_chunk *next = s.first->next;
    chunk_free(s.first);
    s.first = next;
  }
  s.last = nullptr;
}

bool has_room(const feed_source &s) {
  return s.bytes + entry_size(s.desc.max_len) <= FEED_SHARE_BYTES;
}

// Where the next entry of up to len bytes goes, mapping a chunk if needed;
// null when no memory is left.
uint8_t *reserve(feed_source &s, size_t len) {
  if (!s.last || CHUNK_DATA - s.last->tail < entry_size(len)) {
    feed_chunk *c = chunk_new();
    if (!c)
      return nullptr;
    if (s.last)
      s.last->next = c;
    else
      s.first = c;
    s.last = c;
  }
  return chunk_data(s.last) + s.last->tail;
}

// Completes the entry reserve() placed, with len bytes already written.
void commit(feed_source &s, uint8_t kind, size_t len) {
  uint8_t *e = chunk_data(s.last) + s.last->tail;
  e[0] = kind;
  e[1] = 0;
  e[2] = static_cast<uint8_t>(len & 0xff);
  e[3] = static_cast<uint8_t>(len >> 8);
  const size_t size = entry_size(len);
  s.last->tail += static_cast<uint32_t>(size);
  s.bytes += size;
  if (s.bytes > s.counters.queue_peak_bytes)
    s.counters.queue_peak_bytes = s.bytes;
}

// What one receive brought: a message of n bytes, nothing (the socket is
// empty), or a failure (its result n and errno err) that the receive
// consumed, as a netlink overrun is reported once.
enum class received { message, nothing, failure };

received receive_one(feed_source &s, uint8_t *buf, ssize_t *n, int *err) {
  do {
    *n = s.desc.receive(s.desc.fd, buf, s.desc.max_len);
    *err = errno;
  } while (*n < 0 && *err == EINTR);
  // Reading had stopped at a full share: input has waited in the kernel.
  if (s.stopped_full) {
    s.stopped_full = false;
    if (*n >= 0)
      s.counters.deferred++;
  }
  if (*n < 0 && (*err == EAGAIN || *err == EWOULDBLOCK))
    return received::nothing;
  if (*n < 0 || (*n == 0 && s.desc.empty_is_failure)) {
    if (*err == ENOBUFS)
      s.counters.overruns++;
    return received::failure;
  }
  s.counters.received++;
  return received::message;
}

void report_failure(feed_source &s, int ret, int err) {
  if (s.desc.fail)
    s.desc.fail(ret, s.desc.fd, err);
}

// Reads up to limit messages into the feed's free room.
void pull(feed_source &s, unsigned limit) {
  for (unsigned k = 0; k < limit;) {
    uint8_t *slot = has_room(s) ? reserve(s, s.desc.max_len) : nullptr;
    if (!slot) {
      s.stopped_full = true;
      break;
    }
    ssize_t n;
    int err;
    const received got = receive_one(s, slot + HEADER_SIZE, &n, &err);
    if (got == received::nothing)
      break;
    if (got == received::failure) {
      // Reported in its turn, after what was read before it.
      const int32_t failure[2] = {static_cast<int32_t>(n), err};
      memcpy(slot + HEADER_SIZE, failure, sizeof(failure));
      commit(s, ENTRY_FAILURE, FAILURE_SIZE);
      break;
    }
    commit(s, ENTRY_MESSAGE, static_cast<size_t>(n));
    k++;
  }
  if (s.bytes == 0)
    free_chunks(s);  // a chunk mapped for a receive that found nothing
}

// Handles the feed's oldest entry. The entry stays where it is while it is
// handled: a command run meanwhile only appends.
void handle_first(feed_source &s) {
  feed_chunk *c = s.first;
  const uint8_t *e = chunk_data(c) + c->head;
  const size_t len = e[2] | (static_cast<size_t>(e[3]) << 8);
  if (e[0] == ENTRY_MESSAGE) {
    s.counters.handled++;
    if (!s.desc.process(e + HEADER_SIZE, len))
      s.counters.refused++;
  } else {
    int32_t failure[2];
    memcpy(failure, e + HEADER_SIZE, sizeof(failure));
    report_failure(s, failure[0], failure[1]);
  }
  const size_t size = entry_size(len);
  c->head += static_cast<uint32_t>(size);
  s.bytes -= size;
  if (c->head == c->tail) {
    s.first = c->next;
    if (!s.first)
      s.last = nullptr;
    chunk_free(c);
  }
  if (s.bytes == 0)
    free_chunks(s);  // an empty chunk mapped for a receive that found nothing
}

}  // namespace

namespace {

// The loop's read callback of every feed: its source comes as the data.
void serve_ready(int, void *eloop_data, void *) {
  feed_queue_serve(static_cast<int>(static_cast<feed_source *>(eloop_data) - sources));
}

}  // namespace

int feed_queue_add_source(const feed_source_desc &desc) {
  if (source_count >= FEED_MAX_SOURCES || desc.max_len > FEED_MESSAGE_MAX || !desc.receive ||
      !desc.process)
    return -1;
  // The reader exists only once its source does.
  feed_source &s = sources[source_count];
  s = feed_source{};
  s.desc = desc;
  if (eloop_add_reader(desc.fd, serve_ready, &s, nullptr) != 0)
    return -1;
  return source_count++;
}

int feed_queue_source_count() { return source_count; }

int feed_queue_source_fd(int index) { return sources[index].desc.fd; }

const char *feed_queue_source_name(int index) { return sources[index].desc.name; }

const feed_counters &feed_queue_counters(int index) { return sources[index].counters; }

void feed_queue_serve(int index) {
  feed_source &s = sources[index];
  uint8_t buf[FEED_MESSAGE_MAX];
  // Several messages per wake-up: one select per message would cost more
  // than handling it.
  for (int i = 0; i < FEED_BATCH; i++) {
    // Readiness may be stale: a command run by an earlier handler of this
    // pass may have moved the message into the queue already.
    ssize_t n;
    int err;
    const received got = receive_one(s, buf, &n, &err);
    if (got == received::nothing)
      return;
    if (got == received::failure) {
      report_failure(s, static_cast<int>(n), err);
      return;
    }
    s.counters.handled++;
    if (!s.desc.process(buf, static_cast<size_t>(n)))
      s.counters.refused++;
    // Input queued by a command run meanwhile is older: it goes first.
    if (!feed_queue_empty())
      return;
  }
}

bool feed_queue_has_room(int index) { return has_room(sources[index]); }

void feed_queue_pull(int index) { pull(sources[index], PULL_ALL); }

void feed_queue_close_sources() {
  for (int i = 0; i < source_count; i++) {
    if (sources[i].desc.fd >= 0)
      close(sources[i].desc.fd);
    sources[i].desc.fd = -1;
  }
}

void feed_queue_take_all() {
  // A few rounds at most: a sender that never stops cannot hold a stop up.
  for (int round = 0; round < TAKE_ALL_ROUNDS; round++) {
    uint64_t before = 0, after = 0;
    for (int i = 0; i < source_count; i++) {
      before += sources[i].counters.received;
      pull(sources[i], PULL_ALL);
      after += sources[i].counters.received;
    }
    feed_queue_drain();
    if (after == before)
      break;
  }
}

void feed_queue_drain(bool (*pause)()) {
  if (draining)
    return;
  draining = true;
  unsigned since_pull = 0;
  for (bool any = true; any;) {
    any = false;
    if (pause && pause())
      break;
    // One message from each feed in turn: a flood on one feed does not
    // hold up the other.
    for (int i = 0; i < source_count; i++) {
      if (sources[i].bytes == 0)
        continue;
      any = true;
      handle_first(sources[i]);
      if (++since_pull == DRAIN_PULL_EVERY) {
        since_pull = 0;
        for (int j = 0; j < source_count; j++)
          pull(sources[j], DRAIN_PULL_MAX);
      }
    }
  }
  draining = false;
}

bool feed_queue_empty() {
  for (int i = 0; i < source_count; i++)
    if (sources[i].bytes != 0)
      return false;
  return true;
}

void feed_queue_report() {
  char text[512];
  size_t n = 0;
  bool behind = false;
  for (int i = 0; i < source_count && n < sizeof(text); i++) {
    feed_source &s = sources[i];
    const unsigned long long deferred = s.counters.deferred - s.reported_deferred;
    const unsigned long long overruns = s.counters.overruns - s.reported_overruns;
    behind = behind || deferred != 0 || overruns != 0;
    s.reported_deferred = s.counters.deferred;
    s.reported_overruns = s.counters.overruns;
    const int w = snprintf(text + n, sizeof(text) - n, "%s%s %llu deferred, %llu overruns",
                           i ? "; " : "", s.desc.name, deferred, overruns);
    if (w > 0)
      n += static_cast<size_t>(w);
  }
  if (behind)
    log_msg(WARN, "feeds behind since the last report: %s\n", text);
}

void feed_queue_reset() {
  for (int i = 0; i < source_count; i++)
    free_chunks(sources[i]);
  source_count = 0;
  draining = false;
}
