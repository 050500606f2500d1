/* The quarantine of the table database; see table_database.h and host_control.h. */
#ifndef ZAN_HOST_QUARANTINE_H
#define ZAN_HOST_QUARANTINE_H

#include "zan_table_base.h"

void host_quarantine_free_table(uint32_t table_id);

#endif
