/* A batch: prove it, run it, answer with the slots and, where objects hold an answer, the objects.
 */
#include "requests.h"

#include "clock.h"
#include "locks.h"
#include "table_flows.h"
#include "thread_control.h"

#include <cstring>

dispatcher_hold_t::dispatcher_hold_t()
{
    zan_dispatcher_enter();
    kor_core_lock_dispatch_lock();
    zan_threads_server_programming_lock();
}

dispatcher_hold_t::~dispatcher_hold_t()
{
    zan_threads_server_programming_unlock();
    kor_core_unlock_dispatch_lock();
    zan_dispatcher_leave();
}

namespace
{

constexpr size_t slots_at = sizeof(zan_frame_hdr_st) + sizeof(zan_batch_reply_st);
static_assert(slots_at % 8 == 0 && sizeof(zan_batch_frame_st) % 8 == 0,
              "slots and objects are aligned");

answer_t refuse(node_t *node, uint32_t object_index, const char *field, const char *text)
{
    node->refused++;
    return {ZAN_FRAME_ERROR, make_error_frame(ZAN_WIRE_BAD_BATCH, object_index, field, text)};
}

/* The reply's frame with empty slots, and room for the objects when they hold an answer. */
std::vector<uint8_t> make_reply(const zan_batch_frame_st &frame, const message_verdict_t &verdict,
                                size_t msg_len)
{
    zan_batch_reply_st reply = {};
    reply.num_slots = verdict.is_async ? 1 : verdict.num_objects;
    reply.payload_alloc_sz = frame.payload_alloc_sz;
    reply.slots_len = reply.num_slots * (frame.payload_alloc_sz + ZAN_RESPONSE_HDR_SIZE);
    reply.msg_len = verdict.answers_in_place ? (uint32_t)msg_len : 0;
    std::vector<uint8_t> out(slots_at + reply.slots_len + reply.msg_len);
    memcpy(out.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    for (uint32_t i = 0; i < reply.num_slots; i++) {
        uint8_t *slot =
            out.data() + slots_at + (size_t)i * (frame.payload_alloc_sz + ZAN_RESPONSE_HDR_SIZE);
        ((zan_table_response_st *)slot)->payload_alloc_sz = frame.payload_alloc_sz;
    }
    return out;
}

} // namespace

answer_t refuse_request(node_t *node, const char *field, const char *text)
{
    node->refused++;
    return {ZAN_FRAME_ERROR,
            make_error_frame(ZAN_WIRE_BAD_REQUEST, ZAN_WIRE_NO_INDEX, field, text)};
}

answer_t run_batch(node_t *node, request_t *request, uint32_t reply_max)
{
    zan_batch_frame_st frame;
    if (request->payload.size() < sizeof frame)
        return refuse(node, ZAN_WIRE_NO_INDEX, "length", "the frame is shorter than its header");
    memcpy(&frame, request->payload.data(), sizeof frame);
    uint8_t *msg = request->payload.data() + sizeof frame;
    const size_t len = request->payload.size() - sizeof frame;

    message_facts_t facts = {
        node->facts.num_npus, node->private_size, {}, reply_max, &node->last_trans};
    zan_clock_gettime(CLOCK_REALTIME, &facts.now);
    const message_verdict_t verdict = message_check(facts, frame, msg, len);
    if (!verdict.ok)
        return refuse(node, verdict.object_index, verdict.field, verdict.reason);

    answer_t answer = {ZAN_FRAME_BATCH_REPLY, make_reply(frame, verdict, len)};
    auto *reply = (zan_batch_reply_st *)(answer.frame.data() + sizeof(zan_frame_hdr_st));
    frame.hdr.num_resp = reply->num_slots;
    frame.hdr.client_id = (uint32_t)request->session;
    {
        const dispatcher_hold_t hold;
        replay_batch_t replays(&node->replays, verdict, msg, len);
        reply->last_rc = zan_table_server_dispatcher(
            msg, (zan_table_response_st *)(answer.frame.data() + slots_at), frame.hdr, nullptr);
        replays.note(answer.frame.data() + slots_at, frame.payload_alloc_sz);
    }
    if (reply->msg_len)
        memcpy(answer.frame.data() + slots_at + reply->slots_len, msg, len);
    node->batches++;
    node->objects += verdict.num_objects;
    return answer;
}
