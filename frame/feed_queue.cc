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
};

// Each message is a 4-byte header (source index, length) and its bytes.
constexpr size_t HEADER_SIZE = 4;
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

int feed_queue_add_source(int fd, size_t max_len, feed_process_fn process) {
  if (source_count >= FEED_MAX_SOURCES || max_len > MAX_MESSAGE)
    return -1;
  sources[source_count++] = feed_source{fd, max_len, process};
  return 0;
}

int feed_queue_source_count() { return source_count; }

int feed_queue_source_fd(int index) { return sources[index].fd; }

void feed_queue_pull(int index) {
  const feed_source &src = sources[index];
  uint8_t buf[MAX_MESSAGE];
  for (;;) {
    ssize_t n = recv(src.fd, buf, src.max_len, MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return;  // EAGAIN: nothing left; other errors show again in the loop
    }
    if (queue.size() - head + HEADER_SIZE + n > FEED_QUEUE_MAX_BYTES) {
      dropped++;
      continue;
    }
    const uint8_t header[HEADER_SIZE] = {static_cast<uint8_t>(index), 0,
                                         static_cast<uint8_t>(n & 0xff),
                                         static_cast<uint8_t>(n >> 8)};
    queue.insert(queue.end(), header, header + HEADER_SIZE);
    queue.insert(queue.end(), buf, buf + n);
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
    const size_t len = queue[head + 2] | (static_cast<size_t>(queue[head + 3]) << 8);
    memcpy(msg, queue.data() + head + HEADER_SIZE, len);
    head += HEADER_SIZE + len;
    sources[index].process(msg, len);
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
