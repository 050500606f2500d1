/* What people learn of a running agent: counters, trace classes, durations, metrics, the archive.
 */
#include "zanctl_fixture.h"

#include <nlohmann/json.hpp>

namespace
{

using json_t = nlohmann::json;

class diagnostics : public zanctl
{
protected:
    json_t run_json(const std::string &arguments) const
    {
        const result_t result = run("--json " + arguments);
        EXPECT_EQ(result.status, 0) << arguments << "\n" << result.text;
        return json_t::parse(result.text, nullptr, false);
    }
};

TEST_F(diagnostics, counts_since_the_start_the_reset_and_in_a_bank)
{
    start({});
    auto counted = [&](const char *counter) {
        return run_json("counters l3intf")["tables"][0]["counters"][counter];
    };
    EXPECT_EQ(run("counters").text, "bank 0 counts\nno table has counted anything\n");
    ASSERT_EQ(run("create l3intf intf=1").status, 0);
    ASSERT_EQ(run("create l3intf intf=1").status, 1);
    ASSERT_EQ(run("create lagport intf=5").status, 0);
    EXPECT_EQ(counted("CREATE").dump(), R"({"banks":[2,0,0,0,0,0],"since_reset":2,"total":2})");
    EXPECT_EQ(counted("CREATE_DUPLICATE")["total"], 1);
    EXPECT_EQ(counted("DELETE")["total"], 0) << "each counter with a name is told";

    ASSERT_EQ(run("counters l3intf --reset --bank 3").status, 0);
    ASSERT_EQ(run("create l3intf intf=2").status, 0);
    EXPECT_EQ(counted("CREATE").dump(), R"({"banks":[2,0,0,1,0,0],"since_reset":1,"total":3})");
    ASSERT_EQ(run("counters --bank 0").status, 0);
    const json_t all = run_json("counters");
    EXPECT_EQ(all["active_bank"], 0);
    ASSERT_EQ(all["tables"].size(), 2u);
    EXPECT_EQ(counted("CREATE").dump(), R"({"banks":[0,0,0,1,0,0],"since_reset":1,"total":3})")
        << "a bank begins at 0";
    EXPECT_EQ(run_json("counters lagport")["tables"][0]["counters"]["CREATE"]["since_reset"], 1)
        << "another table's were not reset";
    ASSERT_EQ(run("counters --reset").status, 0);
    EXPECT_EQ(run_json("counters lagport")["tables"][0]["counters"]["CREATE"]["since_reset"], 0);
    EXPECT_EQ(run("counters --bank 6").status, 2);
    EXPECT_EQ(run("counters nonsense").status, 2);
}

TEST_F(diagnostics, traces_the_classes_that_are_on)
{
    start({});
    auto count = [&](const std::string &word) {
        const std::string text = run("trace").text;
        size_t times = 0;
        for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; at++)
            times++;
        return times;
    };
    ASSERT_EQ(run("create l3intf intf=1").status, 0);
    ASSERT_EQ(run("delete l3intf intf=1").status, 0);
    EXPECT_EQ(count("l3intf_verbose"), 0u);
    EXPECT_EQ(run("trace classes l3intf_verbose queue --on").text, "3 classes are on now\n");
    EXPECT_EQ(run("trace classes l3intf").text, "l3intf_error                           on\n"
                                                "l3intf_event                           on\n"
                                                "l3intf_verbose                         on\n");
    ASSERT_EQ(run("create l3intf intf=1").status, 0);
    ASSERT_EQ(run("create macllnh intf=1 adj_id=1 l3intf_obj.l3intf.intf=1").status, 0);
    ASSERT_EQ(run("update l3intf intf=1 ipv4_mtu=9000").status, 0);
    const size_t traced = count("l3intf_verbose");
    EXPECT_GT(traced, 0u);
    EXPECT_EQ(count("macllnh_verbose"), 0u) << "another table's";

