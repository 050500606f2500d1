/* change: what was loaded changes at a few places that much leads to, and every child follows.
 *
 * The forwarding class of a next-hop group concerns the routes of that group and no others; the MTU
 * of an interface concerns the link-layer next hops on it, which copy it. A walk must update these
 * children, each once, and nothing else. That is looked at from three sides: the counts of the
 * walk, those that the children and the children of all objects beside carry themselves, and the
 * database against what the NPUs hold.
 */
#include "routes.h"
#include "topology.h"
#include "walks.h"
#include "writes.h"

#include <cstdio>
#include <map>
#include <stdexcept>

namespace
{

constexpr size_t shown_faults = 10;

/* A change of the first object of its table in the network. */
struct wanted_t {
    const char *table, *field;
    const char *values[2]; /* the second where the first is stored already */
    const char *event;     /* that the change raises */
    const char *children;  /* the table that the event concerns */
    const char *follows;   /* their field that becomes the same, or null */
    uint64_t expected;     /* children of the object */
};

struct changed_t {
    const wanted_t *wanted;
    std::string text; /* TABLE KEY=VALUE FIELD=VALUE */
    const char *value;
    outcome_t outcome;
    walks_t walks;
    uint64_t updated, forced;
    uint64_t children, others; /* looked at: of the object, and of those beside it */
    std::vector<std::string> faults;
};

struct change_t {
    session_t *session;
    std::vector<topology_stage_t> network;
    std::vector<changed_t> changes;
    zan_compare_reply_st comparison;
};

/* What walks did to the children of a stage's objects, by handle. */
struct child_t {
    bool ours; /* of the object that changes */
    uint16_t updates;
    std::string key;
};
using children_t = std::map<uint64_t, child_t>;

const topology_stage_t &stage_of(const change_t *c, const wanted_t &wanted)
{
    for (const topology_stage_t &stage : c->network)
        if (std::string(stage.def->name) == wanted.table)
            return stage;
    throw std::runtime_error(std::string("the network has no ") + wanted.table);
}

bool has_value(const zan_table_base_st *obj, const char *field, const char *value)
{
    const std::string text = " " + object_text(obj) + " ";
    return text.find(std::string(" ") + field + "=" + value + " ") != std::string::npos;
}

/* ---- Steps: each is false when the session failed ---- */

/* An object as it is stored; null when it is not there. */
bool read_object(session_t *session, const zan_table_base_st *lookup, object_ptr_t *out)
{
    zan_rcode rc;
    zan_table_base_st *found;
    if (zan_client_read(session->client, ZAN_TABLE_GET, lookup, &rc, &found))
        return false;
    out->reset(found);
    return true;
}

/* At most ZAN_GRAPH_CHILDREN_MAX of each object of the stage. */
bool look_at_children(const change_t *c, const wanted_t &wanted, children_t *out)
{
    const zan_table_def_t *children = zan_table_def_find(wanted.children);
    const topology_stage_t &stage = stage_of(c, wanted);
    for (const object_ptr_t &parent : stage.objects) {
        zan_graph_reply_st reply;
        zan_graph_node_st *nodes;
        if (zan_client_graph(c->session->client, parent.get(), 1, ZAN_GRAPH_CHILDREN_MAX, &reply,
                             &nodes))
            return false;
        const std::unique_ptr<zan_graph_node_st, free_object_t> owned(nodes);
        for (uint32_t i = 0; i < reply.num_nodes; i++)
            if (nodes[i].side == ZAN_GRAPH_CHILD && nodes[i].table_id == children->id)
                (*out)[nodes[i].handle] = {parent == stage.objects.front(), nodes[i].update_count,
                                           nodes[i].key};
    }
    return true;
}

/* The children that must have followed have, and hold the new value; the others were not touched.
 */
bool check_children(change_t *c, changed_t *changed, const children_t &before,
                    const children_t &after)
{
    const wanted_t &wanted = *changed->wanted;
    for (const auto &[handle, child] : after) {
        (child.ours ? changed->children : changed->others)++;
        const auto old = before.find(handle);
        const int updates =
            old == before.end() ? 0 : (uint16_t)(child.updates - old->second.updates);
        if (updates != child.ours)
            changed->faults.push_back(std::string(wanted.children) + " " + child.key + ": " +
                                      std::to_string(updates) + " updates, not " +
                                      (child.ours ? "1" : "0"));
        if (!child.ours || !wanted.follows)
            continue;
        std::string why;
        const object_ptr_t lookup =
            parse_object(std::string(wanted.children) + " " + child.key, &why);
        object_ptr_t found;
        if (!lookup || !read_object(c->session, lookup.get(), &found))
            return false;
        if (!found || !has_value(found.get(), wanted.follows, changed->value))
            changed->faults.push_back(std::string(wanted.children) + " " + child.key + ": " +
                                      wanted.follows + " is not " + changed->value);
    }
    if (before.size() != after.size())
        changed->faults.emplace_back("children came or went meanwhile");
    return true;
}

void check_counts(changed_t *changed)
{
    const wanted_t &wanted = *changed->wanted;
    auto fault = [changed](const std::string &words) { changed->faults.push_back(words); };
    if (changed->outcome.result != result_t::DONE)
        fault(code_text(changed->outcome.rc));
    uint64_t pushed = 0;
    for (const zan_walk_event_st &event : changed->walks.events)
        if (was_pushed(event)) {
            pushed += event.count;
            if (std::string(event_name(event)) != wanted.event)
                fault(std::string(event_name(event)) + " was pushed");
        }
    if (pushed != 1)
        fault(std::to_string(pushed) + " events were pushed, not 1 " + wanted.event);
    for (const zan_walk_table_st &t : changed->walks.tables) {
        const std::string table = kor_table_name_get(t.table_id);
        if (table == wanted.children) {
            changed->updated = t.updates;
            changed->forced = t.forced;
        } else if (t.updates) {
            fault(table + ": " + std::to_string(t.updates) + " updated, none should be");
        }
        if (t.failures || t.revisits)
            fault(table + ": " + std::to_string(t.failures) + " failed, " +
                  std::to_string(t.revisits) + " visited again");
    }
    if (changed->updated != wanted.expected)
        fault(std::string(wanted.children) + ": " + std::to_string(changed->updated) +
              " updated, not " + std::to_string(wanted.expected));
}

bool make_change(change_t *c, const wanted_t &wanted)
{
    const zan_table_base_st *first = stage_of(c, wanted).objects.front().get();
    changed_t changed = {};
    changed.wanted = &wanted;
    object_ptr_t stored;
    children_t before, after;
    if (!read_object(c->session, first, &stored))
        return false;
    changed.value =
        wanted.values[stored && has_value(stored.get(), wanted.field, wanted.values[0])];
    changed.text = std::string(wanted.table) + " " + key_text(first) + " " + wanted.field + "=" +
                   changed.value;
    std::string why;
    const order_t order = {ZAN_TABLE_UPDATE, parse_update(c->session, changed.text, &why), 0};
    if (!order.obj)
        throw std::runtime_error(why);
    if (!look_at_children(c, wanted, &before) ||
        !change_object(c->session, order, &changed.outcome, &changed.walks) ||
        !look_at_children(c, wanted, &after))
        return false;
    check_counts(&changed);
    const bool good = check_children(c, &changed, before, after);
    c->changes.push_back(std::move(changed));
    return good;
}

bool compare(change_t *c)
{
    const uint32_t node = zan_client_node(c->session->client)->node;
    if (!(node & ZAN_NODE_CAN_COMPARE) || (node & ZAN_NODE_STANDBY))
        return true;
    zan_difference_st *differences;
    if (zan_client_compare(c->session->client, ZAN_WIRE_NO_INDEX, 0, &c->comparison, &differences))
        return false;
    free(differences);
    return true;
}

/* ---- Verdict and report ---- */

bool is_good(const change_t *c)
{
    for (const changed_t &changed : c->changes)
        if (!changed.faults.empty())
            return false;
    return !c->comparison.missing && !c->comparison.different && !c->comparison.surplus;
}

double us_each(const changed_t &changed)
{
    return changed.updated ? (double)sum_of(changed.walks).walk_ns / 1e3 / (double)changed.updated
                           : 0;
}

void report_text(const change_t *c)
{
    for (const changed_t &changed : c->changes) {
        printf("changed   %s\n", changed.text.c_str());
        printf("  walked  %llu of %llu %s updated, %llu forced, in %.3f ms, %.2f us each\n",
               (unsigned long long)changed.updated, (unsigned long long)changed.wanted->expected,
               changed.wanted->children, (unsigned long long)changed.forced,
               milliseconds(sum_of(changed.walks).walk_ns), us_each(changed));
        printf("  checked %llu below it, %llu below other objects of %s: %zu not as they should "
               "be\n",
               (unsigned long long)changed.children, (unsigned long long)changed.others,
               changed.wanted->table, changed.faults.size());
        for (size_t i = 0; i < changed.faults.size() && i < shown_faults; i++)
            printf("  %s\n", changed.faults[i].c_str());
    }
    print_comparison(c->comparison, nullptr);
    printf("%s\n", is_good(c) ? "every child followed, and nothing else was touched"
                              : "NOT as it should be: see above");
}

void report_json(const change_t *c)
{
    json_t out;
    out["well"] = is_good(c);
    out["changes"] = json_t::array();
    for (const changed_t &changed : c->changes)
        out["changes"].push_back({{"change", changed.text},
                                  {"children", changed.wanted->children},
                                  {"expected", changed.wanted->expected},
                                  {"updated", changed.updated},
                                  {"forced", changed.forced},
                                  {"us_each", us_each(changed)},
                                  {"checked_below", changed.children},
                                  {"checked_beside", changed.others},
                                  {"faults", changed.faults},
                                  {"walk", walks_json(changed.walks)}});
    out["missing_on_npus"] = c->comparison.missing;
    out["different_on_npus"] = c->comparison.different;
    out["surplus_on_npus"] = c->comparison.surplus;
    printf("%s\n", out.dump().c_str());
}

} // namespace

