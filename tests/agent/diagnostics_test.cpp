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

} // namespace
