/*
 * loregctl: command-line client of the registry.
 *
 *   loregctl [--socket PATH] [--timeout S] [-v] COMMAND [ARG]...
 *
 * It joins the lmq bus of a loregd (its own message server connects to the
 * daemon's socket), makes a registry client, waits until every repository
 * server on the bus has announced its root, so that each command goes
 * straight to the server that owns its path, and runs one command with
 * synchronous calls.
 *
 * Output: values and lists on standard output, errors on standard error
 * as "loregctl: COMMAND PATH: REASON". Exit statuses: 0 success, 1 other
 * failure, 2 not found, 3 locked, 4 timed out, 5 no server, 64 bad command
 * line.
 */
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "loreg/loreg_msg.h"
#include "loreg/lorc.h"
#include "platform/csp_debug.h"
#include "platform/lmq.h"
#include "tool_args.h"

#define CTL_EXIT_OK 0
#define CTL_EXIT_FAIL 1
#define CTL_EXIT_NOT_FOUND 2
#define CTL_EXIT_LOCKED 3
#define CTL_EXIT_TIMEOUT 4
#define CTL_EXIT_NO_SERVER 5
#define CTL_EXIT_USAGE 64

#define CTL_DEFAULT_SOCKET "/tmp/loreg.sock"
#define CTL_DEFAULT_TIMEOUT_SEC 5
#define CTL_MAX_TIMEOUT_SEC 86400

/* Values and names fit one message of at most 8191 bytes. */
#define CTL_BUFFER_SIZE 8192u
/* Receive queue of the client: room for a dump of a large subtree. */
#define CTL_QUEUE_KIB 1024u
/* With no repository server seen on the bus after this much, there is
 * none: the bus's system messages are queued by then. */
#define CTL_NO_HOST_GRACE_MS 200
#define CTL_POLL_MS 1

/* Key flags as the server reports them. */
#define CTL_KEYF_USER 0x01u
#define CTL_KEYF_VOLATILE 0x02u
#define CTL_KEYF_DIR 0x08u

/* Bits of a value set. */
#define CTL_SET_USER 0x00001u
#define CTL_SET_VOLATILE 0x00002u
#define CTL_SET_APPLY_USER 0x00100u
#define CTL_SET_APPLY_VOLATILE 0x00200u
#define CTL_SET_APPLY_VALUE 0x00400u
#define CTL_SET_CREATE_KEY 0x10000u
#define CTL_SET_CREATE_DIRS 0x20000u

/* Debug channels of the registry and of lmq. */
#define CTL_CHANNEL_REGISTRY 0x6Bu
#define CTL_CHANNEL_LMQ 0x6Cu

/* --- Command line ---------------------------------------------------- */

typedef struct ctl_args ctl_args;
typedef struct ctl ctl;
typedef int (*ctl_run_fn)(ctl *c, const ctl_args *a, int32_t tid);

/* Options of commands. */
enum {
  CTL_OPT_RAW = 1,
  CTL_OPT_VOLATILE,
  CTL_OPT_USER,
  CTL_OPT_NO_CREATE,
  CTL_OPT_RECURSIVE,
  CTL_OPT_LONG,
  CTL_OPT_MASK,
  CTL_OPT_DEPTH
};

typedef struct ctl_optdef {
  const char *name;
  int id;
  int takes_value;
} ctl_optdef;

typedef struct ctl_cmd {
  const char *name;
  int min_args;
  int max_args;
  int in_tx; /* may run inside tx */
  const ctl_optdef *options;
  ctl_run_fn run;
  const char *synopsis;
} ctl_cmd;

struct ctl_args {
  const ctl_cmd *cmd;
  const char *pos[2];
  int npos;
  int raw;
  int set_volatile;
  int set_user;
  int no_create;
  int recursive;
  int long_list;
  uint32_t mask;
  int32_t depth;
  ctl_args *group; /* tx: the commands, ngroup of them */
  int ngroup;
};

struct ctl {
  const char *socket_path;
  int32_t timeout;
  int verbosity;
  lmq_server *bus;
  lorc_client *client;
  int hosts;           /* repository servers seen on the bus */
  int all_roots_known; /* each of them announced its root */
};

/* The notification printer's state. */
typedef struct ctl_printer {
  FILE *out;
  uint32_t only_reason; /* 0: every reason */
  unsigned long printed;
  int roots_up; /* atomic: "server available" printed less "server gone" */
} ctl_printer;

