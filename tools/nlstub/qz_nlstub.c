/*
 * Preloaded stand-in for the router's kernel module on netlink protocol 28.
 *
 * Test machines have no such protocol, so socket(AF_NETLINK, SOCK_RAW, 28)
 * is turned into an AF_UNIX datagram socket and the netlink addresses are
 * mapped onto abstract unix names:
 *
 *   port id 0 (the kernel)   "\0qz_nl28/kernel"
 *   port id N                "\0qz_nl28/N"
 *
 * The daemon's own netlink code runs unchanged; the test plays the kernel
 * on "\0qz_nl28/kernel". Abstract names belong to the network namespace,
 * so tests in separate namespaces never meet.
 *
 * Only the calls that carry netlink addresses are rewritten (socket, bind,
 * connect, sendmsg, sendto, send, recvmsg, recvfrom, getsockname, and a few
 * socket options). recv, read, poll, select and fcntl work on the unix
 * socket as they are. dup()ed copies of a stub socket are not recognised.
 *
 * Environment (all optional):
 *   QZ_NLSTUB_FAIL   comma list of "socket", "bind", "send": make that call
 *                    fail on stub sockets (EPROTONOSUPPORT, EADDRINUSE,
 *                    ECONNREFUSED), to drive the daemon's error paths.
 *   QZ_NLSTUB_QLEN   receive queue depth in datagrams for new stub sockets
 *                    (net.unix.max_dgram_qlen is raised around the socket()
 *                    call; needs root in the namespace). A real netlink
 *                    socket queues far more than the unix default of 10.
 *   QZ_NLSTUB_TRACE  when set, one line per rewritten call on stderr.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#define NLSTUB_PROTOCOL 28
#define NLSTUB_PREFIX "qz_nl28/"
#define NLSTUB_KERNEL_NAME "kernel"
#define NLSTUB_MAX_SOCKETS 64
/* netlink hands out negative port ids when the process id is taken */
#define NLSTUB_AUTOBIND_BASE 0xffffefffu
#define NLSTUB_AUTOBIND_TRIES 64
#define QLEN_SYSCTL "/proc/sys/net/unix/max_dgram_qlen"

#ifndef SOL_NETLINK
#define SOL_NETLINK 270
#endif

#define EXPORT __attribute__((visibility("default")))

struct nl_sock {
  int fd; /* -1: free */
  dev_t dev;
  ino_t ino;
  int bound;
  uint32_t port;
  int connected;
  uint32_t dst_port;
};

static struct nl_sock socks[NLSTUB_MAX_SOCKETS];
static int sock_count; /* entries in use; read without the lock as a hint */
static pthread_mutex_t socks_lock = PTHREAD_MUTEX_INITIALIZER;
static int socks_ready;

enum { FAIL_SOCKET = 1, FAIL_BIND = 2, FAIL_SEND = 4 };
static int fail_mask = -1; /* -1: not read yet */
static int trace_on = -1;

/* Real functions, looked up on first use: the stub may be entered before
 * any constructor of ours has run (sanitizer start-up, other preloads). */
