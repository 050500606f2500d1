/* Tables that are programmed by lists of members: this binary is their platform. It says which
 * members are the same, and looks at the lists through the accessors. */
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "l2mcolist.h"
#include "object_maker.h"
#include "repeated_delta.h"

using namespace bench;

extern "C" {
uint32_t srv_l2mcolist_get_add_count(const srv_l2mcolist_delta_t *);
uint32_t srv_l2mcolist_get_del_count(const srv_l2mcolist_delta_t *);
uint32_t srv_l2mcolist_get_mod_count(const srv_l2mcolist_delta_t *);
uint32_t srv_l2mcolist_get_mod_new_to_old_count(const srv_l2mcolist_delta_t *);
const srv_l2mcolist_element_t *srv_l2mcolist_get_add_array_by_idx(const srv_l2mcolist_delta_t *,
                                                                  uint32_t);
const srv_l2mcolist_element_t *srv_l2mcolist_get_del_array_by_idx(const srv_l2mcolist_delta_t *,
                                                                  uint32_t);
const srv_l2mcolist_element_t *srv_l2mcolist_get_mod_array_by_idx(const srv_l2mcolist_delta_t *,
                                                                  uint32_t);
const srv_l2mcolist_element_t *
srv_l2mcolist_get_mod_new_to_old_array_by_idx(const srv_l2mcolist_delta_t *, uint32_t);
void srv_l2mcolist_dynamic_struct_dump(FILE *, const srv_l2mcolist_element_t *);
}

namespace
{

std::string seen; /* what the last call was told */
uint32_t calls, comparisons;
zan_rcode answer;

std::string member(const srv_l2mcolist_element_t *e)
{
    return std::to_string(e->o_intf) + "/" + std::to_string(e->l2_encap_id);
}

std::string lists(const srv_l2mcolist_delta_t *d)
{
    std::string text;
    for (uint32_t i = 0; i < srv_l2mcolist_get_add_count(d); i++)
        text += "+" + member(srv_l2mcolist_get_add_array_by_idx(d, i)) + " ";
    for (uint32_t i = 0; i < srv_l2mcolist_get_del_count(d); i++)
        text += "-" + member(srv_l2mcolist_get_del_array_by_idx(d, i)) + " ";
    EXPECT_EQ(srv_l2mcolist_get_mod_count(d), srv_l2mcolist_get_mod_new_to_old_count(d));
    for (uint32_t i = 0; i < srv_l2mcolist_get_mod_count(d); i++)
        text += member(srv_l2mcolist_get_mod_new_to_old_array_by_idx(d, i)) + ">" +
                member(srv_l2mcolist_get_mod_array_by_idx(d, i)) + " ";
    return text;
}

/* Members as "o_intf/encap" in an olist; an o_intf of 0 is not set. */
object_t olist(zan_table_operation_et operation,
               const std::vector<std::pair<uint32_t, uint32_t>> &m)
{
    const zan_table_def_t *def = table("l2mcolist");
    object_t obj = with_key(def, 1, operation, (uint32_t)m.size());
    auto *list = (zan_l2mcolist_obj_st *)obj.get();
    for (uint32_t i = 0; i < m.size(); i++) {
        list->o_intf[i] = m[i].first;
        list->l2_encap_id[i] = m[i].second;
        for (const char *name : {m[i].first ? "o_intf" : "l2_encap_id", "l2_encap_id"})
            for (uint32_t a = 0; a < def->num_attrs; a++)
                if (strcmp(def->attrs[a].name, name) == 0)
                    *zan_obj_attr_set(&def->attrs[a], obj.get(), i, (uint32_t)m.size()) = 1;
    }
    return obj;
}

} // namespace

extern "C" ZAN_EXPORT zan_rcode srv_l2mcolist_update_deprecated(zan_repeated_delta_t *delta,
                                                                uint32_t)
{
    calls++;
    if (delta->new_count < 100)
        seen = lists(delta);
    return answer;
}

extern "C" ZAN_EXPORT int32_t
srv_l2mcolist_compare_dynamic_struct_deprecated(const void *old_element, const void *new_element)
{
    comparisons++;
    const auto *a = (const srv_l2mcolist_element_t *)old_element;
    const auto *b = (const srv_l2mcolist_element_t *)new_element;
    EXPECT_EQ(a->side, 0u);
    EXPECT_EQ(b->side, 1u);
    if (a->o_intf != b->o_intf)
        return ZAN_ELEMENT_OTHER;
    return a->l2_encap_id == b->l2_encap_id ? ZAN_ELEMENT_EQUAL : ZAN_ELEMENT_MODIFIED;
}

