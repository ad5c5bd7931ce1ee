#include "frame/feed_queue.h"

#include <sys/socket.h>
#include <cerrno>
#include <cstring>
#include <vector>

namespace {

struct feed_source {
  int fd;
  size_t max_len;
  feed_process_fn process;
  feed_error_fn fail;
};

// Each entry is a 4-byte header (source index, kind, length) and its bytes:
// a message, or the errno of a failed receive.
constexpr size_t HEADER_SIZE = 4;
enum : uint8_t { ENTRY_MESSAGE, ENTRY_ERROR };
// Largest message any source may take; bounds the copy made while handling.
constexpr size_t MAX_MESSAGE = 4096;
// Messages handled from the queue between two looks at the sockets.
constexpr unsigned PULL_EVERY = 4;
// Capacity kept after a drain; a burst's larger buffer is given back.
constexpr size_t KEEP_CAPACITY = 64 * 1024;

feed_source sources[FEED_MAX_SOURCES];
int source_count;
std::vector<uint8_t> queue;
size_t head;
size_t dropped;
bool draining;

}  // namespace

int feed_queue_add_source(int fd, size_t max_len, feed_process_fn process, feed_error_fn fail) {
  if (source_count >= FEED_MAX_SOURCES || max_len > MAX_MESSAGE)
    return -1;
  sources[source_count++] = feed_source{fd, max_len, process, fail};
  return 0;
}

namespace {

// Appends an entry, or counts it as dropped when the queue is full.
void push(int index, uint8_t kind, const void *data, size_t len) {
  if (queue.size() - head + HEADER_SIZE + len > FEED_QUEUE_MAX_BYTES) {
    dropped++;
    return;
  }
  const uint8_t header[HEADER_SIZE] = {static_cast<uint8_t>(index), kind,
                                       static_cast<uint8_t>(len & 0xff),
                                       static_cast<uint8_t>(len >> 8)};
  const auto *bytes = static_cast<const uint8_t *>(data);
  queue.insert(queue.end(), header, header + HEADER_SIZE);
  queue.insert(queue.end(), bytes, bytes + len);
}

}  // namespace

int feed_queue_source_count() { return source_count; }

int feed_queue_source_fd(int index) { return sources[index].fd; }

void feed_queue_pull(int index) {
  const feed_source &src = sources[index];
  uint8_t buf[MAX_MESSAGE];
  for (;;) {
    ssize_t n = recv(src.fd, buf, src.max_len, MSG_DONTWAIT);
    if (n < 0) {
      const int err = errno;
      if (err == EINTR)
        continue;
      if (err != EAGAIN && err != EWOULDBLOCK)
        push(index, ENTRY_ERROR, &err, sizeof(err));
      return;
    }
    push(index, ENTRY_MESSAGE, buf, static_cast<size_t>(n));
  }
}

void feed_queue_drain() {
  if (draining)
    return;
  draining = true;
  uint8_t msg[MAX_MESSAGE];
  // Handling a message may run a command that queues more: read the queue
  // afresh each time and copy the message out before handling it. While a
  // long backlog is handled, what the kernel holds meanwhile is moved in
  // behind it, so that its small queues never fill.
  unsigned handled = 0;
  while (head < queue.size()) {
    if (++handled % PULL_EVERY == 0)
      for (int i = 0; i < source_count; i++)
        feed_queue_pull(i);
    const int index = queue[head];
    const uint8_t kind = queue[head + 1];
    const size_t len = queue[head + 2] | (static_cast<size_t>(queue[head + 3]) << 8);
    memcpy(msg, queue.data() + head + HEADER_SIZE, len);
    head += HEADER_SIZE + len;
    const feed_source &src = sources[index];
    if (kind == ENTRY_MESSAGE) {
      src.process(msg, len);
    } else if (src.fail) {
      int err;
      memcpy(&err, msg, sizeof(err));
      src.fail(src.fd, err);
    }
  }
  queue.clear();
  head = 0;
  if (queue.capacity() > KEEP_CAPACITY)
    std::vector<uint8_t>().swap(queue);
  draining = false;
}

bool feed_queue_empty() { return head >= queue.size(); }

size_t feed_queue_take_dropped() {
  size_t n = dropped;
  dropped = 0;
  return n;
}

void feed_queue_reset() {
  source_count = 0;
  std::vector<uint8_t>().swap(queue);
  head = 0;
  dropped = 0;
  draining = false;
}
