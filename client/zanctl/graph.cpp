/* graph: what an object leads to and what leads to it, as a tree or as a picture. */
#include "objects.h"

#include <cstdio>
#include <set>

namespace
{

using nodes_t = std::vector<zan_graph_node_st>;

constexpr struct {
    uint8_t bit;
    const char *name;
} colors[] = {{ZAN_COLOR_GREEN, "green"}, {ZAN_COLOR_RED, "red"}, {ZAN_COLOR_BROWN, "brown"}};

/* What there is to say of a node beside its name, in words. */
std::vector<std::string> remarks(const zan_graph_node_st &node)
{
    std::vector<std::string> out;
    if (node.delete_pending)
        out.emplace_back("delete-pending");
    for (const auto &color : colors)
        if (node.colors & color.bit)
            out.emplace_back(color.name);
    if (node.evt_pushed_count)
        out.push_back("pushed " + std::to_string(node.evt_pushed_count));
    if (node.update_count)
        out.push_back("updated " + std::to_string(node.update_count));
    if (node.skip_count)
        out.push_back("skipped " + std::to_string(node.skip_count));
    if (node.rc_stamp && !node.delete_pending) /* whose code says no more than that */
        out.push_back("last code " + code_text(node.rc_stamp));
    if (node.inflight)
        out.emplace_back("write in flight");
    if (node.failed_rc)
        out.push_back("write failed on NPU " + npus_text(node.failed_npus) + " with " +
                      code_text(node.failed_rc) + ", " + plural(node.attempts, "retry", "retries"));
    return out;
}

std::string label(const zan_graph_node_st &node)
{
    std::string text = std::string(kor_table_name_get(node.table_id)) + " " + node.key;
    const char *separator = "  # ";
    for (const std::string &remark : remarks(node)) {
        text += separator + remark;
        separator = ", ";
    }
    return text;
}

/* The nodes reached from one, in their order. */
std::vector<std::vector<uint32_t>> reached_from(const nodes_t &nodes)
{
    std::vector<std::vector<uint32_t>> below(nodes.size());
    for (uint32_t i = 1; i < nodes.size(); i++)
        if (nodes[i].from < i)
            below[nodes[i].from].push_back(i);
    return below;
}

void print_below(const nodes_t &nodes, const std::vector<std::vector<uint32_t>> &below, uint32_t at,
                 zan_graph_side_et side, uint32_t indent)
{
    uint32_t shown = 0;
    for (const uint32_t i : below[at]) {
        if (nodes[i].side != side)
            continue;
        printf("%*s%s\n", (int)indent, "", label(nodes[i]).c_str());
        print_below(nodes, below, i, side, indent + 2);
        shown++;
    }
    const uint32_t all = side == ZAN_GRAPH_CHILD ? nodes[at].num_children : nodes[at].num_parents;
    if (shown < all)
        printf("%*s... %u more\n", (int)indent, "", all - shown);
}

void print_tree(const nodes_t &nodes)
{
    const auto below = reached_from(nodes);
    printf("%s\n", label(nodes[0]).c_str());
    printf("leads to %s\n", plural(nodes[0].num_parents, "object", "objects").c_str());
    print_below(nodes, below, 0, ZAN_GRAPH_PARENT, 2);
    printf("is led to by %s\n", plural(nodes[0].num_children, "object", "objects").c_str());
    print_below(nodes, below, 0, ZAN_GRAPH_CHILD, 2);
}

/* Each object once, however many ways lead to it; arrows go from child to parent. */
void print_dot(const nodes_t &nodes)
{
    printf("digraph objects {\n    rankdir=BT;\n    node [shape=box, fontname=monospace];\n");
    std::set<uint64_t> drawn;
    std::set<std::pair<uint64_t, uint64_t>> arrows;
    for (const zan_graph_node_st &node : nodes) {
        if (drawn.insert(node.handle).second)
            printf("    \"%llx\" [label=\"%s\\n%s\"%s];\n", (unsigned long long)node.handle,
                   kor_table_name_get(node.table_id), node.key,
                   node.delete_pending ? ", style=dashed" : "");
        if (node.side == ZAN_GRAPH_SELF)
            continue;
        const uint64_t from = nodes[node.from].handle;
        const auto arrow = node.side == ZAN_GRAPH_PARENT ? std::make_pair(from, node.handle)
                                                         : std::make_pair(node.handle, from);
        if (arrows.insert(arrow).second)
            printf("    \"%llx\" -> \"%llx\";\n", (unsigned long long)arrow.first,
                   (unsigned long long)arrow.second);
    }
    printf("}\n");
}

void print_json(const nodes_t &nodes, bool cut)
{
    json_t out;
    out["cut"] = cut;
    out["nodes"] = json_t::array();
    for (const zan_graph_node_st &node : nodes) {
        json_t n = {{"table", kor_table_name_get(node.table_id)},
                    {"key", node.key},
                    {"parents", node.num_parents},
                    {"children", node.num_children},
                    {"delete_pending", node.delete_pending != 0}};
        n["colours"] = json_t::array();
        for (const auto &color : colors)
            if (node.colors & color.bit)
                n["colours"].push_back(color.name);
        n["pushed"] = node.evt_pushed_count;
        n["updated"] = node.update_count;
        n["skipped"] = node.skip_count;
        n["last_walk"] = node.last_walk;
        n["transaction"] = node.trans_id;
        put_code(&n, node.rc_stamp);
        n["inflight"] = node.inflight;
        n["failed_npus"] = npus_json(node.failed_npus);
        n["failed_code"] = code_number(node.failed_rc);
        n["attempts"] = node.attempts;
        if (node.side != ZAN_GRAPH_SELF) {
            n["from"] = node.from;
            n["side"] = node.side == ZAN_GRAPH_PARENT ? "parent" : "child";
        }
        out["nodes"].push_back(n);
    }
    printf("%s\n", out.dump().c_str());
}

} // namespace

int run_graph(session_t *session, const std::string &text, const graph_options_t &options)
{
    std::string why;
    const order_t order = {ZAN_TABLE_GET, parse_named(text, &why), 0};
    if (!order.obj)
        return fail_text(why);
    zan_graph_reply_st reply = {};
    zan_graph_node_st *records = nullptr;
    if (zan_client_graph(session->client, order.obj.get(), options.depth, options.children, &reply,
                         &records))
        return fail_session(session);
    const nodes_t nodes(records, records + reply.num_nodes);
    free(records);
    if (nodes.empty()) {
        report(session, order, {result_t::FAILED, (zan_rcode)reply.err_code, "", "", ""});
        return EXIT_REFUSED;
    }
    if (options.dot)
        print_dot(nodes);
    else if (session->json)
        print_json(nodes, reply.cut != 0);
    else
        print_tree(nodes);
    if (reply.cut && !session->json)
        fprintf(stderr, "zanctl: cut after %zu objects: ask for a smaller --depth or --children\n",
                nodes.size());
    return EXIT_WELL;
}
