/* watch: notifications, a line each, as they come. */
#include "objects.h"

#include <cstdio>

namespace
{

const char *type_words(uint32_t type)
{
    switch (type) {
    case ZAN_NOTIF_DELETED:
        return "deleted";
    case ZAN_NOTIF_RESOLVE_FAILED:
        return "a reference was not resolved";
    case ZAN_NOTIF_BIND_REFUSED:
        return "a reference was refused: it would close a circle";
    case ZAN_NOTIF_NOT_FOUND:
        return "not found";
    case ZAN_NOTIF_RESERVE_FAILED:
        return "no identifier was left";
    case ZAN_NOTIF_OUT_OF_SERVICE:
        return "taken out of service";
    case ZAN_NOTIF_IN_SERVICE:
        return "put back into service";
    default:
        return "notified by the platform";
    }
}

/* The operation that is told of; going out of service and back is none of a client's. */
std::string operation_text(const zan_notification_st &head)
{
    if (head.type == ZAN_NOTIF_OUT_OF_SERVICE || head.type == ZAN_NOTIF_IN_SERVICE)
        return "";
    return std::string(zan_table_operation_str((uint8_t)head.operation)) + " ";
}

struct watcher_t {
    const session_t *session;
    uint64_t left; /* to print */
};

json_t as_json(const zan_client_notification_t &n)
{
    json_t out = {{"type", n.head.type}, {"lost", n.head.lost}, {"replaced", n.head.replaced}};
    if (n.head.type == ZAN_NOTIFY_RESOURCE) {
        out["database"] = zan_hwdb_name(n.resource.hwdb);
        out["npu"] = n.resource.npu;
        out["state"] = resource_state_name(n.resource.state);
        out["used"] = n.resource.used;
        out["capacity"] = n.resource.capacity;
        return out;
    }
    out["words"] = type_words(n.head.type);
    out["operation"] = zan_table_operation_str((uint8_t)n.head.operation);
    out["transaction"] = n.head.trans_id;
    out["object"] = json_t::parse(object_json(n.obj));
    return out;
}

void print(const zan_client_notification_t &n)
{
    if (n.head.lost)
        printf("(%u notifications were lost here)\n", n.head.lost);
    if (n.head.type == ZAN_NOTIFY_RESOURCE)
        printf("hardware database %s of NPU %u is %s: %llu of %llu entries are used\n",
               zan_hwdb_name(n.resource.hwdb), n.resource.npu,
               resource_state_name(n.resource.state), (unsigned long long)n.resource.used,
               (unsigned long long)n.resource.capacity);
    else
        printf("%s%s %s: %s (type %u)%s\n", operation_text(n.head).c_str(),
               kor_table_name_get(n.head.table_id), key_text(n.obj).c_str(),
               type_words(n.head.type), n.head.type,
               n.head.replaced ? ", and earlier ones of it" : "");
}

void notify(const zan_client_notification_t *n, void *arg)
{
    auto *watcher = (watcher_t *)arg;
    if (watcher->left == 0)
        return;
    watcher->left--;
    if (watcher->session->json)
        printf("%s\n", as_json(*n).dump().c_str());
    else
        print(*n);
    fflush(stdout);
}

} // namespace

int run_watch(session_t *session, const std::vector<std::string> &tables, uint64_t limit)
{
    zan_watch_st wanted = {};
    std::string why;
    for (const std::string &name : tables) {
        const zan_table_def_t *def = find_table(name, &why);
        if (!def)
            return fail_text(why);
        wanted.tables[def->id / 64] |= (uint64_t)1 << def->id % 64;
    }
    for (uint32_t id = 0; tables.empty() && id < ZAN_NUM_TABLES; id++)
        wanted.tables[id / 64] |= (uint64_t)1 << id % 64;
    wanted.wants_resource = tables.empty();
    watcher_t watcher = {session, limit ? limit : UINT64_MAX};
    if (zan_client_watch(session->client, &wanted, notify, &watcher))
        return fail_session(session);
    if (!session->json)
        fprintf(stderr, "zanctl: watching\n");
    while (watcher.left)
        if (zan_client_wait(session->client, -1) < 0)
            return fail_session(session);
    return EXIT_WELL;
}
