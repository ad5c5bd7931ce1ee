/*
 * Client of the netlink stub for its self-test (test_nlstub.py).
 *
 *   qz_nlstub_probe register COUNT
 *       Opens protocol 28 the way the daemon does, registers with an 80-byte
 *       message to port 0 and prints one line per received event, taking
 *       them in turn with recvmsg, recvfrom and recv(MSG_DONTWAIT).
 *   qz_nlstub_probe checks
 *       Local checks of the stub's netlink behaviour, one "ok"/"FAIL" line
 *       each; exit status 1 if any failed.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#define PROTO 28
#define EVENT_BUF 1040

static int failures;

static void check(int ok, const char *name, const char *detail) {
  if (ok) {
    printf("ok %s\n", name);
  } else {
    printf("FAIL %s: %s (errno %d %s)\n", name, detail, errno, strerror(errno));
    failures++;
  }
}

static struct sockaddr_nl nl_addr(uint32_t port) {
  struct sockaddr_nl nl;
  memset(&nl, 0, sizeof(nl));
  nl.nl_family = AF_NETLINK;
  nl.nl_pid = port;
  return nl;
}

static uint32_t port_of(int fd) {
  struct sockaddr_nl nl;
  socklen_t len = sizeof(nl);
  memset(&nl, 0xff, sizeof(nl));
  if (getsockname(fd, (struct sockaddr *)&nl, &len) != 0 || nl.nl_family != AF_NETLINK)
    return 0;
  return nl.nl_pid;
}

static int nl_socket(int flags) { return socket(AF_NETLINK, SOCK_RAW | flags, PROTO); }

static int wait_readable(int fd, int ms) {
  struct pollfd p = {.fd = fd, .events = POLLIN};
  return poll(&p, 1, ms) == 1;
}

static void print_event(int i, const char *via, ssize_t n, const struct msghdr *msg,
                        const uint8_t *buf) {
  uint32_t nlmsg_len = 0;
  if (n >= 4)
    memcpy(&nlmsg_len, buf, 4);
  printf("event i=%d via=%s ret=%zd", i, via, n);
  if (msg)
    printf(" port=%u namelen=%u trunc=%d", ((const struct sockaddr_nl *)msg->msg_name)->nl_pid,
           (unsigned)msg->msg_namelen, (msg->msg_flags & MSG_TRUNC) != 0);
  printf(" nlmsg_len=%u type=%u mac=%02x:%02x:%02x:%02x:%02x:%02x"
         " src=%u.%u.%u.%u:%u dst=%u.%u.%u.%u:%u\n",
         nlmsg_len, buf[16], buf[32], buf[33], buf[34], buf[35], buf[36], buf[37], buf[40],
         buf[41], buf[42], buf[43], buf[48] << 8 | buf[49], buf[44], buf[45], buf[46], buf[47],
         buf[50] << 8 | buf[51]);
}

static int run_register(int count) {
  int fd = nl_socket(SOCK_CLOEXEC);
  if (fd < 0) {
    printf("socket failed errno=%d %s\n", errno, strerror(errno));
    return 2;
  }
  printf("cloexec=%d\n", (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);

  int rcvbuf = 4 * 1024 * 1024;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf)) != 0) {
    printf("setsockopt failed errno=%d\n", errno);
    return 2;
  }
  struct sockaddr_nl local = nl_addr((uint32_t)getpid());
  if (bind(fd, (struct sockaddr *)&local, sizeof(local)) != 0) {
    printf("bind failed errno=%d %s\n", errno, strerror(errno));
    return 2;
  }
  printf("bound port=%u\n", port_of(fd));

  uint8_t buf[EVENT_BUF];
  ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
  printf("dontwait ret=%zd errno=%s\n", n, n < 0 && errno == EAGAIN ? "EAGAIN" : "other");

  /* The daemon's registration message. */
  uint8_t reg[80] = {0};
  struct nlmsghdr *h = (struct nlmsghdr *)reg;
  h->nlmsg_len = sizeof(reg);
  h->nlmsg_pid = (uint32_t)getpid();
  const uint32_t one = 1;
  memcpy(reg + 16, &one, 4);
  reg[20] = 1;
  reg[21] = 1;
  struct sockaddr_nl kernel = nl_addr(0);
  struct iovec iov = {.iov_base = reg, .iov_len = sizeof(reg)};
  struct msghdr msg = {.msg_name = &kernel, .msg_namelen = sizeof(kernel), .msg_iov = &iov,
                       .msg_iovlen = 1};
  n = sendmsg(fd, &msg, 0);
  printf("registered ret=%zd%s%s\n", n, n < 0 ? " " : "", n < 0 ? strerror(errno) : "");
  fflush(stdout);

  for (int i = 0; i < count; i++) {
    if (!wait_readable(fd, 10000)) {
      printf("timeout i=%d\n", i);
      return 3;
    }
    memset(buf, 0, sizeof(buf));
    struct sockaddr_nl from;
    memset(&from, 0xee, sizeof(from));
    switch (i % 3) {
    case 0: {
      struct iovec riov = {.iov_base = buf, .iov_len = sizeof(buf)};
      struct msghdr rmsg = {.msg_name = &from, .msg_namelen = sizeof(from), .msg_iov = &riov,
                            .msg_iovlen = 1};
      n = recvmsg(fd, &rmsg, 0);
      print_event(i, "recvmsg", n, &rmsg, buf);
      break;
    }
    case 1: {
      struct sockaddr_storage big;
      memset(&big, 0xee, sizeof(big));
      socklen_t len = sizeof(big);
      n = recvfrom(fd, buf, sizeof(buf), 0, (struct sockaddr *)&big, &len);
      struct msghdr view = {.msg_name = &big, .msg_namelen = len};
      print_event(i, "recvfrom", n, &view, buf);
      break;
    }
    default:
      n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
      print_event(i, "recv", n, NULL, buf);
      break;
    }
    fflush(stdout);
  }
  close(fd);
  printf("done\n");
  return 0;
}

