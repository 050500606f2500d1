/* All batches here are pipelined two deep: while the agent runs one, the next is made. */
#include "routes.h"
#include "topology.h"

#include "ip6route.h"
#include "iproute.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <stdexcept>

namespace
{

constexpr uint32_t batch_objects = 1000;
constexpr uint32_t sample_objects = 1000;
constexpr size_t shown_wrong = 10;

object_ptr_t template_of(const zan_table_def_t *def, const char *text)
{
    char why[256] = "";
    object_ptr_t obj(zan_obj_parse(def, text, why, sizeof why));
    if (!obj)
        throw std::runtime_error(std::string(def->name) + " " + text + ": " + why);
    obj->write_kind = ZAN_WRITE_KIND_REPLACE; /* loading twice is no mistake */
    return obj;
}

uint32_t group_of(uint32_t index)
{
    return index % topology_groups + 1;
}

template <typename prefix_t> std::vector<uint32_t> sorted(const std::vector<prefix_t> &prefixes)
{
    std::vector<uint32_t> order(prefixes.size());
    std::iota(order.begin(), order.end(), 0u);
    std::sort(order.begin(), order.end(), [&prefixes](uint32_t a, uint32_t b) {
        return memcmp(&prefixes[a], &prefixes[b], sizeof(prefix_t)) < 0;
    });
    return order;
}

/* Two batches in turn; `done` sees each reply in order. */
struct pipeline_t {
    session_t *session;
    batch_ptr_t batches[2];
    uint64_t submitted, completed;
    std::function<void(const zan_batch_t *, uint64_t)> done; /* gets the batch's number too */

