/* The graph around an object: its parents upwards, its children downwards, some levels far. Bounded
 * in every direction, since paths multiply. */
#include "requests.h"

#include "dependency_graph.h"
#include "host_retry.h"
#include "table_database.h"
#include "walk_service.h"

#include <cstring>

namespace
{

struct graph_t {
    zan_graph_st wanted;
    std::vector<zan_graph_node_st> nodes;
    bool cut;
};

/* One node, or ZAN_WIRE_NO_INDEX when there are as many as a reply takes. */
uint32_t add_node(graph_t *g, const zan_table_base_st *obj, uint32_t from, zan_graph_side_et side)
{
    if (g->nodes.size() == ZAN_GRAPH_NODES_MAX) {
        g->cut = true;
        return ZAN_WIRE_NO_INDEX;
    }
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    zan_graph_node_st node = {};
    node.handle = (uint64_t)(uintptr_t)obj;
    node.from = from;
    node.table_id = obj->table_id;
    node.num_parents = obj->dpd.num_parents;
    node.num_children = obj->dpd.dpd_child_cnt;
    node.side = (uint8_t)side;
    node.delete_pending = obj->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE;
    node.colors = zan_color_get_self_mask(obj);
    node.update_count = obj->dpd.bwalk_update_count;
    node.skip_count = obj->dpd.bwalk_skip_count;
    node.evt_pushed_count = obj->dpd.evt_pushed_count;
    node.last_walk = obj->dpd.bwalk_id_stamp;
    node.trans_id = obj->base_trans_id;
    node.rc_stamp = obj->rc_stamp;
    node.inflight = obj->inflight;
    zan_host_failed_st failed;
    if (zan_host_failed_get(def->id, zan_obj_key(def, obj), &failed)) {
        node.failed_npus = (uint8_t)failed.npu_mask;
        node.failed_rc = failed.rc;
        node.attempts = failed.attempts;
    }
    zan_key_print(def, zan_obj_key(def, obj), node.key, sizeof node.key);
    g->nodes.push_back(node);
    return (uint32_t)g->nodes.size() - 1;
}

/* Depth first; the depth is bounded, and with it the recursion. */
void add_parents(graph_t *g, const zan_table_base_st *obj, uint32_t at, uint32_t depth)
{
    for (uint32_t i = 0; depth != 0 && i < obj->dpd.num_parents; i++) {
        const zan_table_base_st *parent = kor_dpd_get_parent_safe(obj, i);
        const uint32_t node = add_node(g, parent, at, ZAN_GRAPH_PARENT);
        if (node == ZAN_WIRE_NO_INDEX)
            return;
        add_parents(g, parent, node, depth - 1);
    }
}

void add_children(graph_t *g, const zan_table_base_st *obj, uint32_t at, uint32_t depth)
{
    uint32_t shown = 0;
    for (const zan_dpd_link_st *link = obj->dpd.dpd_child_list;
         depth != 0 && link && shown < g->wanted.children; link = kor_dpd_next_child(link)) {
        const uint32_t node = add_node(g, link->child, at, ZAN_GRAPH_CHILD);
        if (node == ZAN_WIRE_NO_INDEX)
            return;
        add_children(g, link->child, node, depth - 1);
        shown++;
    }
}

} // namespace

answer_t run_graph(node_t *node, request_t *request)
{
    graph_t g = {};
    if (request->payload.size() < sizeof g.wanted)
        return refuse_request(node, "length", "the frame is shorter than its header");
    memcpy(&g.wanted, request->payload.data(), sizeof g.wanted);
    if (g.wanted.depth > ZAN_GRAPH_DEPTH_MAX || g.wanted.children > ZAN_GRAPH_CHILDREN_MAX)
        return refuse_request(node, "depth", "at most 32 levels and 1000 children of one object");
    answer_t refusal;
    const zan_table_base_st *name = named_object(node, request, sizeof g.wanted, &refusal);
    if (!name)
        return refusal;

    zan_graph_reply_st reply = {};
    {
        const dispatcher_hold_t hold;
        const zan_table_base_st *obj = zan_db_get(name);
        if (obj) {
            const uint32_t self = add_node(&g, obj, ZAN_WIRE_NO_INDEX, ZAN_GRAPH_SELF);
            add_parents(&g, obj, self, g.wanted.depth);
            add_children(&g, obj, self, g.wanted.depth);
        } else {
            reply.err_code = ZAN_RC_NOT_FOUND;
        }
    }
    reply.num_nodes = (uint32_t)g.nodes.size();
    reply.cut = g.cut;
    const size_t bytes = g.nodes.size() * sizeof(zan_graph_node_st);
    std::vector<uint8_t> out(sizeof(zan_frame_hdr_st) + sizeof reply + bytes);
    memcpy(out.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    if (bytes)
        memcpy(out.data() + sizeof(zan_frame_hdr_st) + sizeof reply, g.nodes.data(), bytes);
    return {ZAN_FRAME_GRAPH_REPLY, std::move(out)};
}
