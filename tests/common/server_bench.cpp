#include "server_bench.h"

#include <cstring>
#include <gtest/gtest.h>

#include "exec_queue.h"
#include "host_control.h"
#include "host_services.h"
#include "host_start.h"
#include "internal_queues.h"
#include "locks.h"
#include "npu_sim_control.h"
#include "object_memory.h"
#include "table_flows.h"
#include "thread_control.h"

/* A binary without the simulated NPUs has no hardware to compare with. */
extern "C" {
#pragma weak npu_sim_count
#pragma weak npu_sim_compare
}

namespace bench
{

namespace
{

uint32_t next_trans_id = 1;

uint32_t serialized_size(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    return def->obj_size + zan_obj_dyn_size(def, zan_obj_num_elements(def, obj));
}

/* A serialized object with room for all its members, as a heap form with no private area. */
object_t from_wire(const uint8_t *wire)
{
    const auto *base = (const zan_table_base_st *)wire;
    const zan_table_def_t *def = zan_table_defs[base->table_id];
    auto *copy = (zan_table_base_st *)calloc(1, base->total_obj_size);
    memcpy(copy, wire, base->total_obj_size);
    zan_obj_fix_ptrs(def, copy,
                     zan_obj_num_elements(def, copy) ? (uint8_t *)copy + def->obj_size : nullptr);
    return object_t(copy);
}

} // namespace

void free_t::operator()(zan_table_base_st *obj) const
{
    free(obj);
}

server_t::server_t(const options_t &options)
{
    zan_host_config_t config = {};
    config.num_npus = options.num_npus;
    config.per_object_npu_mask = options.per_object_npu_mask;
    config.standby = options.standby;
    config.stepped = options.stepped;
    config.seed = options.seed;
    zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
    if (zan_host_start(&config) != EOK)
        abort();
    kor_core_lock_dispatch_lock();
    zan_threads_server_programming_lock();
}

server_t::~server_t()
{
    settle();
    zan_threads_server_programming_unlock();
    kor_core_unlock_dispatch_lock();
    zan_srv_deinit();
    handle_event_free_allocated_mask();
    zan_host_stop();
    zan_db_deinit();
}

const zan_table_def_t *table(std::string_view name)
{
    const zan_table_def_t *def = zan_table_def_find(std::string(name).c_str());
    EXPECT_TRUE(def) << "no table " << name;
    return def;
}

object_t object(std::string_view text, zan_table_operation_et operation)
{
    const size_t blank = text.find(' ');
    const zan_table_def_t *def = table(text.substr(0, blank));
    const std::string fields(blank == text.npos ? "" : text.substr(blank + 1));
    char why[256] = "";
    object_t obj(zan_obj_parse(def, fields.c_str(), why, sizeof why));
    EXPECT_TRUE(obj) << text << ": " << why;
    if (obj)
        obj->table_operation = (uint8_t)operation;
    return obj;
}

object_t empty(const zan_table_def_t *def, zan_table_operation_et operation, uint32_t members)
{
    object_t obj(zan_obj_ctor(def, 0, members));
    obj->table_operation = (uint8_t)operation;
    return obj;
}

batch_t &batch_t::add(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    const uint32_t size = serialized_size(def, obj);
    const size_t at = message_.size();
    message_.resize(at + size);
    zan_obj_serialize(def, 0, obj, message_.data() + at);
    auto *wire = (zan_table_base_st *)(message_.data() + at);
    wire->total_obj_size = size;
    wire->heap_form = 0;
    wire->base_trans_id = next_trans_id;
    *zan_obj_trans_id(def, wire) = next_trans_id++;
    clock_gettime(CLOCK_REALTIME, &wire->client_time);
    count_++;
    return *this;
}

std::vector<result_t> batch_t::run()
{
    const size_t stride = payload + ZAN_RESPONSE_HDR_SIZE;
    const uint32_t num_slots = async ? 1 : count_;
    std::vector<uint64_t> slots((stride * num_slots + 7) / 8 + 1);
    auto slot = [&](uint32_t i) {
        return (zan_table_response_st *)((uint8_t *)slots.data() + stride * i);
    };
    for (uint32_t i = 0; i < num_slots; i++) {
        slot(i)->payload_alloc_sz = payload;
        if (i < preset.size())
            slot(i)->err_code = preset[i];
    }
    std::vector<uint64_t> aligned((message_.size() + 7) / 8);
    memcpy(aligned.data(), message_.data(), message_.size());
    auto *bytes = (uint8_t *)aligned.data();
    for (size_t at = 0; at < message_.size();) {
        auto *wire = (zan_table_base_st *)(bytes + at);
        if (async)
            wire->flag |= ZAN_FLAG_IS_ASYNC_DISPATCH;
        at += wire->total_obj_size;
    }
    const kor_table_req_hdr_st hdr = {
        num_slots, (uint32_t)message_.size(), 7, continue_on_error, {}};
    const int32_t returned = zan_table_server_dispatcher(bytes, slot(0), hdr, nullptr);

    std::vector<result_t> results(count_);
    size_t at = 0;
    for (uint32_t i = 0; i < count_; i++) {
        const zan_table_response_st *s = slot(async ? 0 : i);
        result_t &r = results[i];
        r.rc = (zan_rcode)s->err_code;
        r.handle = s->obj;
        r.batch_continue = s->batch_continue;
        r.batch_cut = s->batch_cut;
        r.payload.assign(s->payload, s->payload_used_sz);
        r.returned = returned;
        r.obj = from_wire(bytes + at);
        at += ((const zan_table_base_st *)(bytes + at))->total_obj_size;
    }
    message_.clear();
    count_ = 0;
    return results;
}

result_t run(const object_t &obj, uint32_t payload)
{
    batch_t batch;
    batch.payload = payload;
    return std::move(batch.add(obj).run()[0]);
}

result_t create(std::string_view text)
{
    return run(object(text));
}

result_t update(std::string_view text)
{
    return run(object(text, ZAN_TABLE_UPDATE));
}

result_t destroy(std::string_view text)
{
    return run(object(text, ZAN_TABLE_DELETE));
}

zan_table_base_st *stored(uint64_t handle)
{
    return (zan_table_base_st *)handle;
}

result_t read(std::string_view text, zan_table_operation_et operation, uint16_t getopt,
              uint32_t payload)
{
    object_t obj = object(text, operation);
    obj->getopt_mask = getopt;
    return run(obj, payload);
}

zan_table_base_st *named(std::string_view text)
{
    return stored(read(text).handle);
}

void settle()
{
    zan_exec_q_sync_ctrl_request_only();
    while (kor_exec_q_resp_wait(get_global_exec_q()) != EOK) {
    }
    zan_exec_q_sync_ctrl_allow_all_queues();
    zan_dsp_q_process_post_npu();
}

std::vector<std::string> dump(const zan_table_def_t *def)
{
    constexpr uint32_t room = 16; /* members that a scenario's objects may have */
    std::vector<std::string> lines;
    object_t obj = empty(def, ZAN_TABLE_GET_FIRST, def->num_elements_offset ? room : 0);
    for (;;) {
        result_t r = run(obj);
        if (r.rc == ZAN_RC_NOT_FOUND)
            return lines;
        EXPECT_EQ(r.rc, (zan_rcode)EOK) << def->name;
        if (r.rc != EOK)
            return lines;
        char text[8192];
        zan_obj_print(def, r.obj.get(), text, sizeof text);
        lines.push_back(text);
        obj = empty(def, ZAN_TABLE_GET_NEXT, def->num_elements_offset ? room : 0);
        memcpy(zan_obj_key(def, obj.get()), zan_obj_key(def, r.obj.get()), def->key_size);
        obj->key_len = def->key_size;
    }
}

std::string hardware_differs(uint32_t num_npus)
{
    if (!npu_sim_count)
        return "this binary has no simulated NPUs";
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        zan_table_base_st lookup = {};
        lookup.table_id = (uint16_t)id;
        uint64_t held[ZAN_MAX_NPUS] = {};
        if (!zan_srv_table_props_get(id) || zan_db_count(id) == 0) {
            for (uint32_t npu = 0; npu < num_npus; npu++)
                if (npu_sim_count(npu, id) != 0)
                    return std::string("NPU holds objects of ") + def->name +
                           " that are not stored";
            continue;
        }
        for (zan_table_base_st *o = zan_db_get_first(&lookup); o; o = zan_db_get_next(o))
            for (uint32_t npu = 0; npu < num_npus; npu++) {
                char why[128] = "";
                const zan_counters_hold_t hold(zan_table_defs[o->table_id]);
                if (npu_sim_compare(npu, o, why, sizeof why) != 0) {
                    char key[256];
                    zan_key_print(def, zan_obj_key(def, o), key, sizeof key);
                    return std::string(def->name) + " " + key + ": " + why;
                }
                held[npu]++;
            }
        for (uint32_t npu = 0; npu < num_npus; npu++)
            if (npu_sim_count(npu, id) != held[npu])
                return std::string("NPU holds more of ") + def->name + " than is stored";
    }
    return "";
}

uint32_t counter(const zan_table_def_t *def, uint32_t index)
{
    return zan_get_global_ctx()->counters[0][def->id][index];
}

std::vector<uint64_t> last_trace(uint32_t message)
{
    std::vector<uint64_t> found;
    std::vector<zan_trace_record_st> records(1024);
    uint64_t after = 0;
    while (const uint32_t n = zan_trace_read(after, records.data(), (uint32_t)records.size())) {
        for (uint32_t i = 0; i < n; i++)
            if ((uint32_t)records[i].msg == message)
                found.assign(records[i].arg, records[i].arg + 7);
        after = records[n - 1].sequence;
    }
    return found;
}

residue_t residue()
{
    settle();
    residue_t r;
    r.pool_bytes = zan_shm_bytes_in_use();
    r.heap_blocks = zan_heap_blocks_in_use();
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        r.stored += zan_db_count(id);
        r.identifiers += zan_host_identifiers_held(id);
    }
    return r;
}

std::string to_string(const residue_t &r)
{
    return "stored " + std::to_string(r.stored) + ", pool bytes " + std::to_string(r.pool_bytes) +
           ", heap blocks " + std::to_string(r.heap_blocks) + ", identifiers " +
           std::to_string(r.identifiers);
}

} // namespace bench