    const struct {
        const char *arguments;
        int status;
        const char *text; /* in the output */
    } cases[] = {
        {"trace classes", 0,
         "verbose                                on for 1 of 361 tables: l3intf\n"},
        {"trace classes verbose --off", 0, "363 classes are off now"},
        {"trace classes transaction_history macllnh_error --off", 0, "5 classes are off now"},
        {"trace classes", 0,
         "error                                  on for 360 of 361 tables, not for "
         "macllnh\n"},
        {"--json trace classes batch", 0,
         "{\"batch_crud_error\":true,\"batch_crud_verbose\":false}"},
        {"trace classes l3intf_verbos --on", 2,
         "there is no trace class l3intf_verbos; is it "
         "l3intf_verbose?"},
        {"trace classes --on", 2, "which classes?"},
        {"trace classes queue --on --off", 2, ""},
    };
    for (const auto &c : cases) {
        const result_t result = run(c.arguments);
        EXPECT_EQ(result.status, c.status) << c.arguments << "\n" << result.text;
        EXPECT_NE(result.text.find(c.text), std::string::npos) << c.arguments << "\n"
                                                               << result.text;
    }
    const size_t replaced = count("replaced: table");
    EXPECT_GT(replaced, 0u);
    ASSERT_EQ(run("update l3intf intf=1 ipv4_mtu=1500").status, 0);
    EXPECT_EQ(count("l3intf_verbose"), traced) << "nothing came to it since";
    EXPECT_EQ(count("replaced: table"), replaced);
}

/* Durations are the machine's, and anything may be slow on a busy one: what is looked at is what
 * latency makes sure of. */
TEST_F(diagnostics, shows_what_was_slow_and_where)
{
    start({});
    ASSERT_EQ(run("create ipnhgroup nhg_id=7").status, 0);
    ASSERT_EQ(run("create iproute vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=7").status,
              0);
    ASSERT_EQ(run("compare").status, 0); /* the NPUs have done all that */
    ASSERT_EQ(run("sim --latency 20000 --npu 1").status, 0);
    ASSERT_EQ(run("walk ipnhgroup nhg_id=7 --set fec_id=71").status, 0);
    ASSERT_EQ(run("create l3intf intf=1").status, 0);
    ASSERT_EQ(run("sim --well").status, 0);
    ASSERT_EQ(run("compare").status, 0);

    const json_t all = run_json("perf");
    std::string places;
    for (const json_t &op : all["slow"]) {
        EXPECT_GE(op["elapsed_ns"], 10'000'000);
        places += op["operation"].get<std::string>() + " " + op["table"].get<std::string>() + " " +
                  (op.contains("npu") ? op["npu"].dump() : "-") + "\n";
    }
    for (const char *place : {"create l3intf -\n", "update iproute 1\n", "update ipnhgroup 1\n"})
        EXPECT_NE(places.find(place), std::string::npos) << place << "is not in\n" << places;
    EXPECT_GT(all["queue_stops"]["count"], 0);

    const json_t perf = run_json("perf ipnhgroup"), &group = perf["tables"][0];
    EXPECT_EQ(group["dispatcher"]["count"], 3) << "a create, a read, an update";
    EXPECT_EQ(group["delivery"]["count"], 3);
    EXPECT_EQ(group["walks"]["count"], 1);
    EXPECT_GE(group["slow"], 1);
    EXPECT_LT(perf["slow"].size(), all["slow"].size()) << "of this table only";
    EXPECT_EQ(group["npus"][0]["count"], 2);
    EXPECT_EQ(group["npus"][1]["count"], 2);
    EXPECT_GE(group["npus"][1]["max_ns"], 20'000'000);
    uint64_t above = 0, bound = 0;
    for (size_t i = 0; i < group["npus"][1]["buckets"].size(); i++) {
        if (bound >= 16'777'216) /* the largest bound below the latency */
            above += group["npus"][1]["buckets"][i].get<uint64_t>();
        if (i < perf["bucket_bounds_ns"].size())
            bound = perf["bucket_bounds_ns"][i];
    }
    EXPECT_GE(above, 1u) << group["npus"][1].dump();
    EXPECT_EQ(run_json("perf l3intf")["tables"][0]["npus"][1]["count"], 1)
        << "one call for all NPUs counts with each";
    for (const char *part :
         {"dispatcher", "NPU 1", "at most", "33.6 ms", "update of ipnhgroup took "})
        EXPECT_NE(run("perf ipnhgroup").text.find(part), std::string::npos)
            << part << "\n"
            << run("perf ipnhgroup").text;
    EXPECT_EQ(run("perf nonsense").status, 2);
}

} // namespace
