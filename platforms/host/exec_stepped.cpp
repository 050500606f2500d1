/* The execution queue without threads.
 *
 * Messages run on the caller's thread, under the NPU's identity and under no lock, at the points
 * where with threads they might have run by then: at a send, in the post-NPU step, at a yield and
 * in a sleep a random number of them, never surely all; at the wait and at a full ring as many as
 * it takes. A seed decides how many, and whose turn it is. Each NPU's messages stay in order.
 */
#include "exec_rings.h"
#include "host_random.h"
#include "host_threads.h"

bool host_stepped;

namespace
{

uint64_t state;

uint32_t random_below(uint32_t bound)
{
    return (uint32_t)((host_random_next(&state) >> 32) * bound >> 32);
}

void run_as(uint32_t npu)
{
    const uint32_t locks = host_locks_drop();
    const host_identity_t self = host_self();
    host_become({ZAN_THREAD_NPU, (int)npu, 0, false});
    host_ring_run_one(npu);
    host_become(self);
    host_locks_retake(locks);
}

} // namespace

void host_stepped_start(uint64_t seed)
{
    state = seed;
    host_stepped = true;
    host_yield_attention(HOST_YIELD_STEPPED);
}

void host_stepped_stop(void)
{
    host_stepped = false;
    host_yield_attention(-HOST_YIELD_STEPPED);
}

bool host_stepped_run_one(void)
{
    uint32_t ready[ZAN_MAX_NPUS], count = 0;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        if (host_ring_can_run(npu))
            ready[count++] = npu;
    if (count == 0) {
        host_rings_show_done(); /* of NPUs that are held in the middle of a run */
        return false;
    }
    run_as(ready[random_below(count)]);
    return true;
}

void host_exec_q_step(void)
{
    /* Inside a message this thread is an NPU's: no message runs inside another. */
    if (!host_stepped || !host_holds_dispatcher())
        return;
    host_rings_publish();
    uint32_t left = random_below(kor_exec_q_get_depth(get_global_exec_q()) + 1);
    while (left-- && host_stepped_run_one()) {
    }
}