int run_change(session_t *session, const std::vector<std::string> &files)
{
    prefixes_t prefixes = {};
    std::string why;
    for (const std::string &file : files)
        if (!read_prefixes(file, &prefixes, &why))
            return fail_text(why);
    drop_repeats(&prefixes);
    const wanted_t wanted[] = {
        {"ipnhgroup",
         "fec_id",
         {"7001", "7002"},
         "IPNHGROUP_FEC_ID_CHANGE",
         "iproute",
         nullptr,
         make_ipv4_routes(prefixes).count_in_group(1)},
        {"ip6nhgroup",
         "fec_id",
         {"7001", "7002"},
         "IP6NHGROUP_FEC_ID_CHANGE",
         "ip6route",
         nullptr,
         make_ipv6_routes(prefixes).count_in_group(1)},
        {"l3intf",
         "ipv4_mtu",
         {"9000", "1500"},
         "L3INTF_L3INTF_MTU_CHANGE",
         "macllnh",
         "l3a_ipv4_mtu",
         topology_neighbours},
    };
    change_t c = {};
    c.session = session;
    c.network = make_topology(0);
    for (const wanted_t &w : wanted)
        if (w.expected && !make_change(&c, w))
            return fail_session(session);
    if (!compare(&c))
        return fail_session(session);
    session->json ? report_json(&c) : report_text(&c);
    return is_good(&c) ? EXIT_WELL : EXIT_REFUSED;
}
