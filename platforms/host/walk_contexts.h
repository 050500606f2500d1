/* Walk contexts, for the host's other services. */
#ifndef ZAN_HOST_WALK_CONTEXTS_H
#define ZAN_HOST_WALK_CONTEXTS_H

#include "walk_service.h"

/* The message that carried the context to the NPU threads has come home: its hold on the context,
 * and on the copies that a post_proc event gave to it, ends. Dispatcher. */
void host_walk_ctx_came_home(kor_dpd_event_ctx_t *walk_ctx);

#endif