TEST(MemberLists, TellWhatWasAddedDeletedAndModified)
{
    const server_t server({.num_npus = 1});
    EXPECT_EQ(run(olist(ZAN_TABLE_CREATE, {{10, 1}, {20, 2}, {30, 3}})).rc, (zan_rcode)EOK);
    EXPECT_EQ(seen, "+10/1 +20/2 +30/3 ");
    const struct {
        std::vector<std::pair<uint32_t, uint32_t>> members;
        const char *lists;
    } updates[] = {
        {{{10, 1}, {20, 9}, {40, 4}}, "+40/4 -30/3 20/2>20/9 "},
        {{{40, 4}, {10, 1}, {20, 9}},
         ""}, /* moved in the list: the platform is called all the same */
        {{{10, 5}}, "-40/4 -20/9 10/1>10/5 "},
        {{{50, 1}, {60, 1}}, "+50/1 +60/1 -10/5 "},
    };
    for (const auto &u : updates) {
        const uint32_t before = calls;
        object_t update = olist(ZAN_TABLE_UPDATE, u.members);
        update->flag |= ZAN_FLAG_RETRY_MODE;
        EXPECT_EQ(run(update).rc, (zan_rcode)EOK);
        EXPECT_EQ(seen, u.lists);
        EXPECT_EQ(calls, before + 1);
    }
    EXPECT_EQ(run(with_key(table("l2mcolist"), 1, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
    EXPECT_EQ(seen, "-50/1 -60/1 ");
    EXPECT_EQ(residue(), residue_t());
}

TEST(MemberLists, TakeMembersWithoutANameForNewOnesEachTime)
{
    const server_t server({.num_npus = 1});
    EXPECT_EQ(run(olist(ZAN_TABLE_CREATE, {{0, 1}, {0, 1}, {10, 1}})).rc, (zan_rcode)EOK);
    object_t again = olist(ZAN_TABLE_UPDATE, {{0, 1}, {0, 2}, {10, 1}});
    again->flag |= ZAN_FLAG_RETRY_MODE;
    comparisons = 0;
    EXPECT_EQ(run(again).rc, (zan_rcode)EOK);
    EXPECT_EQ(seen, "+0/1 +0/2 -0/1 -0/1 ");
    EXPECT_EQ(comparisons, 1u);
}

TEST(MemberLists, RefuseAFailingPlatformAndMembersOfOneName)
{
    const server_t server({.num_npus = 1});
    EXPECT_EQ(run(olist(ZAN_TABLE_CREATE, {{10, 1}, {10, 2}})).rc, ZAN_RC_INVALID);
    run(olist(ZAN_TABLE_CREATE, {{10, 1}}));
    EXPECT_EQ(run(olist(ZAN_TABLE_UPDATE, {{20, 1}, {20, 1}})).rc, ZAN_RC_INVALID);
    answer = 0x4fa01234;
    EXPECT_EQ(run(olist(ZAN_TABLE_UPDATE, {{20, 1}})).rc, answer);
    answer = EOK;
    EXPECT_EQ(dump(table("l2mcolist")).size(), 1u);
    EXPECT_NE(dump(table("l2mcolist"))[0].find("o_intf[0]=10"), std::string::npos)
        << "the old list stands";
}

TEST(MemberLists, OfThousandsNeitherOverflowNorCompareEachWithEach)
{
    const server_t server({.num_npus = 1});
    constexpr uint32_t members = 20'000;
    std::vector<std::pair<uint32_t, uint32_t>> list, other;
    for (uint32_t i = 0; i < members; i++) {
        list.push_back({i + 1, 1});
        other.push_back({members - i, 2});
    }
    EXPECT_EQ(run(olist(ZAN_TABLE_CREATE, list)).rc, (zan_rcode)EOK);
    comparisons = 0;
    EXPECT_EQ(run(olist(ZAN_TABLE_UPDATE, other)).rc, (zan_rcode)EOK);
    EXPECT_EQ(comparisons, members) << "each with the one that may be it";
}

TEST(MemberLists, AccessorsTakeNullAndOneIndexTooMany)
{
    srv_l2mcolist_element_t elements[1] = {};
    uint32_t array[1] = {0};
    zan_repeated_delta_t empty = {};
    empty.new_elems = empty.old_elems = (uint8_t *)elements;
    empty.add_array = empty.del_array = empty.mod_array = empty.mod_new_to_old_array = array;
    EXPECT_EQ(srv_l2mcolist_get_add_count(nullptr), 0u);
    EXPECT_EQ(srv_l2mcolist_get_add_array_by_idx(nullptr, 0), nullptr);
    EXPECT_EQ(srv_l2mcolist_get_add_array_by_idx(&empty, 0), elements) << "the spare entry";
    EXPECT_EQ(srv_l2mcolist_get_add_array_by_idx(&empty, 1), nullptr);
    EXPECT_EQ(srv_l2mcolist_get_del_array_by_idx(&empty, 1), nullptr);
}

TEST(MemberLists, AreDumpedForPeople)
{
    srv_l2mcolist_element_t e = {};
    e.npu_id = 3;
    e.npu_id_set = 1;
    e.o_port = 0x1234;
    e.l2intf_refhdl = 0xabcdef;
    char *text = nullptr;
    size_t size = 0;
    FILE *file = open_memstream(&text, &size);
    srv_l2mcolist_dynamic_struct_dump(file, &e);
    fclose(file);
    const std::string dumped(text, size);
    free(text);
    EXPECT_EQ(dumped.find("** Start dumping data **\nnpu_id(SET): 0x3(size=uint32_t)\n"), 0u)
        << dumped;
    for (const char *line :
         {"o_port(NOT SET): 0x1234(size=zan_if_t)\n", "o_intf(NOT SET): 0x0(size=kor_intf_t)\n",
          "l2intf_refhdl(NOT SET): 0xabcdef(size=kor_l2intf_hdl_t)\n",
          "is_bundle(NOT SET): 0x0(size=zan_bool_t)\n"})
        EXPECT_NE(dumped.find(line), std::string::npos) << line << dumped;
    const char *path = "/tmp/svr_l2mcolist_update_dump";
    unlink(path);
    srv_l2mcolist_dynamic_struct_dump(nullptr, &e);
    EXPECT_EQ(access(path, R_OK), 0) << "without a file it appends to one of its own";
    unlink(path);
}
