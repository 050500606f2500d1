/* Facts of the node. Any thread. */
#ifndef ZAN_PLATFORM_SYSTEM_FACTS_H
#define ZAN_PLATFORM_SYSTEM_FACTS_H

#include "zan_table_base.h"

#define ZAN_NODE_ROLE_STANDBY 0u /* the database is written, no hardware is touched */
#define ZAN_NODE_ROLE_ACTIVE  1u

struct zan_table_crud_ctx_t;

ZAN_EXTERN_C_BEGIN
ZAN_EXPORT uint32_t platcfg_config_get_max_num_npus(void);
ZAN_EXPORT kor_npu_mask_t platcfg_config_get_avail_npu_mask(void);
/* The node's role for this write. The hardware step acts only on ZAN_NODE_ROLE_ACTIVE. */
ZAN_EXPORT uint32_t kor_get_node_role(const zan_table_base_st *new_obj,
                                      const zan_table_base_st *old_obj,
                                      const struct zan_table_crud_ctx_t *crud);
ZAN_EXTERN_C_END

#endif