    pipeline_t(session_t *s, uint32_t flags,
               std::function<void(const zan_batch_t *, uint64_t)> when_done)
        : session(s), batches{batch_ptr_t(zan_batch_new(flags, 0)),
                              batch_ptr_t(zan_batch_new(flags, 0))},
          submitted(0), completed(0), done(std::move(when_done))
    {
        if (!batches[0] || !batches[1])
            throw std::bad_alloc();
    }
    zan_batch_t *open() const
    {
        return batches[submitted % 2].get();
    }
    void append(const zan_table_base_st *obj, uint8_t operation) const
    {
        if (zan_batch_append(open(), obj, operation))
            throw std::runtime_error("a batch does not fit into a frame");
    }
    bool complete()
    {
        zan_batch_t *batch = batches[completed % 2].get();
        if (zan_client_complete(session->client, batch))
            return false;
        done(batch, completed++);
        zan_batch_clear(batch);
        return true;
    }
    /* Send the open batch; the other one is then open and empty. */
    bool flush()
    {
        if (zan_batch_count(open()) == 0)
            return true;
        if (zan_client_submit(session->client, open()))
            return false;
        submitted++;
        return submitted - completed < 2 || complete();
    }
    bool finish()
    {
        if (!flush())
            return false;
        while (completed < submitted)
            if (!complete())
                return false;
        return true;
    }
};

void note_wrong(route_check_t *check, const routes_t *routes, const std::string &words)
{
    if (check->wrong.size() < shown_wrong)
        check->wrong.push_back(std::string(routes->def->name) + " " + key_text(routes->obj.get()) +
                               ": " + words);
}

/* ---- Sample ---- */

const char *difference_name(const zan_table_def_t *def, int32_t index)
{
    if (index < 0)
        return "num_elements";
    if (index < def->num_attrs)
        return def->attrs[index].name;
    index -= def->num_attrs;
    return index < def->num_refs ? def->refs[index].stem : def->unions[index - def->num_refs].attr;
}

void check_one(const routes_t *routes, zan_rcode rc, const zan_table_base_st *found,
               route_check_t *check)
{
    const zan_table_def_t *def = routes->def;
    const zan_table_base_st *sent = routes->obj.get();
    int32_t index = -1;
    check->sample_read++;
    if (rc != EOK || !found) {
        check->sample_wrong++;
        note_wrong(check, routes, code_text(rc));
    } else if (zan_key_cmp(def, zan_obj_key(def, sent), zan_obj_key(def, found))) {
        check->sample_wrong++;
        note_wrong(check, routes, "the answer has another key: " + key_text(found));
    } else if (zan_obj_attrs_differ(def, sent, found, &index)) {
        check->sample_wrong++;
        note_wrong(check, routes, std::string("not what was sent: ") + difference_name(def, index));
    }
}

/* ---- Order ---- */

struct walk_t {
    routes_t *routes;
    route_check_t *check;
    uint64_t next;              /* rank in key order that the next answer should have */
    std::vector<uint64_t> gaps; /* ranks in front of which strangers stand */
};

/* Whether an object stands in front of the route of a rank, or behind it. */
bool is_before(const routes_t *routes, const zan_table_base_st *found, uint64_t rank)
{
    routes->make(routes->in_key_order[rank]);
    return zan_key_cmp(routes->def, zan_obj_key(routes->def, found),
                       zan_obj_key(routes->def, routes->obj.get())) < 0;
}

bool is_behind(const routes_t *routes, const zan_table_base_st *found, uint64_t rank)
{
    routes->make(routes->in_key_order[rank]);
    return zan_key_cmp(routes->def, zan_obj_key(routes->def, found),
                       zan_obj_key(routes->def, routes->obj.get())) > 0;
}

void note_missing(walk_t *walk, uint64_t rank, const std::string &words)
{
    walk->routes->make(walk->routes->in_key_order[rank]);
    walk->check->missing.push_back(walk->routes->in_key_order[rank]);
    note_wrong(walk->check, walk->routes, "missing: " + words);
}

/* The first object that does not stand in front of the route of this rank. */
void check_place(walk_t *walk, uint64_t rank, const zan_table_base_st *found)
{
    routes_t *routes = walk->routes;
    int32_t index = -1;
    if (is_behind(routes, found, rank)) {
        note_missing(walk, rank, "the walk goes on with " + key_text(found));
        return;
    }
    walk->check->walked++;
    if (!zan_obj_attrs_differ(routes->def, routes->obj.get(), found, &index))
        return;
    walk->check->different.push_back(routes->in_key_order[rank]);
    note_wrong(walk->check, routes,
               std::string("not what was sent: ") + difference_name(routes->def, index));
}

/* The answer to "what comes behind the sent key of rank next - 1?" */
void check_answer(walk_t *walk, zan_rcode rc, const zan_table_base_st *found)
{
    const routes_t *routes = walk->routes;
    const uint64_t rank = walk->next++;
    if (rank == routes->count) { /* what stands behind the last is not looked through */
        walk->check->strangers += rc == EOK;
    } else if (rc != EOK || !found) {
        note_missing(walk, rank, code_text(rc));
    } else if (!is_before(routes, found, rank)) {
        check_place(walk, rank, found);
    } else if (rank == 0 || is_behind(routes, found, rank - 1)) {
        walk->gaps.push_back(rank);
    } else {
        walk->check->misordered++;
        note_wrong(walk->check, routes, "followed by " + key_text(found));
    }
}

/* ---- Strangers: what stands between two routes and was not sent ---- */

struct gap_t {
    walk_t *walk;
    uint64_t rank; /* of the route behind it */
    bool ended;
};

int visit_gap(const zan_table_base_st *found, void *arg)
{
    auto *gap = (gap_t *)arg;
    const routes_t *routes = gap->walk->routes;
    if (gap->rank && !is_behind(routes, found, gap->rank - 1))
        return 0; /* the route in front of it */
    gap->ended = !is_before(routes, found, gap->rank);
    if (gap->ended)
        check_place(gap->walk, gap->rank, found);
    else
        gap->walk->check->strangers++;
    return gap->ended;
}

/* Go on behind the strangers to the route that was expected in their place. */
bool cross_gap(session_t *session, walk_t *walk, uint64_t rank)
{
    const routes_t *routes = walk->routes;
    gap_t gap = {walk, rank, false};
    if (rank)
        routes->make(routes->in_key_order[rank - 1]);
    zan_rcode rc;
    if (zan_client_walk(session->client, routes->def, rank ? routes->obj.get() : nullptr, visit_gap,
                        &gap, &rc))
        return false;
    if (!gap.ended)
        note_missing(walk, rank, code_text(rc ? rc : ZAN_RC_NOT_FOUND));
    return true;
}

} // namespace

routes_t make_ipv4_routes(const prefixes_t &prefixes)
{
    routes_t r = {"IPv4 routes",
                  zan_table_def_get(IPROUTE_TABLE_ID),
                  (uint32_t)prefixes.ipv4.size(),
                  nullptr,
                  nullptr,
                  sorted(prefixes.ipv4),
                  0};
    r.obj = template_of(r.def, "vrf_id=0 prefix=0.0.0.0/0 route_type=unicast "
                               "next_obj.ipnhgroup.nhg_id=1");
    auto *obj = (zan_iproute_obj_st *)r.obj.get();
    r.put = [obj, &prefixes](uint32_t i, uint32_t group) {
        obj->key.prefix = prefixes.ipv4[i];
        obj->next_obj.key.ipnhgroup.nhg_id = group;
    };
    return r;
}

