/* The agent as a library: everything behind its command line.
 *
 * The launcher opens the platform first and this library second, both in the global scope, since
 * the server binds its hooks when it is loaded and only to what is there by then.
 */
#ifndef ZAN_AGENT_H
#define ZAN_AGENT_H

#include <stdint.h>

/* What the command line says of a hardware database: "DATABASE=CAPACITY" of --capacity, or
 * "DATABASE=YELLOW,CLEAR,RED,CLEAR" of --thresholds. */
typedef struct zan_agent_resource_t {
    const char *option; /* its name without dashes */
    const char *words;
} zan_agent_resource_t;

typedef struct zan_agent_options_t {
    const char *socket_path;
    const char *platform;   /* its file, for people; null for none */
    uint32_t num_npus;      /* 0 to 8 */
    uint8_t allow_no_hooks; /* run although the platform has not bound a single hook */
    uint8_t standby;
    uint8_t per_object_npu_mask;
    uint8_t
        stepped; /* NPU messages run on the dispatcher thread, in an order that the seed decides */
    uint64_t seed;
    const char *trace_file; /* keeps the trace ring; null: the socket's path with .trace */
    uint32_t
        retries; /* of a failed write, before its object goes into quarantine; 0: without end */
    const char *metrics;   /* serve metrics there: "PORT" or "ADDRESS:PORT"; null: nowhere */
    uint32_t stats_period; /* seconds between two passes of the periodic statistics; 0: on demand */
    /* Ended by one without words; null for none. */
    const zan_agent_resource_t *resources;
} zan_agent_options_t;

#ifdef __cplusplus
extern "C"
#endif
    /* Serve until SIGTERM or SIGINT; the calling thread becomes the dispatcher thread. Returns the
     * exit status of the process. Once per process. */
    __attribute__((visibility("default"))) int
    zan_agent_main(const zan_agent_options_t *options);

#endif
