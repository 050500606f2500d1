/* Requests about one object: its name is an object as in a read, and is proved like one. */
#include "requests.h"

#include "clock.h"

const zan_table_base_st *named_object(node_t *node, request_t *request, size_t head,
                                      answer_t *refusal)
{
    uint8_t *msg = request->payload.data() + head;
    const size_t len = request->payload.size() - head;
    zan_batch_frame_st frame = {};
    frame.hdr.msg_len = (uint32_t)len;
    frame.hdr.num_resp = 1;
    message_facts_t facts = {node->facts.num_npus, node->private_size, {}, ZAN_FRAME_MAX, nullptr};
    zan_clock_gettime(CLOCK_REALTIME, &facts.now);
    const message_verdict_t verdict = message_check(facts, frame, msg, len);
    if (!verdict.ok)
        *refusal = refuse_request(node, verdict.field, verdict.reason);
    else if (verdict.num_objects != 1)
        *refusal = refuse_request(node, "length", "one object names what is asked for");
    else
        return (const zan_table_base_st *)msg;
    return nullptr;
}