static void checks_options(void) {
  int fd = nl_socket(SOCK_NONBLOCK);
  check(fd >= 0, "socket-nonblock", "socket");
  check((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0, "nonblock-applied", "O_NONBLOCK missing");
  check((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0, "no-cloexec-unless-asked", "FD_CLOEXEC set");

  uint8_t buf[16];
  struct sockaddr_nl from;
  struct iovec iov = {.iov_base = buf, .iov_len = sizeof(buf)};
  struct msghdr msg = {.msg_name = &from, .msg_namelen = sizeof(from), .msg_iov = &iov,
                       .msg_iovlen = 1};
  errno = 0;
  check(recvmsg(fd, &msg, 0) < 0 && errno == EAGAIN, "nonblock-recvmsg-eagain", "no EAGAIN");

  int v = 0;
  socklen_t len = sizeof(v);
  check(getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &v, &len) == 0 && v == PROTO, "so-protocol",
        "not 28");
  len = sizeof(v);
  check(getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &v, &len) == 0 && v == AF_NETLINK, "so-domain",
        "not AF_NETLINK");
  v = 1 << 20;
  check(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &v, sizeof(v)) == 0, "so-rcvbuf", "refused");
  check(setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &v, sizeof(v)) == 0, "so-rcvbufforce",
        "refused");
  v = 1;
  check(setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &v, sizeof(v)) == 0,
        "netlink-membership", "refused");
  close(fd);
}

