/* The walks that run, for the host's other services. */
#ifndef ZAN_HOST_WALK_H
#define ZAN_HOST_WALK_H

#include "zan_table_base.h"

/* An object leaves the database: no walk may come to it. Costs one load when no walk runs. */
void host_walks_forget(zan_table_base_st *obj);
/* Give the memory of the walks back; none runs. */
void host_walks_release(void);

#endif
