/*
 * loregd: the registry daemon.
 *
 * Hosts one repository server on an lmq bus. In its usual form it is the
 * bus's hub: it listens on a Unix socket, and clients (loregctl, the
 * platform's services) connect their own message servers to it. With
 * --connect it joins a bus that another process hosts instead, so that
 * several servers, each with its own root, serve one bus.
 *
 * Threads: the main thread sets everything up, then waits for SIGTERM or
 * SIGINT (blocked in every thread and taken with sigtimedwait, so no
 * handler runs at all) and shuts the server down, which commits what is
 * dirty. The server's own thread "lorsmain" and the bus thread "lmqbus"
 * do the work.
 *
 * Exit statuses: 0 stopped by a signal; 1 the start failed (socket in
 * use, bus unreachable, server not started); 2 the hub of the bus went
 * away (--connect only); 64 bad command line.
 */
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "loreg/lors.h"
#include "loreg/lors_fio.h"
#include "platform/csp_debug.h"
#include "platform/lmq.h"
#include "tool_args.h"

#define LOREGD_EXIT_OK 0
#define LOREGD_EXIT_START 1
#define LOREGD_EXIT_HUB_GONE 2
#define LOREGD_EXIT_USAGE 64

#define LOREGD_DEFAULT_SOCKET "/tmp/loreg.sock"
#define LOREGD_DEFAULT_ROOT LORS_DEFAULT_ROOT_PATH
#define LOREGD_DEFAULT_FILE0 "/tmp/loreg0.dat"
#define LOREGD_DEFAULT_FILE1 "/tmp/loreg1.dat"
#define LOREGD_DEFAULT_COMMIT_DELAY_MS 5000u
#define LOREGD_DEFAULT_COMMIT_INTERVAL_MS 60000u
#define LOREGD_DEFAULT_SOCKET_MODE 0600u

/* Debug channels of the registry and of lmq, and the thresholds that -v
 * steps through: failures by default, then detail, then tracing. */
#define LOREGD_CHANNEL_REGISTRY 0x6Bu
#define LOREGD_CHANNEL_LMQ 0x6Cu
#define LOREGD_THRESHOLD_DEFAULT 3000u
#define LOREGD_THRESHOLD_STEP 1000u
#define LOREGD_THRESHOLD_MAX 5000u

/* How long --connect waits for the hub, and how often the main thread
 * looks whether the hub is still there. */
#define LOREGD_CONNECT_TIMEOUT_SEC 10
#define LOREGD_WATCH_PERIOD_SEC 1

/* Longest root path accepted. */
#define LOREGD_ROOT_MAX 255u

typedef struct loregd_options {
  const char *socket_path;
  const char *connect_path;
  const char *root;
  const char *file0;
  const char *file1;
  uint32_t commit_delay_ms;
  uint32_t commit_interval_ms;
  uint32_t socket_mode;
  int socket_given;
  int socket_mode_given;
  int no_persist;
  int export_both;
  int foreground;
  int verbosity;
} loregd_options;

/* Where log lines go: standard error until the daemon has detached, then
 * syslog. */
static int g_loregd_use_syslog;