static void checks_addresses(void) {
  const uint32_t pid = (uint32_t)getpid();
  int a = nl_socket(0), b = nl_socket(0), c = nl_socket(0), d = nl_socket(0);

  struct sockaddr_nl any = nl_addr(0);
  check(bind(a, (struct sockaddr *)&any, sizeof(any)) == 0 && port_of(a) == pid,
        "bind-0-takes-pid", "port is not the process id");
  check(bind(b, (struct sockaddr *)&any, sizeof(any)) == 0 && port_of(b) == 0xffffefffu,
        "bind-0-then-negative-port", "second autobind port");
  struct sockaddr_nl mine = nl_addr(pid);
  errno = 0;
  check(bind(c, (struct sockaddr *)&mine, sizeof(mine)) < 0 && errno == EADDRINUSE,
        "bind-taken-port", "no EADDRINUSE");
  check(bind(a, (struct sockaddr *)&mine, sizeof(mine)) == 0, "rebind-same-port", "refused");
  struct sockaddr_nl other = nl_addr(777);
  errno = 0;
  check(bind(a, (struct sockaddr *)&other, sizeof(other)) < 0 && errno == EINVAL,
        "rebind-other-port", "not EINVAL");
  errno = 0;
  check(bind(c, (struct sockaddr *)&other, 8) < 0 && errno == EINVAL, "bind-short-address",
        "not EINVAL");
  struct sockaddr bad = {.sa_family = AF_INET};
  errno = 0;
  check(sendto(a, "x", 1, 0, &bad, sizeof(struct sockaddr_nl)) < 0 && errno == EINVAL,
        "send-wrong-family", "not EINVAL");

  /* Unicast between two ports, and a sender that never bound (d): it gets a
   * port on its first send, which the receiver sees as the source. */
  struct sockaddr_nl to_a = nl_addr(pid);
  check(sendto(b, "from-b", 6, 0, (struct sockaddr *)&to_a, sizeof(to_a)) == 6, "send-b-to-a",
        "sendto");
  check(sendto(d, "from-d", 6, 0, (struct sockaddr *)&to_a, sizeof(to_a)) == 6, "send-d-to-a",
        "sendto");
  const uint32_t d_port = port_of(d);
  check(d_port != 0 && d_port != pid && d_port != 0xffffefffu, "send-autobinds", "no port");

  char buf[4];
  struct sockaddr_nl from;
  socklen_t len = sizeof(from);
  ssize_t n = recvfrom(a, buf, sizeof(buf), 0, (struct sockaddr *)&from, &len);
  check(n == 4 && from.nl_family == AF_NETLINK && from.nl_pid == 0xffffefffu &&
            len == sizeof(from),
        "recvfrom-source-port", "wrong source or length");
  struct iovec iov = {.iov_base = buf, .iov_len = sizeof(buf)};
  struct msghdr msg = {.msg_name = &from, .msg_namelen = sizeof(from), .msg_iov = &iov,
                       .msg_iovlen = 1};
  n = recvmsg(a, &msg, 0);
  check(n == 4 && (msg.msg_flags & MSG_TRUNC) && from.nl_pid == d_port, "recvmsg-trunc-source",
        "wrong source or no MSG_TRUNC");

  close(a);
  close(b);
  close(c);
  close(d);
}

/* A descriptor closed behind the stub's back and reused must not be taken
 * for a netlink socket. */
static void checks_reuse(void) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) != 0) {
    check(0, "socketpair", "socketpair");
    return;
  }
  int fd = nl_socket(0);
  syscall(SYS_close, fd);
  check(syscall(SYS_dup2, sv[0], fd) == fd, "dup2-over-stub-number", "dup2");
  check(send(fd, "hello", 5, 0) == 5, "reused-number-passes-through", "send");
  char buf[8];
  check(recv(sv[1], buf, sizeof(buf), MSG_DONTWAIT) == 5, "reused-number-peer-got-it", "recv");
  close(fd);
  close(sv[0]);
  close(sv[1]);

  /* After close() the number is free for ordinary sockets as well. */
  fd = nl_socket(0);
  close(fd);
  if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) != 0)
    return;
  check(send(sv[0], "x", 1, 0) == 1 && recv(sv[1], buf, sizeof(buf), MSG_DONTWAIT) == 1,
        "closed-number-passes-through", "send");
  close(sv[0]);
  close(sv[1]);
}

static void checks_other_protocols(void) {
  int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
  check(fd >= 0, "route-netlink-socket", "socket");
  int v = -1;
  socklen_t len = sizeof(v);
  check(getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &v, &len) == 0 && v == NETLINK_ROUTE,
        "route-netlink-is-real", "protocol");
  struct sockaddr_nl any = nl_addr(0);
  check(bind(fd, (struct sockaddr *)&any, sizeof(any)) == 0, "route-netlink-bind", "bind");
  close(fd);

  fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  len = sizeof(v);
  check(getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &v, &len) == 0 && v == AF_UNIX, "unix-untouched",
        "domain");
  close(fd);
}

int main(int argc, char **argv) {
  if (argc == 3 && strcmp(argv[1], "register") == 0)
    return run_register(atoi(argv[2]));
  if (argc == 2 && strcmp(argv[1], "checks") == 0) {
    int fd = nl_socket(0);
    if (fd < 0) {
      check(0, "socket", "is the stub preloaded?");
      return 1;
    }
    close(fd);
    checks_options();
    checks_addresses();
    checks_reuse();
    checks_other_protocols();
    printf("failures=%d\n", failures);
    return failures ? 1 : 0;
  }
  fprintf(stderr, "usage: %s register COUNT | checks\n", argv[0]);
  return 2;
}
