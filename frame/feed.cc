#include "frame/feed.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "frame/eloop.h"
#include "frame/log.h"

namespace {

// A stopping daemon reads at most this many messages a feed: a sender that
// never stops cannot hold the stop up.
constexpr int TAKE_ALL_MAX = 16 * FEED_BATCH * 64;

struct feed_source {
  feed_source_desc desc;
  feed_counters counters;
  uint64_t reported_deferred;
  uint64_t reported_overruns;
};

feed_source sources[FEED_MAX_SOURCES];
int source_count;
bool held;
bool (*yield_check)();

void serve_ready(int, void *eloop_data, void *) {
  feed_serve(static_cast<int>(static_cast<feed_source *>(eloop_data) - sources));
}

}  // namespace

int feed_add_source(const feed_source_desc &desc) {
  if (source_count >= FEED_MAX_SOURCES || desc.max_len > FEED_MESSAGE_MAX || !desc.receive ||
      !desc.process)
    return -1;
  // The reader exists only once its source does.
  feed_source &s = sources[source_count];
  s = feed_source{};
  s.desc = desc;
  if (!held && eloop_add_reader(desc.fd, serve_ready, &s, nullptr) != 0)
    return -1;
  return source_count++;
}

int feed_source_count() { return source_count; }

const char *feed_source_name(int index) { return sources[index].desc.name; }

const feed_counters &feed_counters_of(int index) { return sources[index].counters; }

int feed_serve(int index) {
  feed_source &s = sources[index];
  uint8_t buf[FEED_MESSAGE_MAX];
  // Several messages per wake-up: one select per message would cost more
  // than handling it.
  int taken = 0;
  while (taken < FEED_BATCH && !held && s.desc.fd >= 0) {
    ssize_t n;
    int err;
    do {
      n = s.desc.receive(s.desc.fd, buf, s.desc.max_len);
      err = errno;
    } while (n < 0 && err == EINTR);
    if (n < 0 && (err == EAGAIN || err == EWOULDBLOCK))
      break;
    if (n < 0 || (n == 0 && s.desc.empty_is_failure)) {
      if (err == ENOBUFS)
        s.counters.overruns++;
      if (s.desc.fail)
        s.desc.fail(static_cast<int>(n), s.desc.fd, err);
      break;
    }
    taken++;
    s.counters.received++;
    s.counters.handled++;
    if (!s.desc.process(buf, static_cast<size_t>(n)))
      s.counters.refused++;
    if (yield_check && yield_check())
      break;
  }
  return taken;
}

void feed_set_yield(bool (*yield)()) { yield_check = yield; }

void feed_hold(bool hold) {
  if (hold == held)
    return;
  held = hold;
  for (int i = 0; i < source_count; i++) {
    feed_source &s = sources[i];
    if (hold) {
      s.counters.deferred++;
      eloop_remove_sock(s.desc.fd, EVENT_TYPE_READ);
    } else {
      eloop_add_reader(s.desc.fd, serve_ready, &s, nullptr);
    }
  }
}

void feed_take_all() {
  held = false;
  yield_check = nullptr;
  for (int i = 0; i < source_count; i++)
    for (int k = 0; k < TAKE_ALL_MAX && feed_serve(i) == FEED_BATCH; k += FEED_BATCH) {
    }
}

void feed_close_sources() {
  for (int i = 0; i < source_count; i++) {
    if (sources[i].desc.fd >= 0) {
      eloop_remove_sock(sources[i].desc.fd, EVENT_TYPE_READ);
      close(sources[i].desc.fd);
    }
    sources[i].desc.fd = -1;
  }
}

void feed_report() {
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

void feed_reset() {
  source_count = 0;
  held = false;
  yield_check = nullptr;
}
