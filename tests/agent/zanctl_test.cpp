/* zanctl as people and scripts use it: what it prints, and its exit status. */
#include "zanctl_fixture.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>

namespace
{

TEST_F(zanctl, says_what_was_refused_and_why)
{
    start({});
    const struct {
        const char *arguments;
        int status;
        const char *text; /* in the output */
    } cases[] = {
        {"create l3intf intf=100 ipv4_mtu=1500", 0, ""},
        {"create l3intf intf=100 ipv4_mtu=1500", 1,
         "create l3intf intf=100 refused: key: 0x4f908011 ZAN_RC_EXISTS: already exists"},
        {"--json create l3intf intf=100", 1,
         "{\"operation\":\"create\",\"table\":\"l3intf\",\"key\":\"intf=100\",\"result\":"
         "\"failed\","
         "\"code\":\"0x4f908011\",\"name\":\"ZAN_RC_EXISTS\",\"words\":\"already exists\","
         "\"field\":\"key\"}"},
        {"create l3intf intf=101 npu_mask_req=0x10", 1, "npu_mask_req: 0x10 asks for NPU 4"},
        {"create iproute vrf_id=0 prefix=10.0.0.1/8", 2, "prefix: 10.0.0.1/8"},
        {"create macllnh intf=100 adj_id=1 l3intf_obj.l3intf.intf=7", 1,
         "refused: l3intf_obj.l3intf: 0x2f908002 ZAN_RC_NOT_FOUND: not found; create l3intf intf=7 "
         "first"},
        {"create iproute vrf_id=0 prefix=10.0.0.0/8 next_obj=none", 1,
         "refused: next_obj: 0x4f908016 ZAN_RC_INVALID"},
        {"create nonsense a=1", 2, "there is no table nonsense"},
        {"list iproutee", 2, "there is no table iproutee; is it iproute?"},
        {"create l3intf ipv4_mtu=6", 2, "l3intf: name the object by its key: intf=..."},
        {"graph macllnh", 2, "macllnh: name the object by its key: intf=... adj_id=..."},
        {"list l3intf --limit -1", 2, "--limit: it must be 1 or more"},
        {"list l3intf > /dev/full", 2, ""},
        {"apply /", 2, "/: Is a directory"},
        {"failed --retry", 1, "nothing to retry"},
        {"sim --well --fail 1", 2, ""},
        {"get l3intf intf=100", 0, "l3intf intf=100 ipv4_mtu=1500\n"},
        {"get l3intf intf=100 --json", 0, "\"ipv4_mtu\":1500"},
        {"get l3intf intf=7", 1, "0x2f908002 ZAN_RC_NOT_FOUND"},
        {"compare", 0, "0 missing, 0 different, 0 too many"},
        {"--json status", 0, "\"table\":\"l3intf\",\"stored\":1"},
        {"quarantin", 2, "there is no command quarantin; is it quarantine?"},
        {"frobnicate --help", 2, "there is no command frobnicate: "},
    };
    for (const auto &c : cases) {
        const result_t result = run(c.arguments);
        EXPECT_EQ(result.status, c.status) << c.arguments << "\n" << result.text;
        EXPECT_TRUE(has(result.text, c.text)) << c.arguments;
    }
}

TEST_F(zanctl, applies_a_file_and_reports_line_by_line)
{
    start({});
    const std::string file = write_file("file", "# parents first\n"
                                                "create l3intf intf=3 ipv4_mtu=1500\n"
                                                "create l3intf intf=2\n"
                                                "delete l3intf intf=3\n"
                                                "create l3intf intf=2 # again\n"
                                                "\n"
                                                "create l3intf intf=1\n"
                                                "get l3intf intf=1\n");
    const result_t result = run("apply " + file);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(has(result.text, "line 5: create l3intf intf=2 refused: key: 0x4f908011"));
    EXPECT_TRUE(has(result.text, "6 operations: 5 done, 1 failed, 0 forgiven, 0 cut"));
    EXPECT_EQ(run("list l3intf").text, "l3intf intf=1\nl3intf intf=2\n");
    EXPECT_EQ(run("list l3intf --from intf=2 --limit 1").text, "l3intf intf=2\n");

    EXPECT_TRUE(has(run("apply " + write_file("raw", "\x1f\x8b\033[2J\n")).text,
                    "line 1: ...[2J is no operation"));

    const std::string mixed = write_file("mixed", "create l3intf intf=4\n"
                                                  "create l3intf intf=4\n"
                                                  "update l3intf intf=2 ipv4_mtu=9000\n"
                                                  "delete l3intf intf=1\n");
    const result_t stopped = run("apply --stop-on-error " + mixed);
    EXPECT_EQ(stopped.status, 1);
    EXPECT_TRUE(has(stopped.text, "line 3: update l3intf intf=2 not tried: 0x4f909275"));
    EXPECT_TRUE(has(stopped.text, "4 operations: 1 done, 1 failed, 0 forgiven, 2 cut"));
    const result_t async = run("apply --async --one-kind --batch 2 " + mixed);
    EXPECT_TRUE(has(async.text, "4 operations: 4 done"))
        << "an asynchronous create of what is there says nothing";
    EXPECT_EQ(run("list l3intf").text, "l3intf intf=2 ipv4_mtu=9000\nl3intf intf=4\n");
    const result_t lost = run("apply --async " + write_file("lost", "update l3intf intf=99\n"));
    EXPECT_TRUE(has(lost.text, "update l3intf intf=99 refused: 0x2f908002"));
}

TEST_F(zanctl, deletes_from_the_top_and_sees_it_held_back)
{
    start({});
    const std::string file = write_file(
        "graph", "create l3intf intf=1\n"
                 "create macllnh intf=1 adj_id=1 l3intf_obj.l3intf.intf=1\n"
                 "create ipnh nh_id=1 next_obj.macllnh.intf=1 next_obj.macllnh.adj_id=1\n"
                 "create ipnhgroup nhg_id=7 nexthop_next_obj[0].ipnh.nh_id=1\n"
                 "create iproute vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=7\n");
    ASSERT_EQ(run("apply " + file).status, 0);
    const result_t held = run("delete ipnhgroup nhg_id=7");
    EXPECT_EQ(held.status, 0) << "a delete that waits has not failed";
    EXPECT_TRUE(
        has(held.text, "delete ipnhgroup nhg_id=7 held back: 0x4f909e1a ZAN_RC_DELAY_DELETE"));
    EXPECT_TRUE(has(run("list ipnhgroup").text, "# delete-pending"));
    EXPECT_TRUE(has(run("list ipnhgroup --json").text, "\"delete_pending\":true"));
    EXPECT_EQ(run("graph ipnhgroup nhg_id=7").text, "ipnhgroup nhg_id=7  # delete-pending\n"
                                                    "leads to 1 object\n"
                                                    "  ipnh nh_id=1\n"
                                                    "    macllnh intf=1 adj_id=1\n"
                                                    "      l3intf intf=1\n"
                                                    "is led to by 1 object\n"
                                                    "  iproute vrf_id=0 prefix=10.0.0.0/8\n");
    EXPECT_EQ(run("graph ipnhgroup nhg_id=7 --depth 1 --children 0").text,
              "ipnhgroup nhg_id=7  # delete-pending\n"
              "leads to 1 object\n"
              "  ipnh nh_id=1\n"
              "    ... 1 more\n"
              "is led to by 1 object\n"
              "  ... 1 more\n");
    const std::string dot = run("graph ipnhgroup nhg_id=7 --dot").text;
    EXPECT_EQ(std::count(dot.begin(), dot.end(), '>'), 4) << dot;
    EXPECT_EQ(run("graph ipnhgroup nhg_id=8").status, 1);
    EXPECT_EQ(run("create ipnhgroup nhg_id=7 nexthop_next_obj[0].ipnh.nh_id=1").status, 0);
    EXPECT_FALSE(has(run("list ipnhgroup").text, "# delete-pending")) << "a create revives it";
    for (const char *key :
         {"l3intf intf=1", "macllnh intf=1 adj_id=1", "ipnh nh_id=1", "ipnhgroup nhg_id=7"})
        EXPECT_TRUE(has(run(std::string("delete ") + key).text, "held back")) << key;
    EXPECT_EQ(run("delete iproute vrf_id=0 prefix=10.0.0.0/8").status, 0);
    for (const char *table : {"iproute", "ipnhgroup", "ipnh", "macllnh", "l3intf"})
        EXPECT_EQ(run(std::string("list ") + table).text, "") << table;
    EXPECT_EQ(run("delete l3intf intf=1").status, 1);
}

TEST_F(zanctl, shows_how_a_change_walks)
{
    start({});
    const std::string file = write_file(
        "routes", "create ipnhgroup nhg_id=1 weight[0]=1 weight[1]=2\n"
                  "create ipnhgroup nhg_id=2\n"
                  "create iproute vrf_id=0 prefix=1.0.0.0/8 next_obj.ipnhgroup.nhg_id=1\n"
                  "create iproute vrf_id=0 prefix=2.0.0.0/8 next_obj.ipnhgroup.nhg_id=1\n"
                  "create iproute vrf_id=0 prefix=3.0.0.0/8 next_obj.ipnhgroup.nhg_id=1\n"
                  "create iproute vrf_id=0 prefix=4.0.0.0/8 next_obj.ipnhgroup.nhg_id=2\n");
    ASSERT_EQ(run("apply " + file).status, 0);
    const char *row =
        "iproute                       3          3          0          0           0 "
        "         0\n";
    const result_t walk = run("walk ipnhgroup nhg_id=1 --set fec_id=7");
    EXPECT_EQ(walk.status, 0);
    for (const char *part : {"pushed    1 x IPNHGROUP_FEC_ID_CHANGE\npruned    0, ", row,
                             "walked    3 objects updated"})
        EXPECT_TRUE(has(walk.text, part));
    EXPECT_EQ(run("get ipnhgroup nhg_id=1").text,
              "ipnhgroup nhg_id=1 fec_id=7 weight[0]=1 weight[1]=2\n")
        << "members that are not named stay";
    EXPECT_EQ(run("graph ipnhgroup nhg_id=1").text,
              "ipnhgroup nhg_id=1  # pushed 1\n"
              "leads to 0 objects\n"
              "is led to by 3 objects\n"
              "  iproute vrf_id=0 prefix=1.0.0.0/8  # updated 1\n"
              "  iproute vrf_id=0 prefix=2.0.0.0/8  # updated 1\n"
              "  iproute vrf_id=0 prefix=3.0.0.0/8  # updated 1\n");
    EXPECT_EQ(run("graph iproute vrf_id=0 prefix=4.0.0.0/8").text,
              "iproute vrf_id=0 prefix=4.0.0.0/8\n"
              "leads to 1 object\n"
              "  ipnhgroup nhg_id=2\n"
              "is led to by 0 objects\n")
        << "a route of another group was not touched";

    const result_t same = run("walk ipnhgroup nhg_id=1 --set fec_id=7");
    EXPECT_EQ(same.status, 0);
    EXPECT_TRUE(has(same.text, "pushed    no event: nothing changed that raises one"));
    const result_t json = run("--json walk ipnhgroup nhg_id=2 --set fec_id=8 is_pbts=true");
    for (const char *part : {"\"key\":\"nhg_id=2\",\"result\":\"done\"",
                             "\"pushed\":[{\"event\":\"IPNHGROUP_FEC_ID_CHANGE\",\"table\":"
                             "\"ipnhgroup\",\"times\":1}]",
                             "\"received\":[{\"event\":\"IPNHGROUP_FEC_ID_CHANGE\",\"table\":"
                             "\"iproute\",\"visits\":1}]",
                             "\"children\":[{\"table\":\"iproute\",\"updated\":1,\"forced\":1,"})
        EXPECT_TRUE(has(json.text, part));
    const result_t missing = run("walk ipnhgroup nhg_id=3 --set fec_id=7");
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(has(missing.text, "update ipnhgroup nhg_id=3 refused: key: 0x2f908002"));
    EXPECT_EQ(run("walk ipnhgroup nhg_id=1").status, 2) << "nothing to change";

    const std::string events = run("events").text;
    for (const char *part :
         {"IPNHGROUP_FEC_ID_CHANGE                                         2\n",
          "\nipnhgroup                     2          0          2          0  ",
          "\niproute                       4          4          0          0  ",
          "IPNHGROUP_FEC_ID_CHANGE                                iproute      "})
        EXPECT_TRUE(has(events, part));
    EXPECT_FALSE(has(events, "ECMP")) << "never pushed";
    const std::string of_group = run("events ipnhgroup").text;
    EXPECT_TRUE(
        has(of_group, "IPNHGROUP_ECMP_BASE_FEC_CHANGE                                  0\n"));
    EXPECT_FALSE(has(of_group, "iproute"));
    EXPECT_EQ(run("events nonsense").status, 2);
}

TEST_F(zanctl, shows_how_full_the_hardware_is)
{
    start({"--capacity", "lpm=4", "--thresholds", "lpm=50,40,100,90"});
    std::string text;
    for (const char *prefix : {"1", "2", "3", "4", "5"})
        text += std::string("create iproute vrf_id=0 prefix=") + prefix + ".0.0.0/8\n";
    ASSERT_EQ(run("apply " + write_file("routes", text)).status, 0) << "nobody waits for hardware";
    ASSERT_EQ(run("create ipvrf vrf_id=1").status, 0);
    EXPECT_EQ(run("compare").status, 1) << "the fifth has found no room";
    const std::string resources = run("resources").text;
    for (const char *part :
         {"\nlpm              0            4            4            4            4  100 % red     "
          "iproute 4\n",
          "\nlpm              1            4            4            4            4  100 % red     "
          "iproute 4\n",
          " no limit            1            1            1        green   ipvrf 1\n"})
        EXPECT_TRUE(has(resources, part));
    EXPECT_FALSE(has(resources, "acl")) << "neither used nor limited";

    wait_for("failed",
             " failed on NPU 0,1 with 0x4fa0c01c of the platform: No space left on device; ");
    wait_for("failed", ", next when there is room\n1 failed now; ");
    ASSERT_EQ(run("delete iproute vrf_id=0 prefix=1.0.0.0/8").status, 0);
    wait_for("failed", ", 1 recovered, 0 taken out of service");
    ASSERT_EQ(run("compare").status, 0) << "the fifth has found room";
    ASSERT_EQ(run("delete iproute vrf_id=0 prefix=2.0.0.0/8").status, 0);
    ASSERT_EQ(run("compare").status, 0); /* the NPUs stand still behind it */
    EXPECT_TRUE(has(run("resources").text, "   75 % yellow  iproute 3\n"));
    EXPECT_EQ(run("resources --db lpm --capacity 3 --npu 1").status, 0);
    const std::string json = run("--json resources").text;
    EXPECT_TRUE(has(json,
                    "{\"database\":\"lpm\",\"npu\":1,\"capacity\":3,\"used\":3,"
                    "\"high_water\":4,\"held\":3,\"state\":\"red\",\"crossings\":6,\"yellow\":50,"
                    "\"yellow_clear\":40,\"red\":100,\"red_clear\":90,\"tables\":{"
                    "\"iproute\":3}}"));
    EXPECT_FALSE(has(run("resources --db acl").text, "lpm"));
    EXPECT_FALSE(has(run("resources --db lpm --npu 1").text, "lpm              0"));
    EXPECT_EQ(run("resources --npu 5").status, 2) << "there are two";
    EXPECT_EQ(run("resources --db lpm --capacity 9 --npu 5").status, 2);
    EXPECT_EQ(run("resources --db lpm --thresholds 80,75,95,90 --npu 1").status, 2);
    EXPECT_EQ(run("resources --db nonsense --capacity 3").status, 2);
    EXPECT_EQ(run("resources --capacity 3").status, 2) << "of which database?";
    EXPECT_EQ(run("resources --db lpm --thresholds 80,90,95,90").status, 2) << "clears above";
    EXPECT_EQ(run("resources --db lpm --thresholds eighty").status, 2);
}

/* A group whose writes fail on one NPU, from the first failure to its release; and what the client
 * that watches hears of it. */
TEST_F(zanctl, shows_what_failed_and_lets_people_act)
{
    start({"--retries", "2"});
    const std::string heard = process.directory + "/heard";
    const std::string watch = std::string(ZANCTL_PROGRAM) + " --socket " + process.socket_path +
                              " watch ipnhgroup iproute --limit 6 > " + heard + " 2>&1 &";
    ASSERT_EQ(system(watch.c_str()), 0);
    auto wait_for_line = [&](const std::string &text) {
        for (int i = 0; i < 500; i++) {
            std::stringstream all;
            all << std::ifstream(heard).rdbuf();
            if (all.str().find(text) != std::string::npos)
                return;
            usleep(20000);
        }
        ADD_FAILURE() << "nobody heard " << text;
    };
    wait_for_line("watching");
    ASSERT_EQ(run("create ipnhgroup nhg_id=7").status, 0);
    ASSERT_EQ(run("create iproute vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=7").status,
              0);
    ASSERT_EQ(run("compare").status, 0); /* the NPUs have done all that */
    ASSERT_EQ(run("sim --fail 2 --table ipnhgroup --npu 1").status, 0);
    ASSERT_EQ(run("update ipnhgroup nhg_id=7 is_pbts=true").status, 0) << "nobody waits for it";
    wait_for("failed", "0 failed now; 2 retries since the start, 1 recovered, 0 taken out");
    const std::string errors = run("trace --errors --table ipnhgroup").text;
    EXPECT_TRUE(has(errors, "write failed: table ipnhgroup, operation update, npus 0x2, rc "));
    EXPECT_FALSE(has(errors, "(trans 0)"));
    EXPECT_TRUE(has(run("table ipnhgroup").text,
                    "1               1            1              0              2"));

    EXPECT_EQ(run("failed iproute vrf_id=0 prefix=10.0.0.0/8 --retry").status, 1) << "it is well";
    EXPECT_EQ(run("quarantine --release").status, 1) << "nothing is there";

    ASSERT_EQ(run("sim --fail 0 --table ipnhgroup --npu 0 --operation update").status, 0);
    ASSERT_EQ(run("update ipnhgroup nhg_id=7 is_pbts=false").status, 0);
    wait_for_line("ipnhgroup nhg_id=7: taken out of service (type 20)");
    wait_for("quarantine", "iproute vrf_id=0 prefix=10.0.0.0/8: taken out for ipnhgroup nhg_id=7\n"
                           "ipnhgroup nhg_id=7: failed with 0x4fa0c005 of the platform: "
                           "Input/output error after 2 retries; 1 taken out with it\n"
                           "2 out of service now; 2 taken out since the start, 0 put back\n");
    EXPECT_EQ(run("list iproute").text, "");
    EXPECT_TRUE(has(run("quarantine ipnhgroup nhg_id=7").text, "\n2 out of service now; "));
    EXPECT_FALSE(has(run("quarantine ipnhgroup nhg_id=7").text, "iproute"));
    EXPECT_TRUE(has(run("history ipnhgroup nhg_id=7").text, "it is in quarantine"));
    ASSERT_EQ(run("sim --well").status, 0);
    EXPECT_EQ(run("quarantine ipnhgroup nhg_id=7 --release").text, "released: 2 objects\n");
    wait_for("quarantine", "0 out of service now; 2 taken out since the start, 2 put back\n");
    EXPECT_EQ(run("compare").status, 0);
    EXPECT_EQ(run("failed nonsense").status, 2);
    EXPECT_EQ(run("sim").status, 2) << "how?";

    EXPECT_EQ(run("create iproute vrf_id=0 prefix=11.0.0.0/8 next_obj.ipnhgroup.nhg_id=8").status,
              1);
    wait_for_line(
        "create iproute vrf_id=0 prefix=11.0.0.0/8: a reference was not resolved (type 15)");
    EXPECT_EQ(run("delete ipnhgroup nhg_id=9").status, 1);
    wait_for_line("delete ipnhgroup nhg_id=9: not found (type 17)");
    EXPECT_TRUE(has(run("--json graph ipnhgroup nhg_id=7 --depth 0").text, "\"attempts\":0"));
    const std::string status = run("status").text;
    const auto failures = [&status](const char *table) {
        unsigned long long count = 0;
        const size_t line = status.find(std::string("\n") + table + " ");
        if (line != std::string::npos)
            sscanf(status.c_str() + line, "%*s %*u %*u %*u %*u %llu", &count);
        return count;
    };
    EXPECT_EQ(failures("iproute"), 1) << "a parent that a union names\n" << status;
    EXPECT_GE(failures("ipnhgroup"), 3) << "writes that an NPU refused\n" << status;
}

/* Nobody walks but when it is asked: the service's thread, or where it has none the dispatcher. */
TEST_F(zanctl, shows_counters_and_the_walks_that_bring_them_in)
{
    for (const char *period : {"86400", "0"}) {
        if (process.pid != -1)
            process.stop();
        start({"--stats-period", period});
        EXPECT_NE(run("stats").text.find("a table is walked from its first create on"),
                  std::string::npos);
        EXPECT_EQ(run("create tnlstats tunnel_id=1").text, "");
        EXPECT_EQ(run("create punt punt_id=1 reason=3").text, "");
        EXPECT_NE(run("stats tnlstats tunnel_id=1").text.find("not walked yet"), std::string::npos);
        usleep(20000); // a fiftieth of a second, in which 40 packets come at least
        const auto shown = nlohmann::json::parse(run("--json stats punt punt_id=1 --now").text);
        EXPECT_GE(shown["adjacencies"]["punt_ctrs"]["packets"], 40);
        const auto walked = nlohmann::json::parse(run("--json stats tnlstats tunnel_id=1").text);
        EXPECT_GE(walked["counters"]["rx_packets"], 40);
        EXPECT_TRUE(walked.contains("age_s"));
        EXPECT_EQ(walked["counters"],
                  nlohmann::json::parse(run("--json stats tnlstats tunnel_id=1").text)["counters"])
            << "nobody walks but when it is asked";
        const auto walks = nlohmann::json::parse(run("--json stats").text)["walks"];
        ASSERT_EQ(walks.size(), 2u);
        EXPECT_EQ(walks[1]["table"], "punt_ctrs");
        EXPECT_EQ(walks[1]["objects"], 1);
        EXPECT_EQ(walks[1]["passes"], 1);
        EXPECT_EQ(run("stats l3intf intf=1").status, 2);
        EXPECT_EQ(run("stats punt punt_id=9").status, 1);
    }
}

TEST_F(zanctl, decodes_the_trace_ring)
{
    start({});
    ASSERT_EQ(run("create ipnhgroup nhg_id=7").status, 0);
    ASSERT_EQ(run("create iproute vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=7").status,
              0);
    ASSERT_EQ(run("create iproute vrf_id=0 prefix=11.0.0.0/8 next_obj.ipnhgroup.nhg_id=8").status,
              1);
    ASSERT_EQ(run("update iproute vrf_id=0 prefix=10.0.0.0/8 bgp_as=7").status, 0);

    const std::string all = run("--json trace --errors").text;
    const auto lines = std::count(all.begin(), all.end(), '\n');
    EXPECT_TRUE(has(run("--json status").text, "\"trace_errors\":" + std::to_string(lines) + ","))
        << all;
    const std::string errors = run("trace --errors --table iproute").text;
    for (const char *part :
         {"iproute_error", "iproute: parent not found: trans 21474836", "nhg_id=8",
          "batch failed: rc 0x2f908002 ZAN_RC_NOT_FOUND, table iproute, keep_going 1, trans "})
        EXPECT_TRUE(has(errors, part));
    EXPECT_FALSE(has(errors, "(trans 0)"));
    EXPECT_FALSE(has(errors, "created"));
    const std::string history = run("history iproute vrf_id=0 prefix=10.0.0.0/8").text;
    const size_t created = history.find("created: table iproute"),
                 bound = history.find("iproute: bound"),
                 replaced = history.find("replaced: table iproute");
    EXPECT_TRUE(created < bound && bound < replaced && replaced != std::string::npos) << history;
    EXPECT_FALSE(has(history, "ipnhgroup_event")) << "another's life";
    EXPECT_EQ(run("trace --last 1 --trans 12345").text, "");
    EXPECT_EQ(std::count(history.begin(), history.end(), '\n'),
              1 + std::count(history.begin(), history.end(), '('))
        << "the day stands in front once";

    /* Another object gets its address, and none of its past. */
    ASSERT_EQ(run("delete iproute vrf_id=0 prefix=10.0.0.0/8").status, 0);
    ASSERT_EQ(run("create iproute vrf_id=0 prefix=13.0.0.0/8 next_obj.ipnhgroup.nhg_id=7").status,
              0);
    EXPECT_FALSE(has(run("history iproute vrf_id=0 prefix=13.0.0.0/8").text, "replaced"));
    ASSERT_EQ(run("delete iproute vrf_id=0 prefix=10.0.0.0/8").status, 1);
    EXPECT_TRUE(has(run("history iproute vrf_id=0 prefix=10.0.0.0/8").text, "iproute: not found"));
    EXPECT_EQ(run("--json trace --last 1").text.find("{\"time_ns\":"), 0u);
    EXPECT_EQ(run("history iproute vrf_id=0 prefix=12.0.0.0/8").status, 1);
    EXPECT_EQ(run("trace --table nonsense").status, 2);
}

TEST_F(zanctl, reads_the_trace_of_an_agent_that_was_killed)
{
    start({});
    ASSERT_EQ(run("create l3intf intf=100 ipv4_mtu=1500").status, 0);
    ASSERT_EQ(run("delete l3intf intf=101").status, 1);
    kill(process.pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(process.pid, &status, 0), process.pid);
    const std::string file = process.socket_path + ".trace";
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
    const std::string text = run("trace --table l3intf --file " + file).text;
    for (const char *part : {"l3intf_error", "l3intf: not found: trans 21474836", "intf=101",
                             "transaction_history_event created: table l3intf, obj 0x"})
        EXPECT_TRUE(has(text, part));
    EXPECT_EQ(run("trace --file " + write_file("other", "no such thing")).status, 2);
    EXPECT_EQ(run("trace --file " + process.directory + "/none").status, 2);
    EXPECT_TRUE(has(run("trace --file " + process.directory).text, "it is a directory"));
    EXPECT_EQ(run("trace -f --file " + file).status, 2);
    EXPECT_TRUE(has(run("trace --since 60 --file " + file).text, "l3intf_error"));

    /* One whose start is refused leaves it where it is, the next one keeps it. */
    const std::string directory = process.directory;
    for (const std::string wrong : {"refused --capacity nonsense=4", "refused --platform none",
                                    "other" /* which is no socket */}) {
        const std::string command = "timeout 20 " ZAN_AGENT_PROGRAM " --trace-file " + file +
                                    " --socket " + directory + "/" + wrong + " >> " + directory +
                                    "/log 2>&1";
        status = system(command.c_str());
        EXPECT_TRUE(WEXITSTATUS(status) == 1 || WEXITSTATUS(status) == 2) << wrong;
    }
    EXPECT_FALSE(std::filesystem::exists(file + ".old"));
    start({"--trace-file", file});
    ASSERT_EQ(run("status").status, 0); /* it serves, so it has its file */
    EXPECT_TRUE(std::filesystem::exists(file + ".old"));
    std::filesystem::remove_all(directory);
}

TEST_F(zanctl, shows_colours_and_what_they_keep_back)
{
    start({});
    const std::string file = write_file("colours", "create test_if id=1\n"
                                                   "create test_nh id=1 test_if.id=1\n"
                                                   "create test_if id=2\n"
                                                   "create testay id=1 test_if.id=2\n");
    ASSERT_EQ(run("apply " + file).status, 0);
    EXPECT_EQ(run("graph test_if id=1").text, "test_if id=1  # green, red\n"
                                              "leads to 0 objects\n"
                                              "is led to by 1 object\n"
                                              "  test_nh id=1  # green, red\n");
    EXPECT_TRUE(has(run("--json graph test_if id=2").text, "\"colours\":[\"red\"],\"pushed\":0"));
    const struct {
        const char *arguments;
        const char *text; /* in the output */
    } cases[] = {
        {"walk test_if id=1 --set change_4=1", "pushed    1 x TEST_IF_GREEN_BACKWALK\n"},
        {"walk test_if id=2 --set change_4=1",
         "pushed    no event\npruned    0, which no table below "
         "wants\nskipped   1, whose colour"},
        {"walk test_if id=2 --set change_2=1", "pushed    no event\npruned    1, which"},
        {"walk test_if id=2 --set change_4=2 change_7=1",
         "pushed    1 x TEST_IF_IF_RED_BACKWALK\npruned    0, which no table below wants\nskipped  "
         " 1, "},
    };
    for (const auto &c : cases) {
        const std::string text = run(c.arguments).text;
        EXPECT_TRUE(has(text, c.text)) << c.arguments;
    }
}

TEST_F(zanctl, updates_what_is_named_and_nothing_else)
{
    start({});
    run("create ipnhgroup nhg_id=1 weight[0]=1 weight[1]=2 weight[2]=3");
    run("update ipnhgroup nhg_id=1 weight[1]=9");
    EXPECT_EQ(run("get ipnhgroup nhg_id=1").text,
              "ipnhgroup nhg_id=1 weight[0]=1 weight[1]=9 weight[2]=3\n");
    run("update ipnhgroup nhg_id=1 num_elements=1 weight[0]=4");
    EXPECT_EQ(run("get ipnhgroup nhg_id=1").text, "ipnhgroup nhg_id=1 weight[0]=4\n");
    run("create lagport intf=5");
    run("create l3intf intf=1 ipv4_mtu=1500 ipv6_mtu=1400 lagport.intf=5");
    EXPECT_EQ(run("update l3intf intf=1 ipv4_mtu=9000").status, 0);
    EXPECT_EQ(run("get l3intf intf=1").text,
              "l3intf intf=1 ipv4_mtu=9000 ipv6_mtu=1400 lagport.intf=5\n");
    const std::string sparse = write_file("sparse", "update l3intf intf=1 ipv4_mtu=1600\n");
    EXPECT_EQ(run("apply " + sparse).status, 0);
    EXPECT_EQ(run("get l3intf intf=1").text, "l3intf intf=1 ipv4_mtu=1600 ipv6_mtu=1400\n")
        << "a file is sent as it stands: it drops the plain reference";
    EXPECT_EQ(run("delete lagport intf=5").text, "") << "nothing holds it any more";
    const result_t missing = run("update l3intf intf=7 ipv4_mtu=1");
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(has(missing.text, "update l3intf intf=7 refused: key: 0x2f908002"));
}

TEST_F(zanctl, loads_a_routing_table)
{
    start({"--npus", "3"});
    const std::string file = write_file(
        "prefixes", "8.0.0.0/8\n9.9.9.0/24\r\n\n# a comment\n2600::/32\n8.8.8.8/32\n8.0.0.0/8\n");
    const result_t first = run("load " + file);
    EXPECT_EQ(first.status, 0) << first.text;
    for (const char *part :
         {"iproute                 3          3", "ip6route                1          1",
          "1 prefix stood in the input more than once", "3 in key order, 0 missing",
          "refused   nothing", "1020 objects on NPUs: 0 missing, 0 different, 0 too many",
          "all well"})
        EXPECT_TRUE(has(first.text, part));
    EXPECT_EQ(run("load " + file).status, 0) << "loading twice is no mistake";
    const result_t change = run("change " + file);
    EXPECT_EQ(change.status, 0) << change.text;
    for (const char *part :
         {"1 of 1 iproute updated, 1 forced", "1 of 1 ip6route updated, 1 forced",
          "4 of 4 macllnh updated, 0 forced", "4 below it, 60 below other objects",
          "every child followed, and nothing else was touched"})
        EXPECT_TRUE(has(change.text, part));
    EXPECT_EQ(run("change " + file).status, 0) << "and back";
    const result_t unload = run("unload " + file);
    EXPECT_EQ(unload.status, 0) << unload.text;
    for (const char *part : {"moved     2 routes", " held back by what led to them, ",
                             "left      0 stored, 0 identifiers, 0 on NPUs", "all gone"})
        EXPECT_TRUE(has(unload.text, part));
    EXPECT_EQ(run("load " + file).status, 0) << "and in again";

    /* A route that is in the way and differs becomes what was sent. */
    EXPECT_EQ(run("create iproute vrf_id=0 prefix=7.0.0.0/8 route_type=unicast "
                  "next_obj.ipnhgroup.nhg_id=64")
                  .status,
              0);
    const std::string other = write_file("other", "7.0.0.0/8\n");
    const result_t replaced = run("load " + other);
    EXPECT_EQ(replaced.status, 0) << replaced.text;
    EXPECT_TRUE(has(run("get iproute vrf_id=0 prefix=7.0.0.0/8").text, "nhg_id=1"));

    /* What others sent stands between the routes, which are all looked at. */
    EXPECT_EQ(run("create iproute vrf_id=0 prefix=8.8.8.0/24").status, 0);
    EXPECT_EQ(run("create iproute vrf_id=0 prefix=8.8.9.0/24").status, 0);
    const result_t among = run("load " + file);
    EXPECT_EQ(among.status, 0) << among.text;
    EXPECT_TRUE(has(among.text, "3 in key order, 0 missing, 0 different, 0 out of order, 3 stra"));
    const result_t rest = run("unload " + file);
    EXPECT_EQ(rest.status, 1);
    EXPECT_TRUE(has(rest.text, "\n  iproute: 3 stored, 3 identifiers, 9 on NPUs\n"));

    const result_t bad = run("load " + write_file("bad", "8.0.0.0/8\n8.0.0.1/8\n"));
    EXPECT_EQ(bad.status, 2);
    EXPECT_TRUE(has(bad.text, "line 2: "));
}

TEST_F(zanctl, change_notices_what_does_not_follow)
{
    start({});
    const std::string file = write_file("prefixes", "8.0.0.0/8\n");
    const result_t empty = run("change " + file);
    EXPECT_EQ(empty.status, 1);
    EXPECT_TRUE(has(empty.text, "0x2f908002 ZAN_RC_NOT_FOUND"));
    ASSERT_EQ(run("load " + file).status, 0);
    ASSERT_EQ(run("create iproute vrf_id=1 prefix=8.0.0.0/8 next_obj.ipnhgroup.nhg_id=1").status,
              0);
    const result_t more = run("change " + file);
    EXPECT_EQ(more.status, 1) << more.text;
    EXPECT_TRUE(has(more.text, "iproute: 2 updated, not 1"));
    EXPECT_TRUE(has(more.text, "NOT as it should be"));
}

TEST_F(zanctl, load_shows_what_the_hardware_lost)
{
    start({"--platform", FORGETFUL_PLATFORM});
    const result_t result = run("load " + write_file("prefixes", "8.0.0.0/8\n"));
    EXPECT_EQ(result.status, 1) << result.text;
    EXPECT_TRUE(has(result.text, "NPU 1 missing iproute: vrf_id=0 prefix=8.0.0.0/8 not held"));
    EXPECT_TRUE(has(result.text, "NOT all well"));
}

} // namespace