static int _ctl_get(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_set(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_rm(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_ls(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_count(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_watch(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_dump(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_store(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_reload(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_roots(ctl *c, const ctl_args *a, int32_t tid);
static int _ctl_tx(ctl *c, const ctl_args *a, int32_t tid);

static const ctl_optdef g_ctl_get_opts[] = {{"--raw", CTL_OPT_RAW, 0}, {NULL, 0, 0}};
static const ctl_optdef g_ctl_set_opts[] = {{"--volatile", CTL_OPT_VOLATILE, 0},
                                            {"--user", CTL_OPT_USER, 0},
                                            {"--no-create", CTL_OPT_NO_CREATE, 0},
                                            {NULL, 0, 0}};
static const ctl_optdef g_ctl_ls_opts[] = {{"-R", CTL_OPT_RECURSIVE, 0},
                                           {"-l", CTL_OPT_LONG, 0},
                                           {"--mask", CTL_OPT_MASK, 1},
                                           {NULL, 0, 0}};
static const ctl_optdef g_ctl_count_opts[] = {{"--mask", CTL_OPT_MASK, 1}, {NULL, 0, 0}};
static const ctl_optdef g_ctl_dump_opts[] = {{"--depth", CTL_OPT_DEPTH, 1}, {NULL, 0, 0}};
static const ctl_optdef g_ctl_no_opts[] = {{NULL, 0, 0}};

static const ctl_cmd g_ctl_commands[] = {
    {"get", 1, 1, 1, g_ctl_get_opts, _ctl_get, "get PATH [--raw]"},
    {"set", 2, 2, 1, g_ctl_set_opts, _ctl_set, "set PATH VALUE [--volatile] [--user] [--no-create]"},
    {"rm", 1, 1, 1, g_ctl_no_opts, _ctl_rm, "rm PATH"},
    {"ls", 1, 1, 1, g_ctl_ls_opts, _ctl_ls, "ls PATH [-R] [-l] [--mask HEX]"},
    {"count", 1, 1, 1, g_ctl_count_opts, _ctl_count, "count PATH [--mask HEX]"},
    {"watch", 0, 1, 0, g_ctl_no_opts, _ctl_watch, "watch [PATH]"},
    {"dump", 1, 1, 0, g_ctl_dump_opts, _ctl_dump, "dump PATH [--depth N]"},
    {"store", 0, 0, 0, g_ctl_no_opts, _ctl_store, "store"},
    {"reload", 0, 0, 0, g_ctl_no_opts, _ctl_reload, "reload"},
    {"roots", 0, 0, 0, g_ctl_no_opts, _ctl_roots, "roots"},
    {"tx", 1, 1, 0, g_ctl_no_opts, _ctl_tx, "tx PATH -- COMMAND [ARG]... [-- COMMAND [ARG]...]..."},
};
#define CTL_NCOMMANDS (sizeof(g_ctl_commands) / sizeof(g_ctl_commands[0]))

static void _ctl_usage(FILE *out) {
  fprintf(out,
          "Usage: loregctl [--socket PATH] [--timeout S] [-v] COMMAND [ARG]...\n"
          "Command-line client of the registry daemon loregd.\n"
          "\n"
          "Options:\n"
          "  --socket PATH   socket of the bus's hub (default " CTL_DEFAULT_SOCKET ")\n"
          "  --timeout S     wait at most S seconds for each answer (default 5)\n"
          "  -v              show the library's log lines (repeatable)\n"
          "  -h, --help      show this help and exit\n"
          "\n"
          "Commands (paths are full paths, such as /com/norvi/tv/volume; directory\n"
          "names end in '/'):\n"
          "  get PATH [--raw]         print the value of a key, with a newline unless\n"
          "                           --raw is given\n"
          "  set PATH VALUE [--volatile] [--user] [--no-create]\n"
          "                           set a value, creating the key and its directories\n"
          "                           unless --no-create; --volatile keeps the key out of\n"
          "                           the file, --user sets its user flag\n"
          "  rm PATH                  delete a key with everything below it\n"
          "  ls PATH [-R] [-l] [--mask HEX]\n"
          "                           list the keys in directory PATH, one full path a\n"
          "                           line ('/' is added to PATH if missing); -R descends\n"
          "                           into subdirectories, -l puts the flags in front;\n"
          "                           --mask selects key classes (bit n: flags & 31 == n)\n"
          "  count PATH [--mask HEX]  print the number of keys in directory PATH\n"
          "  watch [PATH]             print every change at or around PATH (default: all)\n"
          "                           until interrupted\n"
          "  dump PATH [--depth N]    print PATH and the keys below it, N levels deep\n"
          "  store                    save the repositories of all servers now\n"
          "  reload                   read the repositories of all servers again\n"
          "  roots                    list the servers' roots: path, flags, 'stale'\n"
          "  tx PATH -- COMMAND [ARG]... [-- COMMAND [ARG]...]...\n"
          "                           lock PATH in a transaction, run the commands (get,\n"
          "                           set, rm, ls, count) with it, then end it; stops at\n"
          "                           the first failure\n"
          "\n"
          "watch and dump print one line a notification:\n"
          "  REASON flags=0xFF tid=N PATH=VALUE\n"
          "with bytes below 0x20, above 0x7e and '\\' of the value written as \\xHH.\n"
          "\n"
          "Exit status: 0 success, 1 other failure, 2 not found, 3 locked, 4 timed\n"
          "out, 5 no server (bus not reachable, or no server owns the path),\n"
          "64 bad command line.\n");
}

static int _ctl_usage_error(const char *format, ...) __attribute__((format(printf, 1, 2)));
static int _ctl_usage_error(const char *format, ...) {
  va_list args;
  int status;
  va_start(args, format);
  status = tool_usage_error("loregctl", CTL_EXIT_USAGE, format, args);
  va_end(args);
  return status;
}

static int _ctl_parse_uint(const char *text, int base, unsigned long long max,
                           unsigned long long *out) {
  return tool_parse_number(text, base, max, out);
}

static const ctl_cmd *_ctl_find_command(const char *name) {
  size_t i;
  for (i = 0; i < CTL_NCOMMANDS; i++) {
    if (strcmp(g_ctl_commands[i].name, name) == 0) return &g_ctl_commands[i];
  }
  return NULL;
}

/* An argument that begins with '-' and a letter (or a second '-') is an
 * option; "-", "-5" and the like are values. */
static int _ctl_looks_like_option(const char *arg) {
  return arg[0] == '-' && arg[1] != '\0' && !(arg[1] >= '0' && arg[1] <= '9') && arg[1] != '.';
}

static int _ctl_parse_option(ctl_args *a, const ctl_optdef *def, const char *value) {
  unsigned long long number;
  switch (def->id) {
    case CTL_OPT_RAW:
      a->raw = 1;
      break;
    case CTL_OPT_VOLATILE:
      a->set_volatile = 1;
      break;
    case CTL_OPT_USER:
      a->set_user = 1;
      break;
    case CTL_OPT_NO_CREATE:
      a->no_create = 1;
      break;
    case CTL_OPT_RECURSIVE:
      a->recursive = 1;
      break;
    case CTL_OPT_LONG:
      a->long_list = 1;
      break;
    case CTL_OPT_MASK: {
      const char *digits = value;
      if (strncmp(digits, "0x", 2) == 0 || strncmp(digits, "0X", 2) == 0) digits += 2;
      if (_ctl_parse_uint(digits, 16, UINT32_MAX, &number) != 0) {
        return _ctl_usage_error("%s: --mask wants a hexadecimal 32-bit mask, not '%s'",
                                a->cmd->name, value);
      }
      a->mask = (uint32_t)number;
      break;
    }
    case CTL_OPT_DEPTH:
      if (_ctl_parse_uint(value, 10, INT32_MAX, &number) != 0) {
        return _ctl_usage_error("%s: --depth wants a number of levels, not '%s'", a->cmd->name,
                                value);
      }
      a->depth = (int32_t)number;
      break;
    default:
      break;
  }
  return 0;
}

/* Parses one command and its arguments, argv[0] being its name. */
static int _ctl_parse_command(int argc, char **argv, ctl_args *a, int nested);

static int _ctl_parse_tx(int argc, char **argv, ctl_args *a) {
  int i = 1;
  int start;

  if (argc < 2 || strcmp(argv[1], "--") == 0) {
    return _ctl_usage_error("usage: %s", a->cmd->synopsis);
  }
  a->pos[0] = argv[1];
  a->npos = 1;
  i = 2;
  if (i >= argc || strcmp(argv[i], "--") != 0) {
    return _ctl_usage_error("tx: expected '--' and a command after the path");
  }
  a->group = calloc((size_t)argc, sizeof(ctl_args));
  if (a->group == NULL) {
    fprintf(stderr, "loregctl: out of memory\n");
    return CTL_EXIT_FAIL;
  }
  while (i < argc) {
    int rc;
    i++; /* the "--" */
    start = i;
    while (i < argc && strcmp(argv[i], "--") != 0) i++;
    if (i == start) return _ctl_usage_error("tx: empty command between '--' separators");
    rc = _ctl_parse_command(i - start, argv + start, &a->group[a->ngroup], 1);
    if (rc != 0) return rc;
    a->ngroup++;
  }
  return 0;
}

static int _ctl_parse_command(int argc, char **argv, ctl_args *a, int nested) {
  int i;

  memset(a, 0, sizeof(*a));
  a->mask = UINT32_MAX;
  a->depth = INT32_MAX;
  a->cmd = _ctl_find_command(argv[0]);
  if (a->cmd == NULL) return _ctl_usage_error("unknown command '%s'", argv[0]);
  if (nested && !a->cmd->in_tx) {
    return _ctl_usage_error("tx: '%s' cannot run inside a transaction", a->cmd->name);
  }
  if (a->cmd->run == _ctl_tx) return _ctl_parse_tx(argc, argv, a);

  for (i = 1; i < argc; i++) {
    const char *arg = argv[i];
    if (_ctl_looks_like_option(arg)) {
      const ctl_optdef *def = a->cmd->options;
      while (def->name != NULL && strcmp(def->name, arg) != 0) def++;
      if (def->name == NULL) {
        return _ctl_usage_error("%s: unknown option '%s'", a->cmd->name, arg);
      }
      if (def->takes_value && i + 1 >= argc) {
        return _ctl_usage_error("%s: option '%s' needs a value", a->cmd->name, arg);
      }
      int rc = _ctl_parse_option(a, def, def->takes_value ? argv[i + 1] : NULL);
      if (rc != 0) return rc;
      if (def->takes_value) i++;
      continue;
    }
    if (a->npos >= a->cmd->max_args) {
      return _ctl_usage_error("%s: unexpected argument '%s'\nusage: loregctl %s", a->cmd->name,
                              arg, a->cmd->synopsis);
    }
    a->pos[a->npos++] = arg;
  }
  if (a->npos < a->cmd->min_args) {
    return _ctl_usage_error("%s: missing argument\nusage: loregctl %s", a->cmd->name,
                            a->cmd->synopsis);
  }
  if (a->npos >= 1 && a->pos[0][0] != '/') {
    return _ctl_usage_error("%s: path '%s' must begin with '/'", a->cmd->name, a->pos[0]);
  }
  return 0;
}

/* --- Results --------------------------------------------------------- */

static const char *_ctl_error_text(int rc) {
  switch (rc) {
    case -2:
      return "not found";
    case -13:
      return "locked";
    case -110:
      return "timed out";
    case -113:
      return "no server";
    case -22:
      return "invalid argument";
    case -12:
      return "out of memory";
    case -105:
      return "bus busy, try again";
    case -103:
      return "connection aborted";
    default:
      return strerror(-rc);
  }
}

static int _ctl_exit_status(int rc) {
  switch (rc) {
    case -2:
      return CTL_EXIT_NOT_FOUND;
    case -13:
      return CTL_EXIT_LOCKED;
    case -110:
      return CTL_EXIT_TIMEOUT;
    case -113:
      return CTL_EXIT_NO_SERVER;
    default:
      return CTL_EXIT_FAIL;
  }
}

/* Reports a failed call as "loregctl: COMMAND [PATH]: REASON" and gives
 * the exit status. */
static int _ctl_fail(const char *command, const char *path, int rc) {
  fprintf(stderr, "loregctl: %s%s%s: %s\n", command, path != NULL ? " " : "",
          path != NULL ? path : "", _ctl_error_text(rc));
  return _ctl_exit_status(rc);
}

/* Standard output that cannot be written (a full disk, a closed pipe) is a
 * failure of the command. */
static int _ctl_flush(const char *command) {
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "loregctl: %s: cannot write the output: %s\n", command, strerror(errno));
    return CTL_EXIT_FAIL;
  }
  return CTL_EXIT_OK;
}

/* --- Connection ------------------------------------------------------ */

static void _ctl_on_sysmsg(lorc_client *client, uint32_t type, uint32_t subType, void *cookie) {
  ctl *c = cookie;
  (void)client;
  (void)subType;
  if (type == LMQ_SYSMSG_HOST_PRESENT) __atomic_add_fetch(&c->hosts, 1, __ATOMIC_RELEASE);
}

static int _ctl_root_count(ctl *c) {
  int n = 0;
  while (lorc_root_query(c->client, n, NULL, NULL, 0) >= 0) n++;
  return n;
}

static int64_t _ctl_now_ms(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static void _ctl_sleep_ms(int ms) {
  struct timespec ts = {ms / 1000, (long)(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

/*
 * Waits until each repository server of the bus has announced its root.
 * Every server is a host of the service, and the client counts the host
 * messages of the bus. Once the bus is in step (lmqServerBusSync), all of
 * them are in the client's queue, and every root announcement comes in
 * behind them: so when the first root is known, so is the number of
 * servers. The roots are counted first for that reason: hosts counted
 * before them might miss a host message handled in between.
 */
static void _ctl_wait_roots(ctl *c) {
  int64_t start = _ctl_now_ms();
  int64_t deadline = start + (int64_t)c->timeout * 1000;
  for (;;) {
    int roots = _ctl_root_count(c);
    int hosts = __atomic_load_n(&c->hosts, __ATOMIC_ACQUIRE);
    int64_t now = _ctl_now_ms();
    if (roots >= 1 && roots >= hosts) {
      c->all_roots_known = 1;
      return;
    }
    if (now >= deadline) return;
    if (hosts == 0 && roots == 0 && now - start >= CTL_NO_HOST_GRACE_MS) return;
    _ctl_sleep_ms(CTL_POLL_MS);
  }
}

static int _ctl_connect(ctl *c) {
  _cspOsalTime_struct timeout = {c->timeout, 0};
  lorc_init_params params;
  lorc_hooks hooks;
  int rc;

  rc = lmqServerCreate(&c->bus);
  if (rc != 0) {
    fprintf(stderr, "loregctl: cannot create a message server (code %d)\n", rc);
    return CTL_EXIT_FAIL;
  }
  rc = lmqServerConnect(c->bus, c->socket_path, &timeout);
  if (rc != 0) {
    const char *why = rc == -2 || rc == -111 ? "no server" : _ctl_error_text(rc);
    fprintf(stderr, "loregctl: cannot connect to %s: %s\n", c->socket_path, why);
    return rc == -110 ? CTL_EXIT_TIMEOUT : CTL_EXIT_NO_SERVER;
  }

  memset(&hooks, 0, sizeof(hooks));
  hooks.cookie = c;
  hooks.onSysMsg = _ctl_on_sysmsg;
  memset(&params, 0, sizeof(params));
  params.lmqServer = c->bus;
  params.rcvQueueKBytes = CTL_QUEUE_KIB;
  params.hooks = &hooks;
  rc = lorc_init(&c->client, &params);
  if (rc != 0) {
    fprintf(stderr, "loregctl: cannot start the registry client: %s\n", _ctl_error_text(rc));
    return CTL_EXIT_FAIL;
  }
  rc = lmqServerBusSync(c->bus, &timeout);
  if (rc != 0) {
    fprintf(stderr, "loregctl: the bus at %s does not answer: %s\n", c->socket_path,
            _ctl_error_text(rc));
    return rc == -110 ? CTL_EXIT_TIMEOUT : CTL_EXIT_NO_SERVER;
  }
  _ctl_wait_roots(c);
  if (__atomic_load_n(&c->hosts, __ATOMIC_ACQUIRE) == 0 && _ctl_root_count(c) == 0) {
    fprintf(stderr, "loregctl: no server on the bus at %s\n", c->socket_path);
    return CTL_EXIT_NO_SERVER;
  }
  return CTL_EXIT_OK;
}

static void _ctl_disconnect(ctl *c) {
  if (c->client != NULL) lorc_shutdown(c->client);
  c->client = NULL;
  if (c->bus != NULL) lmqServerDestroy(c->bus);
  c->bus = NULL;
}

/* Whether some known root agrees with path over the shorter of the two:
 * a root above the path owns it, and one below it is reached by the
 * commands that take an ancestor of the root (rm, count). When not every
 * server has announced its root yet, the command is sent anyway. */
static int _ctl_path_has_server(ctl *c, const char *path) {
  char root[CTL_BUFFER_SIZE];
  size_t path_len = strlen(path);
  int i;
  int rc;

  if (!c->all_roots_known) return 1;
  for (i = 0; (rc = lorc_root_query(c->client, i, NULL, root, sizeof(root))) >= 0; i++) {
    size_t n = (size_t)rc < path_len ? (size_t)rc : path_len;
    if (memcmp(root, path, n) == 0) return 1;
  }
  return 0;
}

static int _ctl_check_server(ctl *c, const char *command, const char *path) {
  if (_ctl_path_has_server(c, path)) return CTL_EXIT_OK;
  fprintf(stderr, "loregctl: %s %s: no server\n", command, path);
  return CTL_EXIT_NO_SERVER;
}

/* --- Printing notifications ------------------------------------------ */

static void _ctl_put_escaped(FILE *out, const unsigned char *bytes, size_t len) {
  size_t i;
  for (i = 0; i < len; i++) {
    unsigned char b = bytes[i];
    if (b < 0x20 || b > 0x7E || b == '\\') {
      fprintf(out, "\\x%02x", b);
    } else {
      putc(b, out);
    }
  }
}

static void _ctl_print_note(lorc_client *client, uint32_t reason, const lorc_key_struct *item,
                            int32_t tid, const lstr *path, void *cookie) {
  ctl_printer *p = cookie;
  (void)client;
  (void)path;
  if (p->only_reason != 0 && reason != p->only_reason) return;
  flockfile(p->out);
  fprintf(p->out, "%s flags=0x%02x tid=%d ", lorc_get_reason_txt(reason),
          (unsigned)(item->flags & 0xFFu), (int)tid);
  fputs(item->path != NULL ? item->path : "", p->out);
  putc('=', p->out);
  if (item->value != NULL) _ctl_put_escaped(p->out, item->value, item->value_len);
  putc('\n', p->out);
  fflush(p->out);
  funlockfile(p->out);
  p->printed++;
  if (reason == LOREG_REASON_SERVER_AVAILABLE) __atomic_add_fetch(&p->roots_up, 1, __ATOMIC_RELEASE);
  if (reason == LOREG_REASON_SERVER_GONE) __atomic_sub_fetch(&p->roots_up, 1, __ATOMIC_RELEASE);
}

/* --- Commands -------------------------------------------------------- */

/* A copy of path that ends in '/', as directories do; null for no
 * memory. */
static char *_ctl_dir_path(const char *path) {
  size_t len = strlen(path);
  char *dir = malloc(len + 2);
  if (dir == NULL) return NULL;
  memcpy(dir, path, len + 1);
  if (len == 0 || dir[len - 1] != '/') {
    dir[len] = '/';
    dir[len + 1] = '\0';
  }
  return dir;
}

static int _ctl_get(ctl *c, const ctl_args *a, int32_t tid) {
  const char *path = a->pos[0];
  char *buffer;
  int rc = _ctl_check_server(c, "get", path);
  if (rc != CTL_EXIT_OK) return rc;
  buffer = malloc(CTL_BUFFER_SIZE);
  if (buffer == NULL) return _ctl_fail("get", path, -12);
  rc = lorc_value_query(c->client, tid, path, buffer, CTL_BUFFER_SIZE, c->timeout);
  if (rc < 0) {
    free(buffer);
    return _ctl_fail("get", path, rc);
  }
  fwrite(buffer, 1, (size_t)rc, stdout);
  if (!a->raw) putchar('\n');
  free(buffer);
  return _ctl_flush("get");
}

static int _ctl_set(ctl *c, const ctl_args *a, int32_t tid) {
  const char *path = a->pos[0];
  const char *value = a->pos[1];
  uint32_t flags = CTL_SET_APPLY_VALUE;
  int rc = _ctl_check_server(c, "set", path);
  if (rc != CTL_EXIT_OK) return rc;
  if (!a->no_create) flags |= CTL_SET_CREATE_KEY | CTL_SET_CREATE_DIRS;
  if (a->set_volatile) flags |= CTL_SET_APPLY_VOLATILE | CTL_SET_VOLATILE;
  if (a->set_user) flags |= CTL_SET_APPLY_USER | CTL_SET_USER;
  rc = lorc_value_set(c->client, tid, path, value, (uint32_t)strlen(value), flags, c->timeout);
  if (rc < 0) return _ctl_fail("set", path, rc);
  return CTL_EXIT_OK;
}

static int _ctl_rm(ctl *c, const ctl_args *a, int32_t tid) {
  const char *path = a->pos[0];
  int rc = _ctl_check_server(c, "rm", path);
  if (rc != CTL_EXIT_OK) return rc;
  rc = lorc_key_delete(c->client, tid, path, c->timeout);
  if (rc < 0) return _ctl_fail("rm", path, rc);
  return CTL_EXIT_OK;
}

static int _ctl_count(ctl *c, const ctl_args *a, int32_t tid) {
  char *dir = _ctl_dir_path(a->pos[0]);
  int rc;
  if (dir == NULL) return _ctl_fail("count", a->pos[0], -12);
  rc = _ctl_check_server(c, "count", dir);
  if (rc == CTL_EXIT_OK) {
    rc = lorc_key_count(c->client, tid, dir, a->mask, c->timeout);
    if (rc < 0) {
      rc = _ctl_fail("count", dir, rc);
    } else {
      printf("%d\n", rc);
      rc = _ctl_flush("count");
    }
  }
  free(dir);
  return rc;
}

/* Lists the keys of one directory, and with -R those of its
 * subdirectories after each. A recursive listing asks the server for all
 * keys, to find the directories, and selects by the mask itself. */
static int _ctl_ls_dir(ctl *c, const ctl_args *a, int32_t tid, const char *dir, char *name) {
  uint32_t query_mask = a->recursive ? UINT32_MAX : a->mask;
  size_t dir_len = strlen(dir);
  int32_t index;

  for (index = 0;; index++) {
    uint32_t flags = 0;
    int rc = lorc_key_query(c->client, tid, dir, query_mask, index, &flags, name, CTL_BUFFER_SIZE,
                            c->timeout);
    if (rc == -2) return CTL_EXIT_OK;
    if (rc < 0) return _ctl_fail("ls", dir, rc);
    if (a->mask & (1u << (flags & 31u))) {
      if (a->long_list) printf("0x%02x ", (unsigned)(flags & 0xFFu));
      printf("%s%s\n", dir, name);
    }
    if (a->recursive && rc > 0 && name[rc - 1] == '/') {
      size_t sub_len = dir_len + (size_t)rc;
      char *sub = malloc(sub_len + 1);
      char *sub_name = malloc(CTL_BUFFER_SIZE);
      int status = CTL_EXIT_FAIL;
      if (sub != NULL && sub_name != NULL) {
        memcpy(sub, dir, dir_len);
        memcpy(sub + dir_len, name, (size_t)rc + 1);
        status = _ctl_ls_dir(c, a, tid, sub, sub_name);
      } else {
        status = _ctl_fail("ls", dir, -12);
      }
      free(sub);
      free(sub_name);
      if (status != CTL_EXIT_OK) return status;
    }
  }
}

static int _ctl_ls(ctl *c, const ctl_args *a, int32_t tid) {
  char *dir = _ctl_dir_path(a->pos[0]);
  char *name = malloc(CTL_BUFFER_SIZE);
  int rc;

  if (dir == NULL || name == NULL) {
    free(dir);
    free(name);
    return _ctl_fail("ls", a->pos[0], -12);
  }
  rc = _ctl_check_server(c, "ls", dir);
  if (rc == CTL_EXIT_OK) {
    /* The directory itself first: an empty listing must not hide a
     * directory that does not exist. */
    rc = lorc_key_query(c->client, tid, dir, 0, -1, NULL, name, CTL_BUFFER_SIZE, c->timeout);
    rc = rc < 0 ? _ctl_fail("ls", dir, rc) : _ctl_ls_dir(c, a, tid, dir, name);
  }
  free(dir);
  free(name);
  if (rc == CTL_EXIT_OK) rc = _ctl_flush("ls");
  return rc;
}

/* After the hub went away: the client's thread tells the watch that each
 * server it announced is gone; waits for that, a little while at most, so
 * that the watch does not end before its last lines. */
#define CTL_GONE_WAIT_MS 2000
static void _ctl_wait_roots_gone(const ctl_printer *printer) {
  int waited;

  for (waited = 0; waited < CTL_GONE_WAIT_MS; waited += 10) {
    struct timespec step = {0, 10 * 1000 * 1000};
    if (__atomic_load_n(&printer->roots_up, __ATOMIC_ACQUIRE) <= 0) return;
    nanosleep(&step, NULL);
  }
}

/* Waits for SIGINT or SIGTERM, which main blocked for this. Gives up when
 * the bus's hub goes away, once the servers' departure was printed. */
static int _ctl_wait_interrupt(ctl *c, const ctl_printer *printer) {
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  for (;;) {
    struct timespec period = {1, 0};
    lmq_bus_status status;
    if (sigtimedwait(&stop_signals, NULL, &period) > 0) return CTL_EXIT_OK;
    if (lmqServerBusStatus(c->bus, &status) == 0 && status.hub_node == 0) {
      _ctl_wait_roots_gone(printer);
      fprintf(stderr, "loregctl: watch: the bus at %s went away\n", c->socket_path);
      return CTL_EXIT_NO_SERVER;
    }
  }
}

static int _ctl_watch(ctl *c, const ctl_args *a, int32_t tid) {
  const char *path = a->npos > 0 ? a->pos[0] : "/";
  ctl_printer printer = {stdout, 0, 0, 0};
  int status;
  int rc;

  (void)tid;
  rc = lorc_notification_register(c->client, _ctl_print_note, path, &printer);
  if (rc != 0) return _ctl_fail("watch", path, rc);
  status = _ctl_wait_interrupt(c, &printer);
  rc = lorc_notification_unregister(c->client, _ctl_print_note, path, &printer);
  if (rc != 0 && status == CTL_EXIT_OK) status = _ctl_fail("watch", path, rc);
  return status;
}

/*
 * Asks the server to play the subtree back, then reads the key itself
 * with a lock-passing query: the server answers in order, and the client
 * handles its messages in order, so once that answer is in, every key of
 * the dump has been printed.
 */
static int _ctl_dump(ctl *c, const ctl_args *a, int32_t tid) {
  const char *path = a->pos[0];
  ctl_printer printer = {stdout, LOREG_REASON_KEY_UPDATE, 0, 0};
  uint32_t flags = 0;
  int status = CTL_EXIT_OK;
  int rc;

  (void)tid;
  rc = _ctl_check_server(c, "dump", path);
  if (rc != CTL_EXIT_OK) return rc;
  rc = lorc_notification_register(c->client, _ctl_print_note, path, &printer);
  if (rc != 0) return _ctl_fail("dump", path, rc);
  rc = lorc_notification_trigger(c->client, path, UINT32_MAX, a->depth);
  if (rc == 0) rc = lorc_key_query(c->client, -1, path, 0, -1, &flags, NULL, 0, c->timeout);
  if (rc < 0) status = _ctl_fail("dump", path, rc);
  rc = lorc_notification_unregister(c->client, _ctl_print_note, path, &printer);
  if (rc != 0 && status == CTL_EXIT_OK) status = _ctl_fail("dump", path, rc);
  return status;
}

static int _ctl_store(ctl *c, const ctl_args *a, int32_t tid) {
  int rc = lorc_repository_store(c->client, c->timeout);
  (void)a;
  (void)tid;
  return rc < 0 ? _ctl_fail("store", NULL, rc) : CTL_EXIT_OK;
}

static int _ctl_reload(ctl *c, const ctl_args *a, int32_t tid) {
  int rc = lorc_repository_reload(c->client, c->timeout);
  (void)a;
  (void)tid;
  return rc < 0 ? _ctl_fail("reload", NULL, rc) : CTL_EXIT_OK;
}

static int _ctl_roots(ctl *c, const ctl_args *a, int32_t tid) {
  char root[CTL_BUFFER_SIZE];
  int i;
  (void)a;
  (void)tid;
  for (i = 0;; i++) {
    uint32_t flags = 0;
    int rc = lorc_root_query(c->client, i, &flags, root, sizeof(root));
    if (rc == -2) break;
    if (rc < 0) return _ctl_fail("roots", NULL, rc);
    printf("%s flags=0x%02x%s\n", root, (unsigned)(flags & 0xFFu & ~LORC_ROOT_STALE),
           (flags & LORC_ROOT_STALE) ? " stale" : "");
  }
  return _ctl_flush("roots");
}

static int _ctl_tx(ctl *c, const ctl_args *a, int32_t tid) {
  const char *path = a->pos[0];
  int status = CTL_EXIT_OK;
  int rc;
  int i;

  (void)tid;
  rc = _ctl_check_server(c, "tx", path);
  if (rc != CTL_EXIT_OK) return rc;
  tid = lorc_transaction_start(c->client, path, c->timeout);
  if (tid < 0) return _ctl_fail("tx", path, tid);
  for (i = 0; i < a->ngroup && status == CTL_EXIT_OK; i++) {
    status = a->group[i].cmd->run(c, &a->group[i], tid);
  }
  rc = lorc_transaction_end(c->client, tid, c->timeout);
  if (rc < 0 && status == CTL_EXIT_OK) status = _ctl_fail("tx end", path, rc);
  return status;
}

/* --- Main ------------------------------------------------------------ */

static int _ctl_parse_globals(int argc, char **argv, ctl *c, int *next) {
  int i = 1;
  while (i < argc && argv[i][0] == '-') {
    const char *arg = argv[i];
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      _ctl_usage(stdout);
      return CTL_EXIT_OK;
    }
    if (strcmp(arg, "-v") == 0 || strcmp(arg, "--verbose") == 0) {
      c->verbosity++;
      i++;
      continue;
    }
    if (strcmp(arg, "-vv") == 0) {
      c->verbosity += 2;
      i++;
      continue;
    }
    if (strcmp(arg, "--socket") == 0 || strcmp(arg, "--timeout") == 0) {
      if (i + 1 >= argc) return _ctl_usage_error("option '%s' needs a value", arg);
      if (arg[2] == 's') {
        c->socket_path = argv[i + 1];
        if (c->socket_path[0] == '\0') return _ctl_usage_error("--socket wants a path");
      } else {
        unsigned long long seconds;
        if (_ctl_parse_uint(argv[i + 1], 10, CTL_MAX_TIMEOUT_SEC, &seconds) != 0 ||
            seconds == 0) {
          return _ctl_usage_error("--timeout wants whole seconds from 1 to %d, not '%s'",
                                  CTL_MAX_TIMEOUT_SEC, argv[i + 1]);
        }
        c->timeout = (int32_t)seconds;
      }
      i += 2;
      continue;
    }
    return _ctl_usage_error("unknown option '%s'", arg);
  }
  if (i >= argc) return _ctl_usage_error("missing command");
  *next = i;
  return -1;
}

int main(int argc, char **argv) {
  ctl c;
  ctl_args args;
  int first = 0;
  int status;

  memset(&c, 0, sizeof(c));
  c.socket_path = CTL_DEFAULT_SOCKET;
  c.timeout = CTL_DEFAULT_TIMEOUT_SEC;
  status = _ctl_parse_globals(argc, argv, &c, &first);
  if (status >= 0) return status;
  status = _ctl_parse_command(argc - first, argv + first, &args, 0);
  if (status != 0) {
    free(args.group);
    return status;
  }

  if (c.verbosity > 0) {
    uint32_t threshold = c.verbosity == 1 ? 3000u : c.verbosity == 2 ? 4000u : 5000u;
    cspDebugSetThreshold(CTL_CHANNEL_REGISTRY, threshold);
    cspDebugSetThreshold(CTL_CHANNEL_LMQ, threshold);
  }
  /* watch ends by a signal, taken by the main thread alone: blocked before
   * any thread exists, it stays blocked in all of them. */
  if (args.cmd->run == _ctl_watch) {
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, NULL);
  }

  status = _ctl_connect(&c);
  if (status == CTL_EXIT_OK) status = args.cmd->run(&c, &args, 0);
  _ctl_disconnect(&c);
  free(args.group);
  return status;
}
