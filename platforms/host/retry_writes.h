/* How a retry reaches the hardware. Dispatcher thread, between batches. */
#ifndef ZAN_HOST_RETRY_WRITES_H
#define ZAN_HOST_RETRY_WRITES_H

#include "object_names.h"

/* An ordinary request in retry mode, made of an object in any form (pointers valid), in a batch of
 * its own. A mark that a replay has left on the object stays. The code of its slot, or
 * ZAN_RC_NO_MEMORY. */
zan_rcode host_retry_request(const zan_table_base_st *obj, zan_table_operation_et operation);
/* Delete an object that is not stored from NPUs that hold it still. 0 when the delete was sent or
 * done; how it went is seen by the watch over the hooks. */
zan_rcode host_retry_clean(const zan_table_base_st *obj, kor_npu_mask_t npus);

#endif
