/* Waiting for the NPU threads, with the answers of the queue in a script: which time-outs count,
 * and what the operator is told. */
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "exec_queue.h"
#include "host_control.h"
#include "object_maker.h"
#include "table_crud_ctx.h"
#include "table_flows.h"

using namespace bench;

namespace
{

constexpr int timeout = ZAN_EXEC_Q_TIMEOUT;

/* What the queue answers, one wait after the other, and how deep it is at each look. Null: the
 * host's. */
struct script_t {
    std::vector<int> answers;
    std::vector<uint32_t> depths; /* the last one stays */
    size_t next_answer = 0, next_depth = 0;
};
script_t *script;

template <class F> F *host(const char *name)
{
    return (F *)dlsym(RTLD_NEXT, name);
}

uint32_t count_of(const std::string &text, const std::string &what)
{
    uint32_t n = 0;
    for (size_t at = text.find(what); at != text.npos; at = text.find(what, at + 1))
        n++;
    return n;
}

std::vector<int> times(size_t n, int answer, std::vector<int> then = {})
{
    std::vector<int> all(n, answer);
    all.insert(all.end(), then.begin(), then.end());
    return all;
}

/* Depths as the wait looks: once at its start, then twice at each time-out. */
std::vector<uint32_t> falling(uint32_t timeouts)
{
    std::vector<uint32_t> depths = {1000};
    for (uint32_t i = 1; i <= timeouts; i++)
        depths.insert(depths.end(), {1000 - i, 1000 - i});
    return depths;
}

} // namespace

extern "C" {

ZAN_EXPORT int kor_exec_q_resp_wait(kor_exec_q_st *queue)
{
    static auto *real = host<int(kor_exec_q_st *)>("kor_exec_q_resp_wait");
    return script ? script->answers.at(script->next_answer++) : real(queue);
}

ZAN_EXPORT uint32_t kor_exec_q_get_depth(kor_exec_q_st *queue)
{
    static auto *real = host<uint32_t(kor_exec_q_st *)>("kor_exec_q_get_depth");
    if (!script)
        return real(queue);
    const size_t last = script->depths.size() - 1;
    return script->depths[std::min(script->next_depth++, last)];
}
}

TEST(NpuWait, CountsTimeOutsWithoutProgressAndWarnsThreeTimes)
{
    const server_t server({.num_npus = 1, .stepped = true});
    const zan_table_def_t *def = table("iproute");
    const struct {
        const char *what;
        script_t script;
        uint32_t timeouts, warnings;
    } cases[] = {
        {"an answer at once", {{0}, {5}}, 0, 0},
        {"twelve time-outs, then an answer", {times(12, timeout, {0}), {5}}, 12, 3},
        {"the depth falls at each", {times(40, timeout, {0}), falling(40)}, 40, 0},
        {"the depth rises", {times(5, timeout, {0}), {5, 6, 6, 7, 7, 8, 8, 9, 9, 10}}, 5, 0},
        {"another error uses the budget up, silently", {times(13, 5), {5}}, 0, 0},
        {"six errors, then time-outs: 6 to 0 are left, of which 4 and 1 warn",
         {times(6, 5, times(6, timeout, {0})), {5}},
         6,
         2},
    };
    for (const auto &c : cases) {
        script_t running = c.script;
        const uint32_t before = counter(def, ZAN_CTR_WAIT_TIMEOUT);
        testing::internal::CaptureStderr();
        script = &running;
        zan_npu_bcast_wait_for_npu_threads(def->id, 1);
        script = nullptr;
        const std::string told = testing::internal::GetCapturedStderr();
        EXPECT_EQ(counter(def, ZAN_CTR_WAIT_TIMEOUT) - before, c.timeouts) << c.what;
        EXPECT_EQ(count_of(told, "Unresponsive driver, traffic might be affected. "
                                 "Retries remaining - "),
                  c.warnings)
            << c.what << ": " << told;
        EXPECT_EQ(running.next_answer, c.script.answers.size()) << c.what;
        if (c.warnings == 3) {
            for (const char *left : {" 7 out of 12", " 4 out of 12", " 1 out of 12"})
                EXPECT_EQ(count_of(told, left), 1u) << left;
        }
    }
}
