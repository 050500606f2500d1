/* Notifications: each request is counted and goes to the table's own function, which sends it. */
#include "notification.h"
#include "host_services.h"
#include "resource_layer.h"
#include "table_properties.h"

static constexpr uint32_t num_types = 32;
static uint64_t asked[num_types];

void zan_send_srv_notif(zan_table_base_st *obj, uint32_t type)
{
    __atomic_fetch_add(&asked[type % num_types], 1, __ATOMIC_RELAXED);
    zan_srv_send_notif_st notif = {obj, type, 0};
    zan_srv_table_props_get(obj->table_id)->send_notification(&notif);
}

uint64_t zan_host_notifications(uint32_t type)
{
    return __atomic_load_n(&asked[type % num_types], __ATOMIC_RELAXED);
}
