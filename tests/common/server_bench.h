/* The test bench: one table server with the host platform in this process, driven as an agent
 * drives it, batches in and slots out.
 *
 * A server starts once per process (a table's first use is under pthread_once), so ctest runs every
 * test in a process of its own. The test's thread is the dispatcher.
 */
#ifndef ZAN_SERVER_BENCH_H
#define ZAN_SERVER_BENCH_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "global_context.h"
#include "table_database.h"
#include "table_properties.h"
#include "zan_tables_private.h"

namespace bench
{

struct options_t {
    uint32_t num_npus = 1;
    bool per_object_npu_mask = false;
    bool standby = false;
    bool stepped = false;
    uint64_t seed = 1;
};

/* Starts the host and takes the dispatcher's role; stops and tears down at its end. */
class server_t
{
public:
    explicit server_t(const options_t &options);
    ~server_t();
    server_t(const server_t &) = delete;
    server_t &operator=(const server_t &) = delete;
};

struct free_t {
    void operator()(zan_table_base_st *obj) const;
};
using object_t = std::unique_ptr<zan_table_base_st, free_t>;

const zan_table_def_t *table(std::string_view name);

/* "<table> <field>=<value> ..." as an object in heap form, ready to be sent as `operation`. The
 * test fails when the text does not parse. */
object_t object(std::string_view text, zan_table_operation_et operation = ZAN_TABLE_CREATE);

/* An empty object of a table with room for `members`. */
object_t empty(const zan_table_def_t *def, zan_table_operation_et operation, uint32_t members = 0);

struct result_t {
    zan_rcode rc = 0; /* err_code of the slot */
    uint64_t handle = 0;
    bool batch_continue = false, batch_cut = false;
    std::string payload;
    int32_t returned = 0; /* by the dispatcher, for the last object of the batch */
    object_t obj;         /* the message as it stands afterwards, in heap form */
};

/* A batch under construction. */
class batch_t
{
public:
    batch_t &add(const zan_table_base_st *obj);
    batch_t &add(const object_t &obj)
    {
        return add(obj.get());
    }
    /* Options of the whole batch. */
    bool async = false;
    bool continue_on_error = false;
    uint32_t payload = 0;
    /* err_code that slot i has before the batch runs. */
    std::vector<zan_rcode> preset;
    std::vector<result_t> run();

private:
    std::vector<uint8_t> message_;
    uint32_t count_ = 0;
};

/* One object in a batch of its own. */
result_t run(const object_t &obj, uint32_t payload = 0);
result_t create(std::string_view text);
result_t update(std::string_view text);
result_t destroy(std::string_view text);
/* The database object that a handle leads to. */
zan_table_base_st *stored(uint64_t handle);
/* The one that a text names; null when it is not stored. */
zan_table_base_st *named(std::string_view text);
result_t read(std::string_view text, zan_table_operation_et operation = ZAN_TABLE_GET,
              uint16_t getopt = 0, uint32_t payload = 0);

/* Wait until the NPU threads have done all they were sent, and take home what they finished with.
 */
void settle();

/* All objects of a table in key order, as text, through reads. */
std::vector<std::string> dump(const zan_table_def_t *def);

/* What each NPU holds against the database, over all tables: empty, or the first difference. */
std::string hardware_differs(uint32_t num_npus);

uint32_t counter(const zan_table_def_t *def, uint32_t index);
/* Arguments of the newest trace of a message, or nothing. */
std::vector<uint64_t> last_trace(uint32_t message);

/* What a refusal must leave as it was. */
struct residue_t {
    uint64_t stored = 0;      /* objects, over all tables */
    uint64_t pool_bytes = 0;  /* of the database */
    uint64_t heap_blocks = 0; /* copies and records */
    uint64_t identifiers = 0; /* held, over all tables */
    bool operator==(const residue_t &) const = default;
};
residue_t residue();
std::string to_string(const residue_t &r);

} // namespace bench

#endif