routes_t make_ipv6_routes(const prefixes_t &prefixes)
{
    routes_t r = {"IPv6 routes",
                  zan_table_def_get(IP6ROUTE_TABLE_ID),
                  (uint32_t)prefixes.ipv6.size(),
                  nullptr,
                  nullptr,
                  sorted(prefixes.ipv6),
                  0};
    r.obj = template_of(r.def, "vrf_id=0 prefix=::/0 route_type=unicast "
                               "next_obj.ip6nhgroup.nhg_id=1");
    auto *obj = (zan_ip6route_obj_st *)r.obj.get();
    r.put = [obj, &prefixes](uint32_t i, uint32_t group) {
        obj->key.prefix = prefixes.ipv6[i];
        obj->next_obj.key.ip6nhgroup.nhg_id = group;
    };
    return r;
}

void routes_t::make(uint32_t i) const
{
    put(i, group_of(moved_every && i % moved_every == 0 ? i + 1 : i));
}

uint32_t routes_t::count_in_group(uint32_t group) const
{
    uint32_t in_group = 0;
    for (uint32_t i = 0; i < count; i++)
        in_group += group_of(i) == group;
    return in_group;
}

bool send_routes(session_t *session, routes_t *routes, uint8_t operation, uint32_t every,
                 const progress_f &progress)
{
    routes->obj->write_kind = operation == ZAN_TABLE_CREATE ? ZAN_WRITE_KIND_REPLACE : 0;
    uint64_t sent = 0;
    pipeline_t pipeline(session, ZAN_BATCH_ASYNC, [&](const zan_batch_t *batch, uint64_t) {
        sent += zan_batch_count(batch);
        progress(sent);
    });
    for (uint32_t i = 0; i < routes->count; i += every) {
        routes->make(i);
        pipeline.append(routes->obj.get(), operation);
        if (zan_batch_count(pipeline.open()) == batch_objects && !pipeline.flush())
            return false;
    }
    return pipeline.finish();
}

bool check_sample(session_t *session, routes_t *routes, route_check_t *check)
{
    const uint32_t wanted = std::min(sample_objects, routes->count);
    for (uint32_t i = 0; i < wanted; i++) {
        routes->make((uint32_t)((uint64_t)i * routes->count / wanted));
        zan_rcode rc;
        zan_table_base_st *found;
        if (zan_client_read(session->client, ZAN_TABLE_GET, routes->obj.get(), &rc, &found))
            return false;
        const object_ptr_t owned(found);
        check_one(routes, rc, found, check);
    }
    return true;
}

bool check_order(session_t *session, routes_t *routes, route_check_t *check,
                 const progress_f &progress)
{
    walk_t walk = {routes, check, 0, {}};
    pipeline_t pipeline(session, ZAN_BATCH_CONTINUE_ON_ERROR,
                        [&](const zan_batch_t *batch, uint64_t) {
                            for (uint32_t i = 0; i < zan_batch_count(batch); i++) {
                                const object_ptr_t found(zan_batch_object(batch, i));
                                check_answer(&walk, zan_batch_rc(batch, i), found.get());
                            }
                            progress(std::min<uint64_t>(walk.next, routes->count));
                        });
    const object_ptr_t request(zan_obj_ctor(routes->def, 0, 0));
    if (!request)
        throw std::bad_alloc();
    pipeline.append(request.get(), ZAN_TABLE_GET_FIRST);
    request->key_len = routes->def->key_size;
    for (uint32_t rank = 0; rank < routes->count; rank++) {
        routes->make(routes->in_key_order[rank]);
        memcpy(zan_obj_key(routes->def, request.get()), zan_obj_key(routes->def, routes->obj.get()),
               routes->def->key_size);
        pipeline.append(request.get(), ZAN_TABLE_GET_NEXT);
        if (zan_batch_count(pipeline.open()) >= batch_objects && !pipeline.flush())
            return false;
    }
    bool good = pipeline.finish();
    for (size_t i = 0; good && i < walk.gaps.size(); i++)
        good = cross_gap(session, &walk, walk.gaps[i]);
    return good;
}

bool ask_again(session_t *session, routes_t *routes, const std::vector<uint32_t> &which,
               refusals_t *refused)
{
    pipeline_t pipeline(session, ZAN_BATCH_CONTINUE_ON_ERROR,
                        [&](const zan_batch_t *batch, uint64_t) {
                            for (uint32_t i = 0; i < zan_batch_count(batch); i++)
                                (*refused)[zan_batch_rc(batch, i)]++;
                        });
    for (const uint32_t i : which) {
        routes->make(i);
        pipeline.append(routes->obj.get(), ZAN_TABLE_CREATE);
        if (zan_batch_count(pipeline.open()) == batch_objects && !pipeline.flush())
            return false;
    }
    return pipeline.finish();
}
