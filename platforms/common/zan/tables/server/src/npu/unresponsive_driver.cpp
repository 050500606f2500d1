/* The way out when an NPU's driver hangs: tell the operator, count, and take the process down, so
 * that the node recovers by a reload. */
#include "table_server_api_common.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

void zan_unresponsive_driver_exhausted(uint32_t table_id)
{
    char text[256];
    snprintf(text, sizeof text,
             "Unresponsive driver, all retries exhausted. Initiating auto-recovery via node reload "
             "which can have possible impact on transit traffic. Core file for %s process along "
             "with other debug data will be collected",
             program_invocation_short_name);
    plat_errmsg(plat_msg_rec_zan_auto_recovery_getfn(), 1, text);
    zan_counter_raise(table_id, ZAN_CTR_WAIT_EXHAUSTED);
    exit(203);
}
