/* A server without a platform: every hook leads to a default or nowhere, and every create goes
 * through. */
#include <gtest/gtest.h>

#include "object_maker.h"

using namespace bench;

TEST(NoPlatform, EveryCreateSucceedsWithoutHardware)
{
    const server_t server({.num_npus = 2});
    for (const zan_table_def_t *def : zan_table_defs) {
        const srv_zan_table_props_t *props = zan_srv_table_props_get(def->id);
        for (uint32_t hook = 0; hook < ZAN_HOOK_COUNT; hook++)
            EXPECT_NE(props->hook_source[hook], ZAN_HOOK_PLATFORM) << def->name << " " << hook;
        EXPECT_EQ(props->hook_source[ZAN_HOOK_create], ZAN_HOOK_NONE);
        EXPECT_EQ(props->color_using_fwalk(nullptr), 1) << "absent means 1";
        EXPECT_EQ(props->hook_source[ZAN_HOOK_reserve_id] == ZAN_HOOK_DEFAULT,
                  def->identifiers != 0)
            << def->name << ": the host's allocator is a default";
        EXPECT_EQ(run(with_key(def, 1)).rc, (zan_rcode)EOK) << def->name;
    }
    settle();
    for (const zan_table_def_t *def : zan_table_defs)
        EXPECT_EQ(zan_db_count(def->id), 1u) << def->name;
}
