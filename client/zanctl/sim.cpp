/* sim: how the simulated NPUs behave. */
#include "objects.h"

namespace
{

/* The operations by their names; all when none is said. */
bool parse_operation(const std::string &name, uint32_t *operation)
{
    *operation = ZAN_WIRE_NO_INDEX;
    for (const uint8_t known : {ZAN_TABLE_CREATE, ZAN_TABLE_UPDATE, ZAN_TABLE_DELETE})
        if (name == zan_table_operation_str(known))
            *operation = known;
    return name.empty() || *operation != ZAN_WIRE_NO_INDEX;
}

} // namespace

int run_sim(session_t *session, const sim_options_t &options)
{
    zan_sim_st request = {ZAN_SIM_WELL, ZAN_WIRE_NO_INDEX, ZAN_WIRE_NO_INDEX, ZAN_WIRE_NO_INDEX, 0,
                          options.code};
    if (options.npu >= 0)
        request.npu = (uint32_t)options.npu;
    if (!options.table.empty()) {
        std::string why;
        const zan_table_def_t *def = find_table(options.table, &why);
        if (!def)
            return fail_text(why);
        request.table_id = def->id;
    }
    if (!parse_operation(options.operation, &request.operation))
        return fail_text("--operation takes create, update or delete");
    if (options.fail) {
        request.action = ZAN_SIM_FAIL;
        request.count = *options.fail;
    } else if (options.chance) {
        request.action = ZAN_SIM_CHANCE;
        request.count = *options.chance;
    } else if (options.latency) {
        request.action = ZAN_SIM_LATENCY;
        request.count = *options.latency;
    } else if (options.hang) {
        request.action = ZAN_SIM_HANG;
    } else if (!options.well) {
        return fail_text("say how: --fail, --chance, --latency, --hang, or --well");
    }
    return zan_client_sim(session->client, &request) ? fail_session(session) : EXIT_WELL;
}
