/* Messages to the operator: standard error, and the system's log. */
#include "trace.h"

#include <cstdio>
#include <syslog.h>

struct plat_msg_rec_t {
    const char *facility;
};

const plat_msg_rec_t *plat_msg_rec_zan_warn_err_getfn(void)
{
    static const plat_msg_rec_t record = {"ZAN-WARN_ERR"};
    return &record;
}

const plat_msg_rec_t *plat_msg_rec_zan_auto_recovery_getfn(void)
{
    static const plat_msg_rec_t record = {"ZAN-AUTO_RECOVERY"};
    return &record;
}

void plat_errmsg(const plat_msg_rec_t *record, int severity, const char *text)
{
    fprintf(stderr, "%%%s-%d: %s\n", record->facility, severity, text);
    syslog(severity, "%s: %s", record->facility, text);
}
