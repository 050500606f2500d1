/* Notifications to clients. Not there yet: the transport takes none, so nothing is sent. */
#include "table_server_api_common.h"

zan_rcode kor_send_table_notification(const zan_table_def_t *, zan_srv_send_notif_st *)
{
    return EOK;
}
