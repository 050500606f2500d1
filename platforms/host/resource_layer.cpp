/* The host keeps no occupancy of hardware databases yet: it has no callbacks to offer. */
#include "resource_layer.h"

const kor_arch_resources_cb_t *kor_arch_resources_cb_get(void)
{
    return nullptr;
}
