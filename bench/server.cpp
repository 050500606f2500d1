/* The server under measurement: its start, one operation, and the end of what it was given. */
#include "bench.h"

#include <cstdio>
#include <cstdlib>

#include "exec_queue.h"
#include "host_start.h"
#include "internal_queues.h"
#include "locks.h"
#include "table_flows.h"
#include "thread_control.h"

namespace bench
{

void fail(const char *what)
{
    fprintf(stderr, "zan_bench: %s\n", what);
    exit(1);
}

void start_server(bool stepped, uint64_t seed)
{
    zan_host_config_t config = {};
    config.num_npus = 1;
    config.stepped = stepped;
    config.seed = seed;
    zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
    if (zan_host_start(&config) != EOK)
        fail("the host platform does not start");
    kor_core_lock_dispatch_lock();
    zan_threads_server_programming_lock();
}

void settle()
{
    zan_exec_q_sync_ctrl_request_only();
    while (kor_exec_q_resp_wait(get_global_exec_q()) != EOK) {
    }
    zan_exec_q_sync_ctrl_allow_all_queues();
    zan_dsp_q_process_post_npu();
}

zan_table_base_st *make_request(const zan_table_def_t *def, const char *text,
                                zan_table_operation_et operation)
{
    char why[256];
    zan_table_base_st *obj = zan_obj_parse(def, text, why, sizeof why);
    if (!obj)
        fail(why);
    obj->table_operation = (uint8_t)operation;
    return obj;
}

void run_request(zan_table_base_st *obj)
{
    zan_table_response_st slot = {};
    if (zan_table_server_dispatcher((uint8_t *)obj, &slot, {1, obj->total_obj_size, 0, 0, {}},
                                    nullptr) != EOK ||
        slot.err_code != EOK)
        fail("an operation on one object was refused");
    free(obj);
}

} // namespace bench
