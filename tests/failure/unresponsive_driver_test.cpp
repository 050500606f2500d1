/* A driver that hangs, to the end: what the operator is told, which commands run, what the two
 * files hold, and the status that the process leaves with. The three commands of the node's image
 * are scripts of this test, found through PATH. */
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "exec_queue.h"
#include "host_control.h"
#include "object_maker.h"

using namespace bench;

namespace
{

constexpr const char *stacks_file = "/var/log/npu_timeout.log";
constexpr const char *assert_file = "/var/log/dispatcher_assert.txt";

/* The commands, for the length of a test; what dump_core was asked for stands in `core`. */
class commands_t
{
public:
    commands_t() : directory_(std::filesystem::temp_directory_path() / "zan_commands.XXXXXX")
    {
        std::string name = directory_.string();
        if (!mkdtemp(name.data()))
            abort();
        directory_ = name;
        script("pstack", "echo \"stacks of $*\"");
        script("top", "for i in $(seq 200); do echo \"top $* $i\"; done");
        script("dump_core", "echo \"$*\" >" + core());
        setenv("PATH", (directory_.string() + ":" + getenv("PATH")).c_str(), 1);
        setenv("TZ", "UTC", 1);
    }
    ~commands_t()
    {
        std::filesystem::remove_all(directory_);
    }
    std::string core() const
    {
        return (directory_ / "core").string();
    }

private:
    void script(const char *name, const std::string &line)
    {
        const std::filesystem::path path = directory_ / name;
        std::ofstream(path) << "#!/bin/sh\n" << line << "\n";
        chmod(path.c_str(), 0755);
    }
    std::filesystem::path directory_;
};

std::vector<std::string> lines_of(const std::string &path)
{
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

zan_npu_op_record_st record(uint32_t op, const char *table_name, uint32_t id, time_t start,
                            time_t seconds, long nanoseconds)
{
    zan_npu_op_record_st r = {};
    r.op = op;
    r.marker = 1;
    r.table_id = table(table_name)->id;
    r.id = id;
    r.start_time = {start, 5'000'000};
    if (seconds || nanoseconds) {
        r.end_time = {start + seconds, 7'000'000};
        r.elapsed = {seconds, nanoseconds};
    }
    return r;
}

/* What two NPUs have done so far, and a write that neither takes up. */
void hang()
{
    const server_t server({.num_npus = 2});
    kor_exec_q_st *queue = get_global_exec_q();
    queue->history[0][0] = record(ZAN_TABLE_UPDATE, "iproute", 77, 1'000'000'000, 1, 2'345'678);
    queue->history[0][9] = record(12, "l3if", 0xab, 1'000'000'100, 0, 12'000'000);
    queue->current[0] = record(ZAN_TABLE_CREATE, "ipvrf", 78, 1'000'000'200, 0, 999);
    queue->current[1] = record(ZAN_TABLE_DELETE, "ipvrf", 79, 1'000'000'300, 0, 0);
    zan_host_exec_q_set_resp_period(1000);
    zan_host_clock_set_virtual(true);
    zan_host_exec_q_hold(3);
    run(with_key(table("ipvrf"), 1));
}

} // namespace

TEST(UnresponsiveDriverDeathTest, LeavesTwoFilesAndStatus203)
{
    if (access("/var/log", W_OK) != 0)
        GTEST_SKIP() << "the files stand in /var/log, where this user may not write";
    const commands_t commands;
    std::ofstream(assert_file) << "a former one\n";
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(hang(), testing::ExitedWithCode(203),
                "Retries remaining - 7 out of 12.*Retries remaining - 4 out of 12.*"
                "Retries remaining - 1 out of 12.*Unresponsive driver, all retries exhausted\\. "
                "Initiating auto-recovery via node reload which can have possible impact on "
                "transit traffic\\. Core file for failure_test process along with other debug "
                "data will be collected.*NPU command request timedout, collect "
                "/var/log/npu_timeout\\.log from LC");

    EXPECT_EQ(lines_of(assert_file),
              (std::vector<std::string>{
                  "======================================= NPU 0 Info "
                  "=======================================",
                  "iproute, update, trans_id:77, start_time:2001-09-09 01:46:40.005, "
                  "end_time:2001-09-09 01:46:41.007, total_time_taken:1.002345 sec.usec",
                  "l3if, unknown, rdesc_id:0xab, start_time:2001-09-09 01:48:20.005, "
                  "end_time:2001-09-09 01:48:20.007, total_time_taken:0.012000 sec.usec",
                  "ipvrf, create, trans_id:78, start_time:2001-09-09 01:50:00.005, "
                  "end_time:2001-09-09 01:50:00.007, total_time_taken:0.000000 sec.usec",
                  "",
                  "",
                  "======================================= NPU 1 Info "
                  "=======================================",
                  "ipvrf, delete, trans_id:79, start_time:2001-09-09 01:51:40.005, end_time: "
                  "operation still in progress...",
                  "",
                  "",
              }));

    const std::vector<std::string> stacks = lines_of(stacks_file);
    ASSERT_EQ(stacks.size(), 1u + 1 + 300 + 1);
    const std::string of = "stacks of ";
    ASSERT_EQ(stacks[0].substr(0, of.size()), of);
    const std::string pid = stacks[0].substr(of.size());
    ASSERT_EQ(pid.find_first_not_of("0123456789"), pid.npos);
    const std::string heading = "======================================= TOP info "
                                "=======================================";
    EXPECT_EQ(stacks[1], heading);
    for (int i = 0; i < 300; i++)
        ASSERT_EQ(stacks[2 + i], "top -bcH -n 1 " + std::to_string(i % 100 + 1));
    EXPECT_EQ(stacks[302], heading);
    EXPECT_EQ(lines_of(commands.core()),
              std::vector<std::string>{"/misc/scratch/core by_pid " + pid + " running"});
}
