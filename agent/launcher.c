/* The launcher: loads the platform, then the agent, in this order, and hands over the command line.
 *
 * The table server's hooks are weak symbols that are bound when the server is loaded, to what
 * stands in the global scope by then. So this program must not be linked against anything of ours:
 * the platform has to come first, opened with RTLD_GLOBAL.
 */
#define _GNU_SOURCE
#include "zan_agent.h"

#include <dlfcn.h>
#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define DEFAULT_SOCKET   "/run/zan/agent.sock"
#define DEFAULT_PLATFORM "libzan_npu_sim.so"
#define AGENT_LIBRARY    "libzan_agent.so"
#define MAX_NPUS         8
#define MAX_RESOURCES    64
#define MAX_STATS_PERIOD 86400
#define MAX_PORT         65535

static const char usage[] =
    "Usage: zan_agent [OPTION]...\n"
    "Serve forwarding-object tables to clients over a Unix-domain socket.\n"
    "\n"
    "  --socket PATH           listen there (default " DEFAULT_SOCKET ")\n"
    "  --platform LIB          the platform's hooks: a file with its directory, or a name in\n"
    "                          ../lib or beside this program; none for no platform\n"
    "                          (default " DEFAULT_PLATFORM ")\n"
    "  --npus N                number of NPUs, 0 to 8 (default 2)\n"
    "  --no-hooks              run although the platform binds no hook\n"
    "  --standby               keep the database, touch no hardware\n"
    "  --per-object-npu-mask   write an object only to the NPUs that it asks for\n"
    "  --stepped SEED          run NPU messages on the dispatcher thread, in an order that the\n"
    "                          seed decides\n"
    "  --capacity DB=N         entries of a hardware database on each NPU (default: no limit);\n"
    "                          zanctl resources --all lists the databases\n"
    "  --thresholds DB=Y,C,R,C percent at which it is yellow, no longer, red, no longer\n"
    "                          (default 80,75,95,90)\n"
    "  --retries N             of a failed write, before its object and what depends on it go\n"
    "                          into quarantine; 0: without end (default 10)\n"
    "  --stats-period SECONDS  between two walks over the counters of hardware; 0: on demand only\n"
    "                          (default 10)\n"
    "  --trace-file PATH       keep the trace ring there, for zanctl trace --file; none: in\n"
    "                          memory (default the socket's path and .trace)\n"
    "  --metrics [ADDRESS:]PORT\n"
    "                          serve OpenMetrics there, on the loopback interface without an\n"
    "                          address (default: nowhere)\n"
    "  --version               the program's version\n"
    "  --help                  this text\n"
    "\n"
    "SIGTERM and SIGINT stop it in order. Talk to it with zanctl.\n";

static int parse_number(const char *option, const char *text, uint64_t max, uint64_t *out)
{
    char *end;
    errno = 0;
    unsigned long long value = strtoull(text, &end, 0);
    if (errno || end == text || *end || text[0] == '-' || value > max) {
        fprintf(stderr, "zan_agent: --%s %s: give a number from 0 to %llu\n", option, text,
                (unsigned long long)max);
        return -1;
    }
    *out = value;
    return 0;
}

/* The port of [ADDRESS:]PORT. */
static const char *port_of(const char *where)
{
    const char *colon = strrchr(where, ':');
    return colon ? colon + 1 : where;
}

/* A library by name: in ../lib of this program's directory, beside it, or as the loader finds it.
 */
static void *open_library(const char *name)
{
    char exe[PATH_MAX], path[PATH_MAX + 64];
    ssize_t len = readlink("/proc/self/exe", exe, sizeof exe - 1);
    exe[len > 0 ? len : 0] = 0;
    char *slash = strrchr(exe, '/');
    if (slash && !strchr(name, '/')) {
        static const char *const places[] = {"../lib/", ""};
        slash[1] = 0;
        for (size_t i = 0; i < sizeof places / sizeof places[0]; i++) {
            int n = snprintf(path, sizeof path, "%s%s%s", exe, places[i], name);
            if (n < (int)sizeof path && access(path, R_OK) == 0)
                return dlopen(path, RTLD_NOW | RTLD_GLOBAL);
        }
    }
    return dlopen(name, RTLD_NOW | RTLD_GLOBAL);
}

