/* The delete flow. Not there yet: a delete is refused. */
#include "table_server_api_common.h"

zan_rcode zan_server_api_delete(const zan_table_def_t *, zan_table_base_st *,
                                zan_table_response_st *response, uint32_t)
{
    response->err_code = ZAN_RC_INVALID;
    return EOK;
}