static void _loregd_sink(void *context, uint32_t channel, uint32_t level, uint32_t module,
                         const char *text) {
  size_t len = strlen(text);
  (void)context;
  (void)channel;
  (void)module;
  if (g_loregd_use_syslog) {
    int priority = LOG_DEBUG;
    if (level <= 1u) {
      priority = LOG_NOTICE;
    } else if (level <= 1000u) {
      priority = LOG_CRIT;
    } else if (level <= 2000u) {
      priority = LOG_WARNING;
    } else if (level <= 3000u) {
      priority = LOG_ERR;
    } else if (level <= 4000u) {
      priority = LOG_INFO;
    }
    while (len > 0 && text[len - 1] == '\n') len--;
    syslog(priority, "%.*s", (int)len, text);
    return;
  }
  /* One write per line, so that lines of different threads never mix. */
  while (len > 0) {
    ssize_t n = write(STDERR_FILENO, text, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text += n;
    len -= (size_t)n;
  }
}

/* The daemon's own lines: always shown, through the same sink as the
 * library's. level is that of the library's scale (1 status, 3000
 * failure). */
static void _loregd_log(uint32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
static void _loregd_log(uint32_t level, const char *format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  _loregd_sink(NULL, 0, level, 0, text);
}

static void _loregd_usage(FILE *out) {
  fprintf(out,
          "Usage: loregd [OPTION]...\n"
          "Registry daemon: hosts a repository server on an lmq bus.\n"
          "\n"
          "Bus:\n"
          "  --socket PATH           listen on the Unix socket PATH as the bus's hub\n"
          "                          (default " LOREGD_DEFAULT_SOCKET ")\n"
          "  --socket-mode OCTAL     permission bits of the socket (default 0600, owner\n"
          "                          only; e.g. 0660 lets the group connect)\n"
          "  --connect PATH          join the bus whose hub listens at PATH instead of\n"
          "                          hosting one (another server with another root)\n"
          "Repository:\n"
          "  --root PATH             root path of the server's tree (default\n"
          "                          \"" LOREGD_DEFAULT_ROOT "\"; \"/\" serves the whole tree)\n"
          "  --file0 PATH            first repository file (default " LOREGD_DEFAULT_FILE0 ")\n"
          "  --file1 PATH            second repository file (default " LOREGD_DEFAULT_FILE1 ")\n"
          "  --commit-delay MS       commit MS milliseconds after the last change\n"
          "                          (default 5000; 0 turns it off)\n"
          "  --commit-interval MS    while changes keep coming, commit every MS\n"
          "                          milliseconds (default 60000; 0 turns it off)\n"
          "  --no-persist            neither read nor write the files\n"
          "  --export-both           ignore the files at start; the first commit\n"
          "                          writes both\n"
          "                          A transaction's end and the shutdown always commit.\n"
          "Process:\n"
          "  --foreground            stay in the foreground and log to standard error\n"
          "                          (otherwise: detach and log to syslog)\n"
          "  -v, --verbose           log more (repeatable: detail, then tracing)\n"
          "  -h, --help              show this help and exit\n"
          "\n"
          "SIGTERM or SIGINT stops the daemon; it commits what is unsaved first.\n"
          "Exit status: 0 stopped by a signal, 1 start failed, 2 the hub of the bus\n"
          "went away (--connect), 64 bad command line.\n");
}

static int _loregd_usage_error(const char *format, ...) __attribute__((format(printf, 1, 2)));
static int _loregd_usage_error(const char *format, ...) {
  va_list args;
  int status;
  va_start(args, format);
  status = tool_usage_error("loregd", LOREGD_EXIT_USAGE, format, args);
  va_end(args);
  return status;
}

/* Parses a whole decimal (or, with base 8, octal) number up to max. */
static int _loregd_parse_u32(const char *text, int base, uint32_t max, uint32_t *out) {
  unsigned long long value;
  int rc = tool_parse_number(text, base, max, &value);
  if (rc == 0) *out = (uint32_t)value;
  return rc;
}

/* A root must be absolute, without empty elements, and free of bytes that
 * the repository file and log lines cannot carry as they are. "/" alone
 * serves the whole tree. */
static const char *_loregd_root_problem(const char *root) {
  size_t len = strlen(root);
  size_t i;
  if (len == 0 || root[0] != '/') return "must begin with '/'";
  if (len > LOREGD_ROOT_MAX) return "is too long";
  if (strstr(root, "//") != NULL) return "has an empty element";
  for (i = 0; i < len; i++) {
    unsigned char c = (unsigned char)root[i];
    if (c <= 0x20 || c == 0x7F || c == '%') return "holds a blank, control or '%' byte";
  }
  return NULL;
}

enum {
  OPT_SOCKET = 256,
  OPT_SOCKET_MODE,
  OPT_CONNECT,
  OPT_ROOT,
  OPT_FILE0,
  OPT_FILE1,
  OPT_COMMIT_DELAY,
  OPT_COMMIT_INTERVAL,
  OPT_NO_PERSIST,
  OPT_EXPORT_BOTH,
  OPT_FOREGROUND
};

/* Returns -1 to go on, or an exit status. */
static int _loregd_parse(int argc, char **argv, loregd_options *opt) {
  static const struct option longopts[] = {
      {"socket", required_argument, NULL, OPT_SOCKET},
      {"socket-mode", required_argument, NULL, OPT_SOCKET_MODE},
      {"connect", required_argument, NULL, OPT_CONNECT},
      {"root", required_argument, NULL, OPT_ROOT},
      {"file0", required_argument, NULL, OPT_FILE0},
      {"file1", required_argument, NULL, OPT_FILE1},
      {"commit-delay", required_argument, NULL, OPT_COMMIT_DELAY},
      {"commit-interval", required_argument, NULL, OPT_COMMIT_INTERVAL},
      {"no-persist", no_argument, NULL, OPT_NO_PERSIST},
      {"export-both", no_argument, NULL, OPT_EXPORT_BOTH},
      {"foreground", no_argument, NULL, OPT_FOREGROUND},
      {"verbose", no_argument, NULL, 'v'},
      {"help", no_argument, NULL, 'h'},
      {NULL, 0, NULL, 0}};
  const char *problem;
  int c;

  memset(opt, 0, sizeof(*opt));
  opt->socket_path = LOREGD_DEFAULT_SOCKET;
  opt->root = LOREGD_DEFAULT_ROOT;
  opt->file0 = LOREGD_DEFAULT_FILE0;
  opt->file1 = LOREGD_DEFAULT_FILE1;
  opt->commit_delay_ms = LOREGD_DEFAULT_COMMIT_DELAY_MS;
  opt->commit_interval_ms = LOREGD_DEFAULT_COMMIT_INTERVAL_MS;
  opt->socket_mode = LOREGD_DEFAULT_SOCKET_MODE;

  opterr = 0;
  while ((c = getopt_long(argc, argv, ":vh", longopts, NULL)) != -1) {
    switch (c) {
      case OPT_SOCKET:
        opt->socket_path = optarg;
        opt->socket_given = 1;
        break;
      case OPT_SOCKET_MODE:
        if (_loregd_parse_u32(optarg, 8, 0777u, &opt->socket_mode) != 0) {
          return _loregd_usage_error("--socket-mode wants octal permission bits up to 0777, "
                                     "not '%s'",
                                     optarg);
        }
        opt->socket_mode_given = 1;
        break;
      case OPT_CONNECT:
        opt->connect_path = optarg;
        break;
      case OPT_ROOT:
        opt->root = optarg;
        break;
      case OPT_FILE0:
        opt->file0 = optarg;
        break;
      case OPT_FILE1:
        opt->file1 = optarg;
        break;
      case OPT_COMMIT_DELAY:
        if (_loregd_parse_u32(optarg, 10, UINT32_MAX, &opt->commit_delay_ms) != 0) {
          return _loregd_usage_error("--commit-delay wants milliseconds, not '%s'", optarg);
        }
        break;
      case OPT_COMMIT_INTERVAL:
        if (_loregd_parse_u32(optarg, 10, UINT32_MAX, &opt->commit_interval_ms) != 0) {
          return _loregd_usage_error("--commit-interval wants milliseconds, not '%s'", optarg);
        }
        break;
      case OPT_NO_PERSIST:
        opt->no_persist = 1;
        break;
      case OPT_EXPORT_BOTH:
        opt->export_both = 1;
        break;
      case OPT_FOREGROUND:
        opt->foreground = 1;
        break;
      case 'v':
        opt->verbosity++;
        break;
      case 'h':
        _loregd_usage(stdout);
        return LOREGD_EXIT_OK;
      case ':':
        return _loregd_usage_error("option '%s' needs an argument", argv[optind - 1]);
      default:
        return _loregd_usage_error("unknown option '%s'", argv[optind - 1]);
    }
  }
  if (optind < argc) return _loregd_usage_error("unexpected argument '%s'", argv[optind]);
  if (opt->connect_path != NULL && (opt->socket_given || opt->socket_mode_given)) {
    return _loregd_usage_error("--connect joins another hub's bus: it takes no --socket or "
                               "--socket-mode");
  }
  if (opt->connect_path != NULL && opt->connect_path[0] == '\0') {
    return _loregd_usage_error("--connect wants a socket path");
  }
  if (opt->socket_path[0] == '\0') return _loregd_usage_error("--socket wants a path");
  if (opt->file0[0] == '\0' || opt->file1[0] == '\0') {
    return _loregd_usage_error("--file0 and --file1 want paths");
  }
  if (strcmp(opt->file0, opt->file1) == 0) {
    return _loregd_usage_error("--file0 and --file1 must name two different files");
  }
  problem = _loregd_root_problem(opt->root);
  if (problem != NULL) return _loregd_usage_error("root '%s' %s", opt->root, problem);
  return -1;
}

/* A path made absolute against the working directory, so that it still
 * holds after the daemon changed to "/". Returns path itself if it is
 * absolute, or a new string (kept for the process's life), or null. */
static const char *_loregd_absolute(const char *path) {
  char cwd[PATH_MAX];
  char *result;
  size_t size;
  if (path == NULL || path[0] == '/') return path;
  if (getcwd(cwd, sizeof(cwd)) == NULL) return NULL;
  size = strlen(cwd) + 1 + strlen(path) + 1;
  result = malloc(size);
  if (result != NULL) snprintf(result, size, "%s/%s", cwd, path);
  return result;
}

/*
 * Detaches from the terminal: forks, and the parent stays until the child
 * reports through *ready_fd that it serves (then exits 0) or fails (then
 * exits with the child's status). The child starts a new session. Returns
 * in the child only.
 */
static void _loregd_detach(int *ready_fd) {
  int fds[2];
  pid_t pid;

  if (pipe(fds) != 0) {
    fprintf(stderr, "loregd: cannot detach: pipe: %s\n", strerror(errno));
    exit(LOREGD_EXIT_START);
  }
  pid = fork();
  if (pid < 0) {
    fprintf(stderr, "loregd: cannot detach: fork: %s\n", strerror(errno));
    exit(LOREGD_EXIT_START);
  }
  if (pid > 0) {
    char byte = 1;
    ssize_t n;
    int status = 0;
    close(fds[1]);
    do {
      n = read(fds[0], &byte, 1);
    } while (n < 0 && errno == EINTR);
    if (n == 1 && byte == 0) _exit(LOREGD_EXIT_OK);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : LOREGD_EXIT_START);
  }
  close(fds[0]);
  (void)fcntl(fds[1], F_SETFD, FD_CLOEXEC);
  if (setsid() < 0) {
    fprintf(stderr, "loregd: cannot detach: setsid: %s\n", strerror(errno));
    exit(LOREGD_EXIT_START);
  }
  *ready_fd = fds[1];
}

/* Tells the waiting parent that the daemon serves, and lets go of the
 * terminal: logging moves to syslog, the standard descriptors to
 * /dev/null. */
static void _loregd_detach_done(int ready_fd) {
  int null_fd;
  char byte = 0;

  openlog("loregd", LOG_PID, LOG_DAEMON);
  g_loregd_use_syslog = 1;
  if (chdir("/") != 0) {
    _loregd_log(3000u, "loregd: chdir /: %s\n", strerror(errno));
  }
  null_fd = open("/dev/null", O_RDWR);
  if (null_fd >= 0) {
    (void)dup2(null_fd, STDIN_FILENO);
    (void)dup2(null_fd, STDOUT_FILENO);
    (void)dup2(null_fd, STDERR_FILENO);
    if (null_fd > STDERR_FILENO) close(null_fd);
  }
  while (write(ready_fd, &byte, 1) < 0 && errno == EINTR) {
  }
  close(ready_fd);
}

static const char *_loregd_bus_error(int rc) {
  switch (rc) {
    case -98:
      return "address in use (is another loregd running there?)";
    case -110:
      return "the hub did not answer in time";
    case -111:
      return "nobody listens there";
    case -2:
      return "no such socket or directory";
    case -17:
      return "the hub refused this node";
    case -71:
      return "the hub speaks another protocol version";
    default:
      return strerror(-rc);
  }
}

/* Joins or hosts the bus. Returns 0 or an exit status. */
static int _loregd_bus_start(lmq_server *bus, const loregd_options *opt) {
  int rc;
  if (opt->connect_path != NULL) {
    _cspOsalTime_struct timeout = {LOREGD_CONNECT_TIMEOUT_SEC, 0};
    rc = lmqServerConnect(bus, opt->connect_path, &timeout);
    if (rc != 0) {
      _loregd_log(1000u, "loregd: cannot join the bus at %s: %s (code %d)\n", opt->connect_path,
                  _loregd_bus_error(rc), rc);
      return LOREGD_EXIT_START;
    }
    return 0;
  }
  rc = lmqServerListen(bus, opt->socket_path, opt->socket_mode);
  if (rc != 0) {
    _loregd_log(1000u, "loregd: cannot listen on %s: %s (code %d)\n", opt->socket_path,
                _loregd_bus_error(rc), rc);
    return LOREGD_EXIT_START;
  }
  return 0;
}

/* Waits for SIGTERM or SIGINT; in --connect mode also gives up when the
 * hub is gone. Returns the exit status. */
static int _loregd_wait(lmq_server *bus, const loregd_options *opt, const sigset_t *stop_signals) {
  for (;;) {
    struct timespec period = {LOREGD_WATCH_PERIOD_SEC, 0};
    int sig = sigtimedwait(stop_signals, NULL, &period);
    if (sig > 0) {
      _loregd_log(1u, "loregd: %s received, stopping\n", sig == SIGTERM ? "SIGTERM" : "SIGINT");
      return LOREGD_EXIT_OK;
    }
    if (opt->connect_path != NULL) {
      lmq_bus_status status;
      if (lmqServerBusStatus(bus, &status) == 0 && status.hub_node == 0) {
        _loregd_log(1000u, "loregd: the hub of the bus at %s went away, stopping\n",
                    opt->connect_path);
        return LOREGD_EXIT_HUB_GONE;
      }
    }
  }
}

int main(int argc, char **argv) {
  loregd_options opt;
  sigset_t stop_signals;
  lmq_server *bus = NULL;
  lors_ctx *server = NULL;
  lors_params params;
  lors_fio fio;
  uint32_t threshold;
  int ready_fd = -1;
  int status;
  int rc;

  status = _loregd_parse(argc, argv, &opt);
  if (status >= 0) return status;

  threshold = LOREGD_THRESHOLD_DEFAULT + (uint32_t)opt.verbosity * LOREGD_THRESHOLD_STEP;
  if (threshold > LOREGD_THRESHOLD_MAX || opt.verbosity > 2) threshold = LOREGD_THRESHOLD_MAX;
  cspDebugSetThreshold(LOREGD_CHANNEL_REGISTRY, threshold);
  cspDebugSetThreshold(LOREGD_CHANNEL_LMQ, threshold);
  cspDebugSetSink(_loregd_sink, NULL);

  if (!opt.foreground) {
    opt.socket_path = _loregd_absolute(opt.socket_path);
    opt.connect_path = _loregd_absolute(opt.connect_path);
    opt.file0 = _loregd_absolute(opt.file0);
    opt.file1 = _loregd_absolute(opt.file1);
    if (opt.socket_path == NULL || opt.file0 == NULL || opt.file1 == NULL) {
      fprintf(stderr, "loregd: cannot resolve relative paths: %s\n", strerror(errno));
      return LOREGD_EXIT_START;
    }
    _loregd_detach(&ready_fd);
  }

  /* The stop signals are taken by the main thread alone, with
   * sigtimedwait: blocked before any thread exists, they stay blocked in
   * all threads. A peer that closes its socket must not kill the
   * daemon. */
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, NULL);
  signal(SIGPIPE, SIG_IGN);
  if (!opt.foreground) signal(SIGHUP, SIG_IGN);

  rc = lmqServerCreate(&bus);
  if (rc != 0) {
    _loregd_log(1000u, "loregd: cannot create the message server (code %d)\n", rc);
    return LOREGD_EXIT_START;
  }
  status = _loregd_bus_start(bus, &opt);
  if (status != 0) {
    lmqServerDestroy(bus);
    return status;
  }

  memset(&fio, 0, sizeof(fio));
  fio.device = NULL;
  fio.file0 = opt.file0;
  fio.file1 = opt.file1;
  memset(&params, 0, sizeof(params));
  params.lmq_server = bus;
  params.root_path = opt.root;
  params.fio = &fio;
  params.commit_delay_final = opt.commit_delay_ms;
  params.commit_delay_intermediate = opt.commit_interval_ms;
  params.options = LORS_OPT_COMMIT_ON_SHUTDOWN | LORS_OPT_COMMIT_DELAYED | LORS_OPT_COMMIT_ON_TA_END;
  if (opt.no_persist) params.options |= LORS_OPT_NO_PERSIST;
  if (opt.export_both) params.options |= LORS_OPT_EXPORT_BOTH;

  rc = lors_init(&server, &params);
  if (rc != 0) {
    _loregd_log(1000u, "loregd: cannot start the repository server for '%s' (code %d)\n",
                opt.root, rc);
    lmqServerDestroy(bus);
    return LOREGD_EXIT_START;
  }

  /* On a bus of another hub, the server is announced once the hub has
   * handled its hosting: a client that connects after the ready line
   * finds it. */
  if (opt.connect_path != NULL) {
    _cspOsalTime_struct timeout = {LOREGD_CONNECT_TIMEOUT_SEC, 0};
    rc = lmqServerBusSync(bus, &timeout);
    if (rc != 0) {
      _loregd_log(1000u, "loregd: the hub at %s does not answer (code %d)\n", opt.connect_path,
                  rc);
      lors_shutdown(server);
      lmqServerDestroy(bus);
      return LOREGD_EXIT_START;
    }
  }

  {
    const char *root = lors_get_rootpath(server);
    _loregd_log(1u, "loregd: ready, root '%s/' on %s %s, files %s %s%s (pid %d)\n",
                root != NULL ? root : "", opt.connect_path != NULL ? "the bus of" : "socket",
                opt.connect_path != NULL ? opt.connect_path : opt.socket_path, opt.file0,
                opt.file1, opt.no_persist ? " (not used)" : "", (int)getpid());
  }
  if (ready_fd >= 0) _loregd_detach_done(ready_fd);

  status = _loregd_wait(bus, &opt, &stop_signals);

  lors_shutdown(server);
  lmqServerDestroy(bus);
  _loregd_log(1u, "loregd: stopped\n");
  cspDebugSetSink(NULL, NULL);
  if (g_loregd_use_syslog) closelog();
  return status;
}