static int parse(int argc, char **argv, zan_agent_options_t *options)
{
    static const struct option table[] = {
        {"socket", required_argument, NULL, 's'},
        {"platform", required_argument, NULL, 'p'},
        {"npus", required_argument, NULL, 'n'},
        {"no-hooks", no_argument, NULL, 'o'},
        {"standby", no_argument, NULL, 'b'},
        {"per-object-npu-mask", no_argument, NULL, 'm'},
        {"stepped", required_argument, NULL, 't'},
        {"capacity", required_argument, NULL, 'r'},
        {"thresholds", required_argument, NULL, 'r'},
        {"retries", required_argument, NULL, 'q'},
        {"stats-period", required_argument, NULL, 'c'},
        {"trace-file", required_argument, NULL, 'f'},
        {"metrics", required_argument, NULL, 'e'},
        {"version", no_argument, NULL, 'v'},
        {"help", no_argument, NULL, 'h'},
        {NULL, 0, NULL, 0},
    };
    static zan_agent_resource_t resources[MAX_RESOURCES + 1];
    int num_resources = 0;
    uint64_t number;
    int c, index;
    while ((c = getopt_long(argc, argv, "", table, &index)) != -1) {
        switch (c) {
        case 's':
            options->socket_path = optarg;
            break;
        case 'p':
            options->platform = strcmp(optarg, "none") == 0 ? NULL : optarg;
            break;
        case 'n':
            if (parse_number("npus", optarg, MAX_NPUS, &number))
                return 2;
            options->num_npus = (uint32_t)number;
            break;
        case 'o':
            options->allow_no_hooks = 1;
            break;
        case 'b':
            options->standby = 1;
            break;
        case 'm':
            options->per_object_npu_mask = 1;
            break;
        case 't':
            if (parse_number("stepped", optarg, UINT64_MAX, &options->seed))
                return 2;
            options->stepped = 1;
            break;
        case 'e':
            if (parse_number("metrics", port_of(optarg), MAX_PORT, &number))
                return 2;
            options->metrics = optarg;
            break;
        case 'f':
            options->trace_file = optarg;
            break;
        case 'q':
            if (parse_number("retries", optarg, UINT32_MAX, &number))
                return 2;
            options->retries = (uint32_t)number;
            break;
        case 'c':
            if (parse_number("stats-period", optarg, MAX_STATS_PERIOD, &number))
                return 2;
            options->stats_period = (uint32_t)number;
            break;
        case 'r':
            if (num_resources == MAX_RESOURCES) {
                fputs("zan_agent: at most 64 capacities and thresholds\n", stderr);
                return 2;
            }
            resources[num_resources].option = table[index].name;
            resources[num_resources++].words = optarg;
            options->resources = resources;
            break;
        case 'v':
            puts("zan_agent " ZAN_VERSION);
            exit(0);
        case 'h':
            fputs(usage, stdout);
            exit(0);
        default:
            fputs("zan_agent: try --help\n", stderr);
            return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "zan_agent: %s: what is that? Try --help\n", argv[optind]);
        return 2;
    }
    return 0;
}

int main(int argc, char **argv)
{
    zan_agent_options_t options = {.socket_path = DEFAULT_SOCKET,
                                   .platform = DEFAULT_PLATFORM,
                                   .num_npus = 2,
                                   .retries = 10,
                                   .stats_period = 10};
    int rc = parse(argc, argv, &options);
    if (rc)
        return rc;
    if (options.platform && !open_library(options.platform)) {
        fprintf(stderr, "zan_agent: the platform %s cannot be loaded: %s\n", options.platform,
                dlerror());
        if (!strchr(options.platform, '/') && access(options.platform, R_OK) == 0)
            fprintf(stderr, "zan_agent: write ./%s for a file here\n", options.platform);
        return 1;
    }
    void *agent = open_library(AGENT_LIBRARY);
    if (!agent) {
        fprintf(stderr, "zan_agent: %s cannot be loaded: %s\n", AGENT_LIBRARY, dlerror());
        return 1;
    }
    int (*run)(const zan_agent_options_t *) =
        (int (*)(const zan_agent_options_t *))dlsym(agent, "zan_agent_main");
    if (!run) {
        fprintf(stderr, "zan_agent: %s is none: %s\n", AGENT_LIBRARY, dlerror());
        return 1;
    }
    return run(&options);
}