#define REAL_FN(ret, name, ...)                                         \
  static ret (*real_##name##_ptr)(__VA_ARGS__);                         \
  static ret (*real_##name(void))(__VA_ARGS__) {                        \
    ret (*fn)(__VA_ARGS__) = __atomic_load_n(&real_##name##_ptr, __ATOMIC_ACQUIRE); \
    if (!fn) {                                                          \
      *(void **)&fn = dlsym(RTLD_NEXT, #name);                          \
      __atomic_store_n(&real_##name##_ptr, fn, __ATOMIC_RELEASE);       \
    }                                                                   \
    return fn;                                                          \
  }

REAL_FN(int, socket, int, int, int)
REAL_FN(int, bind, int, const struct sockaddr *, socklen_t)
REAL_FN(int, connect, int, const struct sockaddr *, socklen_t)
REAL_FN(ssize_t, sendmsg, int, const struct msghdr *, int)
REAL_FN(ssize_t, sendto, int, const void *, size_t, int, const struct sockaddr *, socklen_t)
REAL_FN(ssize_t, send, int, const void *, size_t, int)
REAL_FN(ssize_t, recvmsg, int, struct msghdr *, int)
REAL_FN(ssize_t, recvfrom, int, void *, size_t, int, struct sockaddr *, socklen_t *)
REAL_FN(int, getsockname, int, struct sockaddr *, socklen_t *)
REAL_FN(int, setsockopt, int, int, int, const void *, socklen_t)
REAL_FN(int, getsockopt, int, int, int, void *, socklen_t *)
REAL_FN(int, close, int)

#define CALL_REAL(name, ...) \
  (real_##name() ? real_##name()(__VA_ARGS__) : (errno = ENOSYS, -1))

static void trace(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

static void trace(const char *fmt, ...) {
  if (trace_on < 0)
    trace_on = getenv("QZ_NLSTUB_TRACE") != NULL;
  if (!trace_on)
    return;
  char line[256];
  int n = snprintf(line, sizeof(line), "qz_nlstub[%d]: ", (int)getpid());
  va_list ap;
  va_start(ap, fmt);
  int m = vsnprintf(line + n, sizeof(line) - (size_t)n, fmt, ap);
  va_end(ap);
  size_t len = (size_t)n + (m < 0 ? 0 : (size_t)m);
  if (len > sizeof(line) - 2)
    len = sizeof(line) - 2;
  line[len++] = '\n';
  int saved = errno;
  ssize_t ignored = write(STDERR_FILENO, line, len);
  (void)ignored;
  errno = saved;
}

static int failing(int what) {
  if (fail_mask < 0) {
    int mask = 0;
    const char *env = getenv("QZ_NLSTUB_FAIL");
    if (env) {
      if (strstr(env, "socket"))
        mask |= FAIL_SOCKET;
      if (strstr(env, "bind"))
        mask |= FAIL_BIND;
      if (strstr(env, "send"))
        mask |= FAIL_SEND;
    }
    fail_mask = mask;
  }
  return (fail_mask & what) != 0;
}

/* The identity of an open file through the system call: preloaded time
 * fakers wrap the stat family. statx fills one layout on every
 * architecture; fstat's depends on the word size and on
 * _FILE_OFFSET_BITS, which glibc's struct stat follows and the bare
 * system call does not. */
static int fd_identity(int fd, dev_t *dev, ino_t *ino) {
  struct statx st;
  if (syscall(SYS_statx, fd, "", AT_EMPTY_PATH, STATX_INO, &st) != 0)
    return -1;
  *dev = makedev(st.stx_dev_major, st.stx_dev_minor);
  *ino = (ino_t)st.stx_ino;
  return 0;
}

static void socks_init_locked(void) {
  if (socks_ready)
    return;
  for (int i = 0; i < NLSTUB_MAX_SOCKETS; i++)
    socks[i].fd = -1;
  socks_ready = 1;
}

/* Copies out the stub socket behind fd. A descriptor that was closed behind
 * our back and reused for something else no longer matches its inode and
 * is forgotten. Returns the table index, or -1 when fd is not ours. */
static int sock_find(int fd, struct nl_sock *out) {
  if (__atomic_load_n(&sock_count, __ATOMIC_RELAXED) == 0 || fd < 0)
    return -1;
  int found = -1;
  pthread_mutex_lock(&socks_lock);
  socks_init_locked();
  for (int i = 0; i < NLSTUB_MAX_SOCKETS; i++) {
    if (socks[i].fd != fd)
      continue;
    dev_t dev;
    ino_t ino;
    if (fd_identity(fd, &dev, &ino) != 0 || dev != socks[i].dev || ino != socks[i].ino) {
      socks[i].fd = -1;
      __atomic_sub_fetch(&sock_count, 1, __ATOMIC_RELAXED);
      break;
    }
    if (out)
      *out = socks[i];
    found = i;
    break;
  }
  pthread_mutex_unlock(&socks_lock);
  return found;
}

static void sock_store(int index, const struct nl_sock *s) {
  pthread_mutex_lock(&socks_lock);
  if (socks[index].fd == s->fd)
    socks[index] = *s;
  pthread_mutex_unlock(&socks_lock);
}

static int sock_add(int fd) {
  struct nl_sock s = {.fd = fd};
  if (fd_identity(fd, &s.dev, &s.ino) != 0)
    return -1;
  int rc = -1;
  pthread_mutex_lock(&socks_lock);
  socks_init_locked();
  int free_slot = -1;
  for (int i = 0; i < NLSTUB_MAX_SOCKETS; i++) {
    if (socks[i].fd == fd) { /* stale entry for a reused number */
      socks[i] = s;
      rc = 0;
      goto out;
    }
    if (socks[i].fd < 0 && free_slot < 0)
      free_slot = i;
  }
  if (free_slot >= 0) {
    socks[free_slot] = s;
    __atomic_add_fetch(&sock_count, 1, __ATOMIC_RELAXED);
    rc = 0;
  }
out:
  pthread_mutex_unlock(&socks_lock);
  return rc;
}

static void sock_forget(int fd) {
  if (__atomic_load_n(&sock_count, __ATOMIC_RELAXED) == 0 || fd < 0)
    return;
  pthread_mutex_lock(&socks_lock);
  socks_init_locked();
  for (int i = 0; i < NLSTUB_MAX_SOCKETS; i++) {
    if (socks[i].fd == fd) {
      socks[i].fd = -1;
      __atomic_sub_fetch(&sock_count, 1, __ATOMIC_RELAXED);
    }
  }
  pthread_mutex_unlock(&socks_lock);
}

static socklen_t port_to_unix(uint32_t port, struct sockaddr_un *un) {
  memset(un, 0, sizeof(*un));
  un->sun_family = AF_UNIX;
  int n;
  if (port == 0)
    n = snprintf(un->sun_path + 1, sizeof(un->sun_path) - 1, "%s%s", NLSTUB_PREFIX,
                 NLSTUB_KERNEL_NAME);
  else
    n = snprintf(un->sun_path + 1, sizeof(un->sun_path) - 1, "%s%u", NLSTUB_PREFIX, port);
  return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + (size_t)n);
}

/* Port id of a sender, from its abstract name; 0 for the kernel and for
 * senders without a name of ours. */
static uint32_t unix_to_port(const struct sockaddr_un *un, socklen_t len) {
  const size_t base = offsetof(struct sockaddr_un, sun_path);
  const size_t prefix = sizeof(NLSTUB_PREFIX) - 1;
  if (len <= base + 1 + prefix || un->sun_path[0] != '\0')
    return 0;
  const char *name = un->sun_path + 1;
  size_t name_len = len - base - 1;
  if (memcmp(name, NLSTUB_PREFIX, prefix) != 0)
    return 0;
  uint32_t port = 0;
  for (size_t i = prefix; i < name_len; i++) {
    if (name[i] < '0' || name[i] > '9')
      return 0;
    port = port * 10 + (uint32_t)(name[i] - '0');
  }
  return port;
}

static void fill_nl_addr(uint32_t port, void *dst, socklen_t *dst_len) {
  struct sockaddr_nl nl;
  memset(&nl, 0, sizeof(nl));
  nl.nl_family = AF_NETLINK;
  nl.nl_pid = port;
  if (dst && dst_len) {
    size_t n = *dst_len < sizeof(nl) ? *dst_len : sizeof(nl);
    memcpy(dst, &nl, n);
  }
  if (dst_len)
    *dst_len = sizeof(nl);
}

/* Reads a netlink address given by the caller; -1 with EINVAL if it is not
 * one. */
static int read_nl_addr(const void *addr, socklen_t len, struct sockaddr_nl *nl) {
  if (!addr || len < sizeof(*nl)) {
    errno = EINVAL;
    return -1;
  }
  memcpy(nl, addr, sizeof(*nl));
  if (nl->nl_family != AF_NETLINK) {
    errno = EINVAL;
    return -1;
  }
  return 0;
}

static int bind_port(struct nl_sock *s, uint32_t port) {
  struct sockaddr_un un;
  socklen_t len = port_to_unix(port, &un);
  if (CALL_REAL(bind, s->fd, (const struct sockaddr *)&un, len) != 0)
    return -1;
  s->bound = 1;
  s->port = port;
  trace("fd %d bound to port %u", s->fd, port);
  return 0;
}

/* Like netlink: the process id first, then negative ids. */
static int autobind(struct nl_sock *s) {
  if (bind_port(s, (uint32_t)getpid()) == 0)
    return 0;
  for (uint32_t i = 0; errno == EADDRINUSE && i < NLSTUB_AUTOBIND_TRIES; i++) {
    if (bind_port(s, NLSTUB_AUTOBIND_BASE - i) == 0)
      return 0;
  }
  return -1;
}

static int read_int_file(const char *path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return -1;
  char buf[32];
  ssize_t n = read(fd, buf, sizeof(buf) - 1);
  CALL_REAL(close, fd);
  if (n <= 0)
    return -1;
  buf[n] = '\0';
  return atoi(buf);
}

static int write_int_file(const char *path, int value) {
  int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0)
    return -1;
  char buf[32];
  int n = snprintf(buf, sizeof(buf), "%d\n", value);
  ssize_t w = write(fd, buf, (size_t)n);
  CALL_REAL(close, fd);
  return w == n ? 0 : -1;
}

/* The queue depth of a unix datagram socket is fixed when it is created. */
static int unix_socket_with_qlen(int type) {
  const char *env = getenv("QZ_NLSTUB_QLEN");
  int want = env ? atoi(env) : 0;
  int old = want > 0 ? read_int_file(QLEN_SYSCTL) : -1;
  if (old < 0 || old == want)
    return CALL_REAL(socket, AF_UNIX, type, 0);
  if (write_int_file(QLEN_SYSCTL, want) != 0)
    trace("cannot set %s to %d", QLEN_SYSCTL, want);
  int fd = CALL_REAL(socket, AF_UNIX, type, 0);
  int saved = errno;
  write_int_file(QLEN_SYSCTL, old);
  errno = saved;
  return fd;
}

EXPORT int socket(int domain, int type, int protocol) {
  const int flags = type & (SOCK_CLOEXEC | SOCK_NONBLOCK);
  const int base = type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (domain != AF_NETLINK || protocol != NLSTUB_PROTOCOL ||
      (base != SOCK_RAW && base != SOCK_DGRAM))
    return CALL_REAL(socket, domain, type, protocol);

  if (failing(FAIL_SOCKET)) {
    errno = EPROTONOSUPPORT;
    return -1;
  }
  int fd = unix_socket_with_qlen(SOCK_DGRAM | flags);
  if (fd < 0)
    return -1;
  if (sock_add(fd) != 0) {
    CALL_REAL(close, fd);
    errno = EMFILE;
    return -1;
  }
  trace("socket(AF_NETLINK, %d, %d) = %d", type, protocol, fd);
  return fd;
}

EXPORT int bind(int fd, const struct sockaddr *addr, socklen_t len) {
  struct nl_sock s;
  int index = sock_find(fd, &s);
  if (index < 0)
    return CALL_REAL(bind, fd, addr, len);

  struct sockaddr_nl nl;
  if (read_nl_addr(addr, len, &nl) != 0)
    return -1;
  if (failing(FAIL_BIND)) {
    errno = EADDRINUSE;
    return -1;
  }
  if (s.bound) { /* netlink allows rebinding to the same port */
    if (nl.nl_pid == 0 || nl.nl_pid == s.port)
      return 0;
    errno = EINVAL;
    return -1;
  }
  int rc = nl.nl_pid == 0 ? autobind(&s) : bind_port(&s, nl.nl_pid);
  if (rc == 0)
    sock_store(index, &s);
  return rc;
}

EXPORT int connect(int fd, const struct sockaddr *addr, socklen_t len) {
  struct nl_sock s;
  int index = sock_find(fd, &s);
  if (index < 0)
    return CALL_REAL(connect, fd, addr, len);

  if (addr && len >= sizeof(sa_family_t) && addr->sa_family == AF_UNSPEC) {
    s.connected = 0;
    s.dst_port = 0;
    sock_store(index, &s);
    return 0;
  }
  struct sockaddr_nl nl;
  if (read_nl_addr(addr, len, &nl) != 0)
    return -1;
  if (!s.bound && autobind(&s) != 0)
    return -1;
  s.connected = 1;
  s.dst_port = nl.nl_pid;
  sock_store(index, &s);
  return 0;
}

static ssize_t stub_sendmsg(int index, struct nl_sock *s, const struct msghdr *msg, int flags) {
  uint32_t dst = s->connected ? s->dst_port : 0;
  if (msg->msg_name) {
    struct sockaddr_nl nl;
    if (read_nl_addr(msg->msg_name, msg->msg_namelen, &nl) != 0)
      return -1;
    dst = nl.nl_pid;
  }
  if (failing(FAIL_SEND)) {
    errno = ECONNREFUSED;
    return -1;
  }
  if (!s->bound) {
    if (autobind(s) != 0)
      return -1;
    sock_store(index, s);
  }
  struct sockaddr_un un;
  struct msghdr copy = *msg;
  copy.msg_name = &un;
  copy.msg_namelen = port_to_unix(dst, &un);
  ssize_t n = CALL_REAL(sendmsg, s->fd, &copy, flags);
  int saved = errno;
  trace("fd %d sent %zd bytes to port %u%s%s", s->fd, n, dst, n < 0 ? ": " : "",
        n < 0 ? strerror(saved) : "");
  errno = saved;
  return n;
}

EXPORT ssize_t sendmsg(int fd, const struct msghdr *msg, int flags) {
  struct nl_sock s;
  int index = sock_find(fd, &s);
  if (index < 0 || !msg)
    return CALL_REAL(sendmsg, fd, msg, flags);
  return stub_sendmsg(index, &s, msg, flags);
}

EXPORT ssize_t sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *addr,
                      socklen_t alen) {
  struct nl_sock s;
  int index = sock_find(fd, &s);
  if (index < 0)
    return CALL_REAL(sendto, fd, buf, len, flags, addr, alen);
  struct iovec iov = {.iov_base = (void *)buf, .iov_len = len};
  struct msghdr msg = {.msg_name = (void *)addr, .msg_namelen = addr ? alen : 0,
                       .msg_iov = &iov, .msg_iovlen = 1};
  return stub_sendmsg(index, &s, &msg, flags);
}

EXPORT ssize_t send(int fd, const void *buf, size_t len, int flags) {
  struct nl_sock s;
  int index = sock_find(fd, &s);
  if (index < 0)
    return CALL_REAL(send, fd, buf, len, flags);
  struct iovec iov = {.iov_base = (void *)buf, .iov_len = len};
  struct msghdr msg = {.msg_iov = &iov, .msg_iovlen = 1};
  return stub_sendmsg(index, &s, &msg, flags);
}

EXPORT ssize_t recvmsg(int fd, struct msghdr *msg, int flags) {
  if (!msg || !msg->msg_name || sock_find(fd, NULL) < 0)
    return CALL_REAL(recvmsg, fd, msg, flags);

  void *user_name = msg->msg_name;
  socklen_t user_len = msg->msg_namelen;
  struct sockaddr_un un;
  msg->msg_name = &un;
  msg->msg_namelen = sizeof(un);
  ssize_t n = CALL_REAL(recvmsg, fd, msg, flags);
  int saved = errno;
  socklen_t got = msg->msg_namelen;
  msg->msg_name = user_name;
  msg->msg_namelen = user_len;
  if (n >= 0)
    fill_nl_addr(unix_to_port(&un, got), user_name, &msg->msg_namelen);
  errno = saved;
  return n;
}

EXPORT ssize_t recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *addr,
                        socklen_t *alen) {
  if (!addr || !alen || sock_find(fd, NULL) < 0)
    return CALL_REAL(recvfrom, fd, buf, len, flags, addr, alen);

  struct sockaddr_un un;
  socklen_t got = sizeof(un);
  ssize_t n = CALL_REAL(recvfrom, fd, buf, len, flags, (struct sockaddr *)&un, &got);
  if (n >= 0) {
    int saved = errno;
    fill_nl_addr(unix_to_port(&un, got), addr, alen);
    errno = saved;
  }
  return n;
}

EXPORT int getsockname(int fd, struct sockaddr *addr, socklen_t *alen) {
  struct nl_sock s;
  if (sock_find(fd, &s) < 0)
    return CALL_REAL(getsockname, fd, addr, alen);
  if (!addr || !alen) {
    errno = EFAULT;
    return -1;
  }
  fill_nl_addr(s.bound ? s.port : 0, addr, alen);
  return 0;
}

EXPORT int setsockopt(int fd, int level, int name, const void *val, socklen_t len) {
  if (level != SOL_NETLINK || sock_find(fd, NULL) < 0)
    return CALL_REAL(setsockopt, fd, level, name, val, len);
  /* Group membership and the like: nothing to do without a kernel. */
  if (!val || len < sizeof(int)) {
    errno = EINVAL;
    return -1;
  }
  return 0;
}

EXPORT int getsockopt(int fd, int level, int name, void *val, socklen_t *len) {
  if (level != SOL_SOCKET || (name != SO_DOMAIN && name != SO_PROTOCOL && name != SO_TYPE) ||
      sock_find(fd, NULL) < 0)
    return CALL_REAL(getsockopt, fd, level, name, val, len);
  if (!val || !len || *len < sizeof(int)) {
    errno = EINVAL;
    return -1;
  }
  int v = name == SO_DOMAIN ? AF_NETLINK : name == SO_PROTOCOL ? NLSTUB_PROTOCOL : SOCK_RAW;
  memcpy(val, &v, sizeof(v));
  *len = sizeof(v);
  return 0;
}

EXPORT int close(int fd) {
  sock_forget(fd);
  return CALL_REAL(close, fd);
}
