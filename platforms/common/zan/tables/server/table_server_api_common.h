/* The shared header of the table server: what every source of it includes. */
#ifndef TABLE_SERVER_API_COMMON_H
#define TABLE_SERVER_API_COMMON_H

#include "clock.h"
#include "dependency_graph.h"
#include "exec_queue.h"
#include "internal_queues.h"
#include "locks.h"
#include "object_memory.h"
#include "statistics.h"
#include "system_facts.h"
#include "table_crud_ctx.h"
#include "table_flows.h"
#include "thread_control.h"

#endif
