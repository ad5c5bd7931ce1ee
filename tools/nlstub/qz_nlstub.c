/*
 * Preloaded stand-in for the router's kernel module on netlink protocol 28.
 *
 * Test machines have no such protocol, so socket(AF_NETLINK, SOCK_RAW, 28)
 * gives an AF_UNIX datagram socket, and netlink port ids are abstract unix
 * names: port 0 (the kernel) is "\0qz_nl28/kernel", port N "\0qz_nl28/N".
 * The daemon's netlink code runs unchanged; the test plays the kernel on
 * "\0qz_nl28/kernel". Abstract names belong to the network namespace, so
 * tests in separate namespaces never meet.
 *
 * Only what the daemon does with its one netlink socket is carried over:
 * bind, sendmsg and recvmsg with netlink addresses, and close.
 *
 * Environment (optional):
 *   QZ_NLSTUB_FAIL   "socket", "bind" or "send": that call fails
 *                    (EPROTONOSUPPORT, EADDRINUSE, ECONNREFUSED), to drive
 *                    the daemon's error paths.
 *   QZ_NLSTUB_QLEN   receive queue depth in datagrams (net.unix.max_dgram_qlen
 *                    is raised around the socket() call; root in the
 *                    namespace). A real netlink socket queues far more than
 *                    the unix default of 10.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define NLSTUB_PROTOCOL 28
#define QLEN_SYSCTL "/proc/sys/net/unix/max_dgram_qlen"
#define EXPORT __attribute__((visibility("default")))

/* The stub socket of the process: the daemon has one. */
static int stub_fd = -1;

/* Real functions, looked up on first use: the stub may be entered before
 * any constructor has run (sanitizer start-up, other preloads). */
#define REAL(name)                                                  \
  ({                                                                \
    static __typeof__(&name) real_fn;                               \
    if (!real_fn)                                                   \
      real_fn = (__typeof__(&name))dlsym(RTLD_NEXT, #name);         \
    real_fn;                                                        \
  })

static int failing(const char *call) {
  const char *env = getenv("QZ_NLSTUB_FAIL");
  return env && strstr(env, call);
}

static socklen_t unix_name(uint32_t port, struct sockaddr_un *un) {
  memset(un, 0, sizeof(*un));
  un->sun_family = AF_UNIX;
  int n = port ? snprintf(un->sun_path + 1, sizeof(un->sun_path) - 1, "qz_nl28/%u", port)
               : snprintf(un->sun_path + 1, sizeof(un->sun_path) - 1, "qz_nl28/kernel");
  return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + (size_t)n);
}

static int sysctl_qlen(int value) {
  int fd = open(QLEN_SYSCTL, value < 0 ? O_RDONLY : O_WRONLY);
  char buf[32];
  int n = 0;
  if (fd < 0)
    return -1;
  if (value < 0) {
    ssize_t got = read(fd, buf, sizeof(buf) - 1);
    buf[got > 0 ? got : 0] = '\0';
    n = atoi(buf);
  } else {
    n = snprintf(buf, sizeof(buf), "%d\n", value);
    n = write(fd, buf, (size_t)n) == n ? value : -1;
  }
  REAL(close)(fd);
  return n;
}

EXPORT int socket(int domain, int type, int protocol) {
  if (domain != AF_NETLINK || protocol != NLSTUB_PROTOCOL)
    return REAL(socket)(domain, type, protocol);
  if (failing("socket")) {
    errno = EPROTONOSUPPORT;
    return -1;
  }
  /* The queue depth of a unix datagram socket is fixed when it is made. */
  const char *env = getenv("QZ_NLSTUB_QLEN");
  int old = env ? sysctl_qlen(-1) : -1;
  if (old > 0)
    sysctl_qlen(atoi(env));
  int fd = REAL(socket)(AF_UNIX, SOCK_DGRAM | (type & (SOCK_CLOEXEC | SOCK_NONBLOCK)), 0);
  int saved = errno;
  if (old > 0)
    sysctl_qlen(old);
  errno = saved;
  if (fd >= 0)
    stub_fd = fd;
  return fd;
}

EXPORT int bind(int fd, const struct sockaddr *addr, socklen_t len) {
  if (fd != stub_fd || stub_fd < 0)
    return REAL(bind)(fd, addr, len);
  if (failing("bind")) {
    errno = EADDRINUSE;
    return -1;
  }
  struct sockaddr_nl nl;
  if (len < sizeof(nl)) {
    errno = EINVAL;
    return -1;
  }
  memcpy(&nl, addr, sizeof(nl));
  struct sockaddr_un un;
  socklen_t un_len = unix_name(nl.nl_pid ? nl.nl_pid : (uint32_t)getpid(), &un);
  return REAL(bind)(fd, (struct sockaddr *)&un, un_len);
}

EXPORT ssize_t sendmsg(int fd, const struct msghdr *msg, int flags) {
  if (fd != stub_fd || stub_fd < 0 || !msg)
    return REAL(sendmsg)(fd, msg, flags);
  if (failing("send")) {
    errno = ECONNREFUSED;
    return -1;
  }
  struct sockaddr_nl nl = {.nl_family = AF_NETLINK};
  if (msg->msg_name && msg->msg_namelen >= sizeof(nl))
    memcpy(&nl, msg->msg_name, sizeof(nl));
  struct sockaddr_un un;
  struct msghdr copy = *msg;
  copy.msg_name = &un;
  copy.msg_namelen = unix_name(nl.nl_pid, &un);
  return REAL(sendmsg)(fd, &copy, flags);
}

/* Every sender is the kernel, as on a router: port 0. */
EXPORT ssize_t recvmsg(int fd, struct msghdr *msg, int flags) {
  if (fd != stub_fd || stub_fd < 0 || !msg || !msg->msg_name)
    return REAL(recvmsg)(fd, msg, flags);
  void *name = msg->msg_name;
  socklen_t name_len = msg->msg_namelen;
  msg->msg_name = NULL;
  msg->msg_namelen = 0;
  ssize_t n = REAL(recvmsg)(fd, msg, flags);
  struct sockaddr_nl nl = {.nl_family = AF_NETLINK};
  memcpy(name, &nl, name_len < sizeof(nl) ? name_len : sizeof(nl));
  msg->msg_name = name;
  msg->msg_namelen = sizeof(nl);
  return n;
}

EXPORT int close(int fd) {
  if (fd == stub_fd)
    stub_fd = -1;
  return REAL(close)(fd);
}
