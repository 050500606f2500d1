/* The way out when an NPU's driver hangs: tell the operator, collect what can be known from
 * outside, and take the process down with status 203, so that the node recovers by a reload.
 *
 * Two files stay behind: where all threads stood and what the machine was busy with
 * (npu_timeout.log), and what each NPU did last (dispatcher_assert.txt). Nothing that fails here
 * stops the rest. The NPUs' records are read while their threads may write them: a torn row is no
 * worse than none in such a file.
 */
#include "table_server_api_common.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace
{

constexpr uint32_t rdesc_operation = 12;
constexpr const char *assert_file = "/var/log/dispatcher_assert.txt";
constexpr const char *rule = "=======================================";

void tell_exhausted(void)
{
    char text[256];
    snprintf(text, sizeof text,
             "Unresponsive driver, all retries exhausted. Initiating auto-recovery via node reload "
             "which can have possible impact on transit traffic. Core file for %s process along "
             "with other debug data will be collected",
             program_invocation_short_name);
    plat_errmsg(plat_msg_rec_zan_auto_recovery_getfn(), 1, text);
}

/* A command that fails, or is not there, leaves its part of the file out. */
void run_command(const char *command)
{
    const int status = system(command);
    (void)status;
}

void write_stacks(void)
{
    char command[100];
    snprintf(command, sizeof command, "pstack %d > /var/log/npu_timeout.log", getpid());
    run_command(command);
    plat_errmsg(plat_msg_rec_zan_warn_err_getfn(), 4,
                "NPU command request timedout, collect /var/log/npu_timeout.log from LC");
}

void write_load(void)
{
    constexpr const char *heading = "echo ======================================= TOP info "
                                    "======================================= >> "
                                    "/var/log/npu_timeout.log\n";
    run_command(heading);
    for (int i = 0; i < 3; i++) {
        run_command("top -bcH -n 1 | head -n 100 >> /var/log/npu_timeout.log\n");
        zan_usleep(500'000);
    }
    run_command(heading);
}

/* ---- What each NPU did last ---- */

void write_record(FILE *file, const zan_npu_op_record_st *record)
{
    char when[64];
    fprintf(file, "%s, ", kor_table_name_get(record->table_id));
    fprintf(file, "%s, ", zan_table_operation_str((uint8_t)record->op));
    if (record->op == rdesc_operation)
        fprintf(file, "rdesc_id:0x%x, ", record->id);
    else
        fprintf(file, "trans_id:%u, ", record->id);
    fprintf(file, "start_time:%s, ", ctime_r_msec(&record->start_time, when, sizeof when));
    if (record->end_time.tv_sec == 0) {
        fprintf(file, "end_time: operation still in progress...\n");
        return;
    }
    fprintf(file, "end_time:%s, ", ctime_r_msec(&record->end_time, when, sizeof when));
    fprintf(file, "total_time_taken:%d.%06d sec.usec\n", (int)record->elapsed.tv_sec,
            (int)(record->elapsed.tv_nsec / 1000));
}

void write_npu(FILE *file, const kor_exec_q_st *queue, uint32_t npu)
{
    fprintf(file, "%s NPU %u Info ", rule, npu);
    fprintf(file, "%s\n", rule);
    for (const zan_npu_op_record_st &row : queue->history[npu])
        if (row.start_time.tv_sec != 0)
            write_record(file, &row);
    write_record(file, &queue->current[npu]);
    fprintf(file, "\n\n");
}

void write_npus(void)
{
    FILE *file = fopen(assert_file, "w");
    if (!file) {
        plat_errmsg(plat_msg_rec_zan_warn_err_getfn(), 4,
                    "Failed to open file, /var/log/dispatcher_assert.txt from LC");
        return;
    }
    for (uint32_t npu = 0; npu < zan_get_global_ctx()->num_npus; npu++)
        write_npu(file, get_global_exec_q(), npu);
    fclose(file);
}

/* ---- The last frames ----
 *
 * Each NPU's record lies decoded on a stack frame of its own when the core is taken, so these must
 * be true nested calls: `keep` is what stops the compiler from making a loop of them. */

inline void keep(const volatile void *what)
{
    asm volatile("" : : "r"(what) : "memory");
}

/* With all frames on the stack. That it does not return is kept from the compiler, which takes a
 * recursion without a way back for a mistake. */
void dump_core(void)
{
    char command[1024] = {};
    snprintf(command, sizeof command, "dump_core /misc/scratch/core by_pid %d running", getpid());
    run_command(command);
    void (*volatile leave)(int) = exit;
    leave(203);
}

__attribute__((noinline)) void last_frame(const kor_exec_q_st *queue, uint32_t npu,
                                          uint32_t num_npus)
{
    const zan_npu_op_record_st record = queue->current[npu];
    char start_time[64];
    ctime_r_msec(&record.start_time, start_time, sizeof start_time);
    const char *operation = zan_table_operation_str((uint8_t)record.op);
    const char *table = kor_table_name_get(record.table_id);
    keep(&record);
    keep(start_time);
    keep(operation);
    keep(table);
    if (npu + 1 < num_npus)
        last_frame(queue, npu + 1, num_npus);
    else
        dump_core();
    keep(&record);
}

} // namespace

void zan_unresponsive_driver_exhausted(uint32_t table_id)
{
    tell_exhausted();
    zan_counter_raise(table_id, ZAN_CTR_WAIT_EXHAUSTED);
    write_stacks();
    write_load();
    write_npus();
    last_frame(get_global_exec_q(), 0, zan_get_global_ctx()->num_npus);
    exit(203);
}
